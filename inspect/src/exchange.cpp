#include "exchange.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "text.hpp"
#include "zq_diag.h"

namespace zqinspect {

namespace {

uint16_t be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}
const uint8_t *bytes(std::string_view s) { return reinterpret_cast<const uint8_t *>(s.data()); }

std::string ipv4_text(const uint8_t *p) {
    char buf[20];
    snprintf(buf, sizeof(buf), "%u.%u.%u.%u", p[0], p[1], p[2], p[3]);
    return buf;
}

std::string hex(uint32_t v, int width) {
    char buf[16];
    snprintf(buf, sizeof(buf), "0x%0*x", width, v);
    return buf;
}

// Text carried inside a packet (a service name, a CHAP name, a message):
// shown escaped, never raw.
std::string packet_text(std::string_view s) { return escaped(s.substr(0, 200)); }

// ---- DHCP ----------------------------------------------------------------

constexpr const char *DHCP_TYPES[] = {"",    "DISCOVER", "OFFER",   "REQUEST", "DECLINE",
                                      "ACK", "NAK",      "RELEASE", "INFORM"};

// The bits of the gateway's DHCP verdict: a message type seen on the
// connection's interface.
enum : uint32_t { SEEN_DISCOVER = 1, SEEN_OFFER = 2, SEEN_REQUEST = 4 };

// ---- PPPoE ---------------------------------------------------------------

const char *discovery_name(uint8_t code) {
    switch (code) {
    case 0x09:
        return "PADI";
    case 0x07:
        return "PADO";
    case 0x19:
        return "PADR";
    case 0x65:
        return "PADS";
    case 0xa7:
        return "PADT";
    default:
        return nullptr;
    }
}

const char *control_code_name(uint8_t code) {
    static constexpr const char *NAMES[] = {
        "",         "Conf-Request", "Conf-Ack",        "Conf-Nak",     "Conf-Reject", "Term-Request",
        "Term-Ack", "Code-Reject",  "Protocol-Reject", "Echo-Request", "Echo-Reply",  "Discard-Request"};
    return code > 0 && code < std::size(NAMES) ? NAMES[code] : "unknown code";
}

void pppoe_tags(std::string_view tags, Message &m) {
    const uint8_t *p = bytes(tags);
    size_t n = tags.size();
    while (n >= 4) {
        const uint16_t type = be16(p), len = be16(p + 2);
        if (len > n - 4) break;
        const std::string_view value(reinterpret_cast<const char *>(p + 4), len);
        switch (type) {
        case 0x0101:
            m.fields.emplace_back("Service-Name", packet_text(value));
            break;
        case 0x0102:
            m.fields.emplace_back("AC-Name", packet_text(value));
            break;
        case 0x0201:
            m.fields.emplace_back("Service-Name-Error", packet_text(value));
            break;
        case 0x0202:
            m.fields.emplace_back("AC-System-Error", packet_text(value));
            break;
        case 0x0203:
            m.fields.emplace_back("Generic-Error", packet_text(value));
            break;
        default:
            break;
        }
        p += 4 + len;
        n -= 4 + len;
    }
}

void lcp_options(std::string_view opts, bool ipcp, Message &m) {
    const uint8_t *p = bytes(opts);
    size_t n = opts.size();
    while (n >= 2) {
        const uint8_t type = p[0], len = p[1];
        if (len < 2 || len > n) break;
        if (!ipcp) {
            if (type == 1 && len == 4) m.fields.emplace_back("MRU", std::to_string(be16(p + 2)));
            if (type == 3 && len >= 4) {
                const uint16_t proto = be16(p + 2);
                std::string auth = proto == 0xc223 ? "CHAP" : proto == 0xc023 ? "PAP" : hex(proto, 4);
                if (proto == 0xc223 && len >= 5)
                    auth += p[4] == 5 ? ", MD5" : p[4] == 0x80 ? ", MSCHAP" : ", alg " + std::to_string(p[4]);
                m.fields.emplace_back("Auth-Prot", auth);
            }
            if (type == 5 && len == 6) m.fields.emplace_back("Magic-Num", hex(be32(p + 2), 8));
        } else if (len == 6) {
            if (type == 3) m.fields.emplace_back("IP-Addr", ipv4_text(p + 2));
            if (type == 129) m.fields.emplace_back("Pri-DNS", ipv4_text(p + 2));
            if (type == 131) m.fields.emplace_back("Sec-DNS", ipv4_text(p + 2));
        }
        p += len;
        n -= len;
    }
}

// One PPP packet of a session: name and key fields. False when it is not
// one the ladder shows.
bool ppp_message(std::string_view ppp, Message &m) {
    if (ppp.size() < 6) return false;
    const uint8_t *p = bytes(ppp);
    const uint16_t proto = be16(p);
    const uint8_t code = p[2];
    const uint16_t len =
        std::min<uint16_t>(be16(p + 4), static_cast<uint16_t>(std::min<size_t>(ppp.size() - 2, 0xffff)));
    if (len < 4) return false;
    const std::string_view body(reinterpret_cast<const char *>(p + 6), len - 4u);
    m.fields.emplace_back("id", std::to_string(p[3]));
    switch (proto) {
    case 0xc021:
        if (code == 9 || code == 10 || code == 11) return false; // echoes are keep-alive, not negotiation
        m.name = std::string("LCP ") + control_code_name(code);
        if (code >= 1 && code <= 4) lcp_options(body, false, m);
        return true;
    case 0x8021:
        m.name = std::string("IPCP ") + control_code_name(code);
        if (code >= 1 && code <= 4) lcp_options(body, true, m);
        return true;
    case 0xc223: {
        static constexpr const char *CHAP[] = {"", "Challenge", "Response", "Success", "Failure"};
        if (code < 1 || code > 4) return false;
        m.name = std::string("CHAP ") + CHAP[code];
        if ((code == 1 || code == 2) && !body.empty()) {
            const size_t vlen = static_cast<uint8_t>(body[0]);
            if (1 + vlen <= body.size()) m.fields.emplace_back("name", packet_text(body.substr(1 + vlen)));
        } else if (code >= 3 && !body.empty()) {
            m.fields.emplace_back("message", packet_text(body));
        }
        return true;
    }
    case 0xc023: {
        static constexpr const char *PAP[] = {"", "Auth-Req", "Auth-ACK", "Auth-NACK"};
        if (code < 1 || code > 3) return false;
        m.name = std::string("PAP ") + PAP[code];
        if (code == 1 && !body.empty()) {
            // The peer's name only: the password stays out of any report.
            const size_t idlen = static_cast<uint8_t>(body[0]);
            if (1 + idlen <= body.size()) m.fields.emplace_back("peer", packet_text(body.substr(1, idlen)));
        } else if (code > 1 && !body.empty()) {
            const size_t mlen = static_cast<uint8_t>(body[0]);
            if (1 + mlen <= body.size()) m.fields.emplace_back("message", packet_text(body.substr(1, mlen)));
        }
        return true;
    }
    default:
        return false;
    }
}

size_t count(const std::vector<const Message *> &msgs, std::string_view name) {
    return static_cast<size_t>(
        std::count_if(msgs.begin(), msgs.end(), [&](const Message *m) { return m->name == name; }));
}

std::string field(const Message &m, std::string_view key) {
    for (const auto &[k, v] : m.fields)
        if (k == key) return v;
    return {};
}

} // namespace

std::string mac_text(const uint8_t *mac) {
    char buf[24];
    snprintf(buf, sizeof(buf), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
             mac[5]);
    return buf;
}

ExchangeDecoder::Group &ExchangeDecoder::group(const std::string &protocol, const Frame &f) {
    const uint64_t key = static_cast<uint64_t>(f.ifindex) << 16 | f.vlan;
    for (Group &g : groups_)
        if (g.protocol == protocol && g.key == key) return g;
    Group g;
    g.protocol = protocol;
    g.key = key;
    g.exchange.protocol = protocol;
    g.exchange.capture = capture_;
    if (f.ifindex) g.exchange.interface = "ifindex " + std::to_string(f.ifindex);
    if (f.vlan)
        g.exchange.interface += (g.exchange.interface.empty() ? "vlan " : " vlan ") + std::to_string(f.vlan);
    groups_.push_back(std::move(g));
    return groups_.back();
}

// The gateway narrows its decoded capture to the packets its own interface
// received (addressed to it) or sent; a plain Ethernet capture cannot say,
// and every packet counts.
static bool passes_library_filter(const Frame &f) {
    return f.pkttype == PKT_UNKNOWN || f.pkttype == PKT_HOST || f.pkttype == PKT_OUTGOING;
}

void ExchangeDecoder::add(const Frame &f) {
    if (kept_ >= MESSAGE_CAP) return;
    if (f.ethertype == 0x8863 || f.ethertype == 0x8864) return add_pppoe(f);
    if (f.ethertype != 0x0800 || f.payload.size() < 20) return;
    const uint8_t *ip = bytes(f.payload);
    const size_t ihl = (ip[0] & 0x0f) * 4u;
    if ((ip[0] >> 4) != 4 || ihl < 20 || f.payload.size() < ihl + 8 || ip[9] != 17) return;
    if ((be16(ip + 6) & 0x1fff) != 0) return; // a later fragment
    const uint8_t *udp = ip + ihl;
    const uint16_t sport = be16(udp), dport = be16(udp + 2);
    if (!((sport == 67 && dport == 68) || (sport == 68 && dport == 67))) return;
    add_dhcp(f, f.payload.substr(ihl + 8));
}

void ExchangeDecoder::add_dhcp(const Frame &f, std::string_view b) {
    if (b.size() < 240) return;
    const uint8_t *p = bytes(b);
    if (be32(p + 236) != 0x63825363) return;
    Message m;
    m.time = f.time;
    m.from = p[0] == 1 ? Lane::client : Lane::server;
    m.analysed = passes_library_filter(f);
    uint8_t type = 0;
    std::vector<std::pair<std::string, std::string>> opts;
    for (size_t i = 240; i < b.size();) {
        const uint8_t code = p[i];
        if (code == 0) {
            ++i;
            continue;
        }
        if (code == 255 || i + 1 >= b.size()) break;
        const uint8_t len = p[i + 1];
        if (i + 2 + len > b.size()) break;
        const uint8_t *v = p + i + 2;
        switch (code) {
        case 53:
            if (len == 1) type = v[0];
            break;
        case 54:
            if (len == 4) opts.emplace_back("server id", ipv4_text(v));
            break;
        case 50:
            if (len == 4) opts.emplace_back("requested", ipv4_text(v));
            break;
        case 51:
            if (len == 4) opts.emplace_back("lease", std::to_string(be32(v)) + " s");
            break;
        case 1:
            if (len == 4) opts.emplace_back("mask", ipv4_text(v));
            break;
        case 3:
            if (len >= 4) opts.emplace_back("router", ipv4_text(v));
            break;
        case 6:
            if (len >= 4) opts.emplace_back("dns", ipv4_text(v));
            break;
        case 12:
            opts.emplace_back("hostname", packet_text({reinterpret_cast<const char *>(v), len}));
            break;
        case 56:
            opts.emplace_back("message", packet_text({reinterpret_cast<const char *>(v), len}));
            break;
        default:
            break;
        }
        i += 2u + len;
    }
    if (type == 0 || type >= std::size(DHCP_TYPES)) return;
    m.name = DHCP_TYPES[type];
    m.fields.emplace_back("xid", hex(be32(p + 4), 8));
    if (be32(p + 16)) m.fields.emplace_back("yiaddr", ipv4_text(p + 16));
    m.fields.insert(m.fields.end(), opts.begin(), opts.end());
    Exchange &e = group("dhcp", f).exchange;
    const std::string chaddr = mac_text(p + 28);
    if (e.client.empty()) e.client = chaddr;
    if (m.from == Lane::server && e.server.empty()) {
        const std::string sid = field(m, "server id");
        e.server = sid.empty() ? mac_text(f.src) : sid;
    }
    e.messages.push_back(std::move(m));
    ++kept_;
}

void ExchangeDecoder::add_pppoe(const Frame &f) {
    if (f.payload.size() < 6) return;
    const uint8_t *p = bytes(f.payload);
    const uint16_t len = be16(p + 4);
    const std::string_view body = f.payload.substr(6, std::min<size_t>(len, f.payload.size() - 6));
    Exchange &e = group("pppoe", f).exchange;
    Message m;
    m.time = f.time;
    m.analysed = passes_library_filter(f);
    const std::string src = mac_text(f.src);
    if (f.ethertype == 0x8863) {
        const char *name = discovery_name(p[1]);
        if (!name) return;
        m.name = name;
        const bool from_client =
            p[1] == 0x09 || p[1] == 0x19 || (p[1] == 0xa7 && (f.pkttype == PKT_OUTGOING || src == e.client));
        m.from = from_client ? Lane::client : Lane::server;
        if (p[1] == 0x09 && e.client.empty()) e.client = src;
        if ((p[1] == 0x07 || p[1] == 0x65) && e.server.empty()) e.server = src;
        if (be16(p + 2)) m.fields.emplace_back("session", hex(be16(p + 2), 4));
        pppoe_tags(body, m);
    } else {
        if (!ppp_message(body, m)) return;
        const bool from_client = f.pkttype == PKT_UNKNOWN ? src == e.client : f.pkttype == PKT_OUTGOING;
        m.from = from_client ? Lane::client : Lane::server;
    }
    e.messages.push_back(std::move(m));
    ++kept_;
}

std::vector<Exchange> ExchangeDecoder::finish() {
    std::vector<Exchange> out;
    for (const char *protocol : {"dhcp", "pppoe"}) {
        for (Group &g : groups_) {
            if (g.protocol != protocol) continue;
            Exchange &e = g.exchange;
            std::stable_sort(e.messages.begin(), e.messages.end(),
                             [](const Message &a, const Message &b) { return a.time < b.time; });
            if (g.protocol == "dhcp")
                judge_dhcp(e);
            else
                judge_pppoe(e);
            out.push_back(std::move(e));
        }
    }
    groups_.clear();
    return out;
}

void judge_dhcp(Exchange &e) {
    uint32_t seen = 0;
    for (const Message &m : e.messages) {
        if (!m.analysed) continue;
        if (m.name == "DISCOVER") seen |= SEEN_DISCOVER;
        if (m.name == "OFFER") seen |= SEEN_OFFER;
        if (m.name == "REQUEST") seen |= SEEN_REQUEST;
    }
    // The gateway's verdict table: Discover and Offer, Discover alone,
    // Request without Discover, nothing related.
    if ((seen & (SEEN_DISCOVER | SEEN_OFFER)) == (SEEN_DISCOVER | SEEN_OFFER)) {
        e.verdict = 0;
        e.verdict_text = "a DHCP server responded";
    } else if (seen & SEEN_DISCOVER) {
        e.verdict = 2;
        e.verdict_text = "no DHCP server responded";
    } else if (seen & SEEN_REQUEST) {
        e.verdict = 1;
        e.verdict_text = "Request without Discover and Offer";
    } else {
        e.verdict = 1;
        e.verdict_text = "no related DHCP packets";
    }
    // Where the last exchange stopped, over every packet of the ladder.
    static constexpr const char *STAGES[] = {"DISCOVER", "OFFER", "REQUEST", "ACK"};
    size_t reached = 0;
    bool nak = false;
    for (const Message &m : e.messages) {
        if (m.name == "DISCOVER")
            reached = 1, nak = false;
        else if (m.name == "OFFER" && reached >= 1)
            reached = std::max<size_t>(reached, 2);
        else if (m.name == "REQUEST")
            reached = std::max<size_t>(reached, 3);
        else if (m.name == "ACK" && reached >= 3)
            reached = 4;
        else if (m.name == "NAK")
            nak = true;
    }
    if (nak)
        e.stopped_at = "NAK";
    else if (reached == 4)
        e.stopped_at = "complete";
    else if (reached == 0)
        e.stopped_at = "DISCOVER";
    else
        e.stopped_at = STAGES[reached];
}

namespace {

// One attempt: from a PADI to the next PADT, as the gateway cuts them.
std::vector<std::vector<const Message *>> sessions_of(const std::vector<const Message *> &msgs) {
    std::vector<std::vector<const Message *>> out;
    std::vector<const Message *> block;
    bool open = false;
    for (const Message *m : msgs) {
        if (!open) {
            if (m->name != "PADI") continue;
            open = true;
            block.clear();
        }
        block.push_back(m);
        if (m->name == "PADT") {
            out.push_back(block);
            open = false;
        }
    }
    return out;
}

const Message *last_request(const std::vector<const Message *> &block, std::string_view name) {
    const Message *last = nullptr;
    for (const Message *m : block)
        if (m->name == name) last = m;
    return last;
}

// The stage a session did not get through.
std::string pppoe_stage(const std::vector<const Message *> &s) {
    const auto seen = [&](std::string_view n) { return count(s, n) > 0; };
    if (!seen("PADI")) return "PADI";
    if (!seen("PADO")) return "PADO";
    if (!seen("PADR")) return "PADR";
    if (!seen("PADS")) return "PADS";
    if (count(s, "LCP Conf-Ack") < 2) return "LCP";
    if (seen("CHAP Failure") || seen("PAP Auth-NACK")) return "authentication";
    if ((seen("CHAP Challenge") || seen("PAP Auth-Req")) && !seen("CHAP Success") && !seen("PAP Auth-ACK"))
        return "authentication";
    if (count(s, "IPCP Conf-Ack") < 2) return "IPCP";
    return "complete";
}

} // namespace

void judge_pppoe(Exchange &e) {
    std::vector<const Message *> msgs, all;
    for (const Message &m : e.messages) {
        all.push_back(&m);
        if (m.analysed) msgs.push_back(&m);
    }
    const auto seen = [&](std::string_view n) { return count(msgs, n) > 0; };
    // Where the capture's last attempt stopped, over every packet.
    {
        std::vector<const Message *> last;
        for (const Message *m : all) {
            if (m->name == "PADI" &&
                (last.empty() || last.back()->name == "PADT" || count(last, "PADO") == 0))
                last.clear();
            last.push_back(m);
        }
        e.stopped_at = pppoe_stage(last);
    }
    // The gateway's rules on the whole decoded capture, first match wins.
    if (count(msgs, "IPCP Conf-Ack") >= 2) {
        e.verdict = 6;
        e.verdict_text = "the session came up this time";
        return;
    }
    if (msgs.empty() || !seen("PADI")) {
        e.verdict = 4;
        e.verdict_text = msgs.empty() ? "no PPPoE packets" : "no PADI";
        return;
    }
    if (!seen("PADO")) {
        e.verdict = 5;
        e.verdict_text = "no access concentrator answered";
        for (const Message *m : msgs) {
            const std::string name = m->name == "PADI" ? field(*m, "Service-Name") : "";
            if (!name.empty()) {
                e.findings.emplace_back(DIAG_MSG_WARN, "requested service-name " + name);
                break;
            }
        }
        return;
    }
    if (!seen("PADT")) {
        e.verdict = 4;
        e.verdict_text = "no PADT after an answered discovery";
        return;
    }
    e.verdict = 0;
    e.verdict_text = "sessions analysed one by one";
    std::vector<std::string> services;
    unsigned number = 1;
    for (const auto &s : sessions_of(msgs)) {
        std::string name;
        for (const Message *m : s)
            if (m->name == "PADR") {
                name = field(*m, "Service-Name");
                break;
            }
        if (name.empty()) continue;
        // Each requested service once (the gateway keeps 34 characters).
        name = name.substr(0, 34);
        if (std::any_of(services.begin(), services.end(),
                        [&](const std::string &s2) { return s2.find(name) != std::string::npos; }))
            continue;
        if (services.size() < 20) services.push_back(name);
        const std::string head = "server " + std::to_string(number++) + " (" + name + "): ";
        const auto received = [](const Message *m) { return m && m->from == Lane::server; };
        if (count(s, "IPCP Conf-Request") && count(s, "IPCP Conf-Ack") >= 2) {
            e.findings.emplace_back(DIAG_MSG_NORMAL, head + "IPCP completed");
        } else if (count(s, "IPCP Conf-Request")) {
            std::string text = head + "IPCP failed";
            const Message *r = last_request(s, "IPCP Conf-Request");
            if (received(r) && !field(*r, "IP-Addr").empty() && !field(*r, "Pri-DNS").empty() &&
                !field(*r, "Sec-DNS").empty())
                text += "; the server asked for IP-Addr " + field(*r, "IP-Addr") + ", Pri-DNS " +
                        field(*r, "Pri-DNS") + ", Sec-DNS " + field(*r, "Sec-DNS");
            e.findings.emplace_back(DIAG_MSG_ERROR, text);
        } else if (count(s, "CHAP Failure") || count(s, "PAP Auth-NACK")) {
            e.findings.emplace_back(DIAG_MSG_ERROR, head + "authentication failed");
        } else if (count(s, "LCP Conf-Request") && count(s, "LCP Conf-Ack") >= 2) {
            e.findings.emplace_back(DIAG_MSG_NORMAL, head + "LCP completed");
        } else if (count(s, "LCP Conf-Request")) {
            std::string text = head + "LCP failed";
            const Message *r = last_request(s, "LCP Conf-Request");
            if (received(r) && !field(*r, "MRU").empty() && !field(*r, "Auth-Prot").empty())
                text += "; the server asked for MRU " + field(*r, "MRU") + ", Auth " + field(*r, "Auth-Prot");
            e.findings.emplace_back(DIAG_MSG_ERROR, text);
        } else {
            e.findings.emplace_back(DIAG_MSG_NORMAL, head + "no negotiation");
        }
    }
}

} // namespace zqinspect
