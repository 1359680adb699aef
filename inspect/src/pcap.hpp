// Capture files as tcpdump writes them on the gateway, read with libpcap
// from memory: Ethernet, and the Linux cooked headers (SLL and SLL2) of a
// capture on "any", with VLAN tags.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace zqinspect {

struct PcapCaps {
    uint32_t snaplen = 262144; // tcpdump's default snap length
    uint32_t record = 262144;  // one record's captured bytes
    uint32_t packets = 200000; // records in one file
};

// Linux cooked packet types: sent to this host, broadcast, multicast, to
// another host, sent by this host.
enum : uint8_t { PKT_HOST = 0, PKT_BROADCAST = 1, PKT_MULTICAST = 2, PKT_OTHERHOST = 3, PKT_OUTGOING = 4 };
constexpr uint8_t PKT_UNKNOWN = 0xff; // a plain Ethernet capture does not say

struct Frame {
    double time = 0;      // seconds since the epoch
    uint32_t ifindex = 0; // SLL2 only; 0 otherwise
    uint8_t pkttype = PKT_UNKNOWN;
    bool has_dst = false; // cooked headers carry the source address only
    uint8_t src[6] = {};
    uint8_t dst[6] = {};
    uint16_t ethertype = 0; // after any VLAN tags
    uint16_t vlan = 0;      // the innermost VLAN id, 0 when untagged
    std::string_view payload;
};

// Link type names for the report.
const char *link_type_name(int linktype);

// Calls `visit` for every frame of the capture file `data`; frames whose
// link header is cut short are skipped. Throws Refusal for a bad magic, a
// snap length or record length beyond the caps, a truncated record, or a
// link type other than the three above. Returns the link type.
int read_pcap(std::string_view data, const std::function<void(const Frame &)> &visit,
              const PcapCaps &caps = {});

} // namespace zqinspect
