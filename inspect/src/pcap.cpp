#include "pcap.hpp"

#include <cstdio>
#include <cstring>
#include <memory>
#include <pcap/pcap.h>
#include <string>

#include "refusal.hpp"

namespace zqinspect {

namespace {

constexpr int LINK_EN10MB = 1;
constexpr int LINK_LINUX_SLL = 113;
constexpr int LINK_LINUX_SLL2 = 276;

uint16_t be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

[[noreturn]] void refuse(const std::string &reason) { throw Refusal("capture: " + reason); }

// The classic file header says its snap length and link type before libpcap
// sees it; libpcap quietly replaces a snap length it finds too large, so the
// cap is checked here.
void check_classic_header(std::string_view data, const PcapCaps &caps) {
    if (data.size() < 24) refuse("file header cut short");
    uint32_t magic = 0;
    memcpy(&magic, data.data(), 4);
    if (magic == 0x0a0d0d0a) return; // pcapng: libpcap checks its blocks
    const bool swapped = magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1;
    if (!swapped && magic != 0xa1b2c3d4 && magic != 0xa1b23c4d) refuse("bad magic");
    uint32_t snaplen = 0;
    memcpy(&snaplen, data.data() + 16, 4);
    if (swapped) snaplen = __builtin_bswap32(snaplen);
    if (snaplen > caps.snaplen)
        refuse("snap length " + std::to_string(snaplen) + " over the cap of " + std::to_string(caps.snaplen));
}

// Strips VLAN tags (802.1Q, 802.1ad, and the old QinQ type) and sets the
// frame's ethertype and payload. False when the headers are cut short.
bool strip_vlans(Frame &f, uint16_t type, const uint8_t *p, size_t n) {
    for (int tags = 0; (type == 0x8100 || type == 0x88a8 || type == 0x9100) && tags < 4; ++tags) {
        if (n < 4) return false;
        f.vlan = be16(p) & 0x0fff;
        type = be16(p + 2);
        p += 4;
        n -= 4;
    }
    f.ethertype = type;
    f.payload = std::string_view(reinterpret_cast<const char *>(p), n);
    return true;
}

bool decode_link(int linktype, const uint8_t *p, size_t n, Frame &f) {
    switch (linktype) {
    case LINK_EN10MB:
        if (n < 14) return false;
        memcpy(f.dst, p, 6);
        memcpy(f.src, p + 6, 6);
        f.has_dst = true;
        return strip_vlans(f, be16(p + 12), p + 14, n - 14);
    case LINK_LINUX_SLL:
        // packet type, ARPHRD type, address length, 8 address bytes, protocol
        if (n < 16) return false;
        f.pkttype = static_cast<uint8_t>(be16(p));
        memcpy(f.src, p + 6, 6);
        return strip_vlans(f, be16(p + 14), p + 16, n - 16);
    case LINK_LINUX_SLL2:
        // protocol, reserved, interface index, ARPHRD type, packet type,
        // address length, 8 address bytes
        if (n < 20) return false;
        f.ifindex = be32(p + 4);
        f.pkttype = p[10];
        memcpy(f.src, p + 12, 6);
        return strip_vlans(f, be16(p), p + 20, n - 20);
    default:
        return false;
    }
}

} // namespace

const char *link_type_name(int linktype) {
    switch (linktype) {
    case LINK_EN10MB:
        return "EN10MB";
    case LINK_LINUX_SLL:
        return "LINUX_SLL";
    case LINK_LINUX_SLL2:
        return "LINUX_SLL2";
    default:
        return "unknown";
    }
}

int read_pcap(std::string_view data, const std::function<void(const Frame &)> &visit, const PcapCaps &caps) {
    check_classic_header(data, caps);
    // fmemopen reads the caller's bytes in place; libpcap owns the stream
    // and closes it.
    FILE *stream = fmemopen(const_cast<char *>(data.data()), data.size(), "r");
    if (!stream) refuse("cannot open in memory");
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    std::unique_ptr<pcap_t, decltype(&pcap_close)> p(pcap_fopen_offline(stream, errbuf), pcap_close);
    if (!p) {
        fclose(stream);
        refuse(std::string("not a capture file: ") + errbuf);
    }
    const int linktype = pcap_datalink(p.get());
    if (linktype != LINK_EN10MB && linktype != LINK_LINUX_SLL && linktype != LINK_LINUX_SLL2)
        refuse("unknown link type " + std::to_string(linktype));
    if (static_cast<uint32_t>(pcap_snapshot(p.get())) > caps.snaplen)
        refuse("snap length " + std::to_string(pcap_snapshot(p.get())) + " over the cap of " +
               std::to_string(caps.snaplen));
    uint32_t count = 0;
    for (;;) {
        pcap_pkthdr *hdr = nullptr;
        const u_char *bytes = nullptr;
        const int r = pcap_next_ex(p.get(), &hdr, &bytes);
        if (r == PCAP_ERROR_BREAK) break;
        if (r != 1) refuse(std::string("truncated or corrupt record: ") + pcap_geterr(p.get()));
        if (hdr->caplen > caps.record || hdr->caplen > hdr->len)
            refuse("record length " + std::to_string(hdr->caplen) + " beyond its cap");
        if (++count > caps.packets) refuse("more than " + std::to_string(caps.packets) + " records");
        Frame f;
        f.time = static_cast<double>(hdr->ts.tv_sec) + static_cast<double>(hdr->ts.tv_usec) / 1e6;
        if (!decode_link(linktype, bytes, hdr->caplen, f)) continue;
        visit(f);
    }
    return linktype;
}

} // namespace zqinspect
