#include "report.hpp"

#include <cstdio>
#include <openssl/evp.h>

#include "refusal.hpp"
#include "text.hpp"
#include "zq_diag.h"

namespace zqinspect {

std::string sha256_hex(std::string_view data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_Digest(data.data(), data.size(), digest, &len, EVP_sha256(), nullptr) != 1)
        throw Refusal("cannot hash the upload");
    std::string out;
    char buf[3];
    for (unsigned i = 0; i < len; ++i) {
        snprintf(buf, sizeof(buf), "%02x", digest[i]);
        out += buf;
    }
    return out;
}

namespace {

std::string_view base_name(std::string_view name) {
    const size_t slash = name.rfind('/');
    return slash == std::string_view::npos ? name : name.substr(slash + 1);
}

void read_capture(Report &r, const Member &m) {
    ExchangeDecoder decoder(m.name);
    CaptureInfo info;
    info.name = m.name;
    info.size = m.data.size();
    const int link = read_pcap(m.data, [&](const Frame &f) { decoder.add(f); });
    info.link_type = link_type_name(link);
    for (Exchange &e : decoder.finish()) {
        (e.protocol == "dhcp" ? info.dhcp_messages : info.pppoe_messages) += e.messages.size();
        r.exchanges.push_back(std::move(e));
    }
    r.captures.push_back(std::move(info));
}

} // namespace

Report build_report(std::string_view data, const std::string &name, const ArchiveCaps &caps) {
    Report r;
    r.name = std::string(base_name(name));
    r.size = data.size();
    r.sha256 = sha256_hex(data);
    r.upload = parse_upload_name(r.name);
    Upload upload = read_upload(data, r.name, caps);
    r.kind = upload.kind;
    for (const Member &m : upload.members) {
        r.members.emplace_back(m.name, m.data.size());
        const std::string_view base = base_name(m.name);
        if (looks_like_pcap(m.data)) {
            read_capture(r, m);
            continue;
        }
        const bool text_file =
            base == "diag_log" || base == "cmd_log" || base == "firewall_stat" || base == "config_stat";
        if (text_file && !is_clean_text(m.data))
            r.notes.push_back(
                std::string(base) +
                " holds bytes that are not UTF-8 text or are control characters; shown escaped");
        if (base == "diag_log")
            r.log = parse_diag_log(m.data);
        else if (base == "cmd_log" || base == "firewall_stat" || base == "config_stat") {
            std::vector<Command> cmds = parse_commands(m.data, std::string(base));
            r.commands.insert(r.commands.end(), std::make_move_iterator(cmds.begin()),
                              std::make_move_iterator(cmds.end()));
        } else if (base == "capture.pcap" || base.ends_with(".pcap")) {
            r.notes.push_back(std::string(base) + " is not a capture file (no pcap magic)");
        }
    }
    if (r.kind == UploadKind::unknown) throw Refusal("neither a diagnosis package nor a capture archive");
    return r;
}

std::string fact(const Report &report, std::string_view key, unsigned record) {
    for (const Fact &f : report.log.facts)
        if (f.key == key && f.record == record) return f.value;
    return {};
}

// ---- JSON ------------------------------------------------------------------

nlohmann::ordered_json report_json(const Report &r) {
    using json = nlohmann::ordered_json;
    json j;
    j["schema"] = REPORT_SCHEMA;
    j["version"] = REPORT_SCHEMA_VERSION;
    j["archive"] = {
        {"name", escaped(r.name)}, {"size", r.size}, {"sha256", r.sha256}, {"kind", kind_name(r.kind)}};
    json members = json::array();
    for (const auto &[name, size] : r.members) members.push_back({{"name", escaped(name)}, {"size", size}});
    j["archive"]["members"] = members;
    j["upload"] = {
        {"stamp", r.upload.stamp}, {"times", r.upload.times}, {"rotate_number", r.upload.rotate_number}};
    json facts = json::array();
    for (const Fact &f : r.log.facts)
        facts.push_back({{"section", escaped(f.section)},
                         {"record", f.record},
                         {"key", escaped(f.key)},
                         {"value", escaped(f.value)}});
    j["gateway"] = {{"software_version", escaped(fact(r, "sys_status.software_version"))},
                    {"pon_mode", escaped(fact(r, "pon_status.pon_mode"))},
                    {"facts", facts}};
    json steps = json::array();
    json counts = {{"normal", 0}, {"success", 0}, {"warn", 0}, {"error", 0}};
    for (const Step &s : r.log.steps) {
        json findings = json::array();
        for (const Finding &f : s.findings) {
            findings.push_back({{"level", level_name(f.level)}, {"text", escaped(f.text, true)}});
            if (f.level <= DIAG_MSG_ERROR)
                counts[level_name(f.level)] = counts[level_name(f.level)].get<int>() + 1;
        }
        steps.push_back(
            {{"method", escaped(s.method)}, {"action", escaped(s.action)}, {"findings", findings}});
    }
    j["steps"] = steps;
    j["finding_counts"] = counts;
    json cmds = json::array();
    for (const Command &c : r.commands)
        cmds.push_back(
            {{"source", c.source}, {"command", escaped(c.command)}, {"output", escaped(c.output, true)}});
    j["commands"] = cmds;
    json caps = json::array();
    for (const CaptureInfo &c : r.captures)
        caps.push_back({{"name", escaped(c.name)},
                        {"size", c.size},
                        {"link_type", c.link_type},
                        {"dhcp_messages", c.dhcp_messages},
                        {"pppoe_messages", c.pppoe_messages}});
    j["captures"] = caps;
    json exchanges = json::array();
    for (const Exchange &e : r.exchanges) {
        json msgs = json::array();
        for (const Message &m : e.messages) {
            json fields = json::object();
            for (const auto &[k, v] : m.fields) fields[k] = v; // already escaped when decoded
            msgs.push_back({{"time", m.time},
                            {"from", m.from == Lane::client ? "client" : "server"},
                            {"name", m.name},
                            {"fields", fields},
                            {"analysed", m.analysed}});
        }
        json findings = json::array();
        for (const auto &[level, text] : e.findings)
            findings.push_back({{"level", level_name(level)}, {"text", text}});
        exchanges.push_back({{"protocol", e.protocol},
                             {"capture", escaped(e.capture)},
                             {"interface", e.interface},
                             {"client", e.client},
                             {"server", e.server},
                             {"stopped_at", e.stopped_at},
                             {"verdict", e.verdict},
                             {"verdict_text", e.verdict_text},
                             {"findings", findings},
                             {"messages", msgs}});
    }
    j["exchanges"] = exchanges;
    json notes = json::array();
    for (const std::string &n : r.notes) notes.push_back(escaped(n));
    j["notes"] = notes;
    return j;
}

std::string render_json(const Report &r) { return report_json(r).dump(2) + "\n"; }

// ---- Text --------------------------------------------------------------------

namespace {

const char *level_colour(unsigned level) {
    switch (level) {
    case DIAG_MSG_SUCCESS:
        return "\033[32m";
    case DIAG_MSG_WARN:
        return "\033[33m";
    case DIAG_MSG_ERROR:
        return "\033[1;31m";
    default:
        return "";
    }
}

void line(std::string &out, const std::string &s) { out += s + "\n"; }

} // namespace

std::string render_text(const Report &r, bool colour) {
    std::string out;
    const auto bold = [&](const std::string &s) { return colour ? "\033[1m" + s + "\033[0m" : s; };
    const auto paint = [&](unsigned level, const std::string &s) {
        const char *code = level_colour(level);
        return colour && *code ? std::string(code) + s + "\033[0m" : s;
    };
    line(out, bold("== " + escaped(r.name)) + " (" + kind_name(r.kind) + ", " + std::to_string(r.size) +
                  " bytes)");
    line(out, "sha256: " + r.sha256);
    if (!r.upload.times.empty()) {
        std::string t;
        for (const std::string &s : r.upload.times) t += (t.empty() ? "" : " or ") + s;
        line(out, "uploaded: " + t + " (stamp " + r.upload.stamp + ")");
    } else if (!r.upload.rotate_number.empty()) {
        line(out, "rotate-mode capture file number " + r.upload.rotate_number);
    } else {
        line(out, "uploaded: the name carries no time (gateway clock not synchronised)");
    }
    std::string m;
    for (const auto &[name, size] : r.members)
        m += (m.empty() ? "" : ", ") + escaped(name) + " (" + std::to_string(size) + ")";
    line(out, "members: " + m);
    for (const std::string &n : r.notes) line(out, "note: " + escaped(n));
    if (!r.log.facts.empty()) {
        line(out, "");
        line(out, bold("== gateway"));
        for (const Fact &f : r.log.facts)
            line(out, "  " + escaped(f.section) + (f.record > 1 ? " #" + std::to_string(f.record) : "") +
                          "  " + escaped(f.key) + " = " + escaped(f.value));
    }
    if (!r.log.steps.empty()) {
        line(out, "");
        line(out, bold("== findings"));
        for (const Step &s : r.log.steps) {
            line(out, bold(escaped(s.method) + (s.action.empty() ? "" : " " + escaped(s.action))));
            for (const Finding &f : s.findings) {
                // A finding's detail lines are indented under its text.
                std::string text;
                for (const char c : escaped(f.text, true)) {
                    text += c;
                    if (c == '\n') text += "            ";
                }
                line(out,
                     "  " +
                         paint(f.level, std::string(level_name(f.level)) +
                                            std::string(8 - std::string(level_name(f.level)).size(), ' ')) +
                         " " + text);
            }
        }
    }
    for (const Exchange &e : r.exchanges) {
        line(out, "");
        line(out, bold("== " + std::string(e.protocol == "dhcp" ? "DHCP" : "PPPoE") + " on " +
                       (e.interface.empty() ? "the capture's link" : e.interface) + " (" +
                       escaped(e.capture) + ")"));
        line(out, "  client " + e.client + (e.server.empty() ? "" : ", server " + e.server));
        const double t0 = e.messages.empty() ? 0 : e.messages.front().time;
        for (const Message &msg : e.messages) {
            char ts[32];
            snprintf(ts, sizeof(ts), "%8.3f", msg.time - t0);
            std::string fields;
            for (const auto &[k, v] : msg.fields) fields += " " + k + "=" + v;
            line(out, std::string("  ") + ts + "  " +
                          (msg.from == Lane::client ? "client --> server" : "client <-- server") + "  " +
                          msg.name + fields + (msg.analysed ? "" : "  (not addressed to the gateway)"));
        }
        line(out, "  stopped at: " + e.stopped_at);
        line(out, "  verdict: " + paint(e.verdict == 0 || e.verdict == 6 ? DIAG_MSG_SUCCESS : DIAG_MSG_WARN,
                                        std::to_string(e.verdict) + " " + e.verdict_text));
        for (const auto &[level, text] : e.findings) line(out, "    " + paint(level, text));
    }
    if (!r.commands.empty()) {
        line(out, "");
        line(out, bold("== commands"));
        for (const Command &c : r.commands) {
            line(out, "$ " + escaped(c.command) + "   [" + c.source + "]");
            std::string text = escaped(c.output, true);
            if (!text.empty()) line(out, text);
        }
    }
    return out;
}

} // namespace zqinspect
