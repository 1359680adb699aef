// dhcp_status: for every routed DHCP WAN that is down, whether the DHCP
// exchange of a WAN restart works, read from the decoded capture of that
// connection's own interface.
#include <cstdint>

#include "capture/capture.h"
#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "records/records.h"

namespace zq {

namespace {

enum : uint32_t { DHCP_DISCOVER = 1, DHCP_OFFER = 2, DHCP_REQUEST = 4 };

// The DHCP message types tcpdump -v names for option 53, and their bits.
struct packet_flag {
    const char *text;
    uint32_t bit;
};
constexpr packet_flag PACKET_FLAGS[] = {
    {"Discover", DHCP_DISCOVER}, {"Offer", DHCP_OFFER}, {"Request", DHCP_REQUEST}};

enum : uint32_t { DHCP_STATE_NORMAL = 0, DHCP_STATE_NO_PACKETS = 1, DHCP_STATE_NO_OFFER = 2 };

// The verdict table: the first row whose tested bits match wins.
struct dhcp_rule {
    uint32_t mask;  // bits tested
    uint32_t value; // their required values
    uint32_t level;
    const char *finding;
    uint32_t state;
};
// Requests without a Discover: the connection did not begin a fresh
// exchange, which is what state 1 stands for; the finding says the rest.
constexpr dhcp_rule DHCP_RULES[] = {
    {DHCP_DISCOVER | DHCP_OFFER, DHCP_DISCOVER | DHCP_OFFER, DIAG_MSG_NORMAL, "\tDhcp server responded",
     DHCP_STATE_NORMAL},
    {DHCP_DISCOVER, DHCP_DISCOVER, DIAG_MSG_WARN, "\tNo dhcp server responded", DHCP_STATE_NO_OFFER},
    {DHCP_DISCOVER | DHCP_REQUEST, DHCP_REQUEST, DIAG_MSG_WARN,
     "\tNo \"Discover\" and \"Offer\" but have \"Request\" packets", DHCP_STATE_NO_PACKETS},
    {DHCP_DISCOVER | DHCP_REQUEST, 0, DIAG_MSG_WARN, "\tRelated dhcp packets not found",
     DHCP_STATE_NO_PACKETS},
};

const dhcp_rule &rule_for(uint32_t flags) {
    for (const dhcp_rule &rule : DHCP_RULES)
        if ((flags & rule.mask) == rule.value) return rule;
    return DHCP_RULES[sizeof(DHCP_RULES) / sizeof(DHCP_RULES[0]) - 1];
}

constexpr uint32_t CONNECTED_MAX = WAN_CONNECT_UNSTABLE;

// The log lines of one connection are the diag action's.
constexpr const char *DIAG_ACTION = "zq_get_dhcp_status_diag";

void diagnose_connection(zqSD_wan_diag &wan) {
    const std::string_view name = zq::view(wan.wan_name);
    const int name_len = static_cast<int>(name.size());
    if (wan.v4_conn_state <= CONNECTED_MAX) {
        zq_diag_msg_printf(DIAG_MSG_NORMAL, "%.*s[ipv4] DHCP status is normal", name_len, name.data());
        wan.dhcp_state = DHCP_STATE_NORMAL;
        return;
    }
    zq_diag_msg_printf(DIAG_MSG_ERROR, "%.*s[ipv4] DHCP:", name_len, name.data());
    zq_diag_capture(&wan);
    get_tcpdump_parse(DHCP_DECODE_FILTER);
    if (zq_get_file_size(ZQ_CAPTURE_PARSE) == 0) {
        ZQ_LOG_AS(DIAG_ACTION, "Can not find any dhcp packets within specified time");
        zq_diag_msg_printf(DIAG_MSG_WARN, "\tCan not find any dhcp packets within specified time");
        return;
    }
    char interface[sizeof(wan.nas_interface) + 1] = {};
    zq::copy(interface, wan.nas_interface);
    if (dhcp_filter_special(interface) != 0) {
        ZQ_LOG_AS(DIAG_ACTION, "filter_special_error!");
        return;
    }
    const dhcp_rule &rule = rule_for(dhcp_packet_flags());
    zq_diag_msg_printf(rule.level, "%s", rule.finding);
    wan.dhcp_state = rule.state;
}

} // namespace

int dhcp_filter_special(const char *interface) { return filter_special(interface, DHCP_IFINDEX_FILTER); }

uint32_t dhcp_packet_flags() {
    uint32_t flags = 0;
    for (const packet_flag &flag : PACKET_FLAGS)
        if (grep_tcpdump_parse(flag.text)) flags |= flag.bit;
    return flags;
}

int zq_get_dhcp_status_diag(zq_diag_args) {
    list_diag_record<zqSD_wan_diag>(DIAG_ACTION, [](zqSD_wan_diag &wan) {
        if (zq::contains(wan.type, "route-dhcp")) diagnose_connection(wan);
        return false;
    });
    return 0;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
int dhcp_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__, [](const zqSD_wan_diag &r) {
        return zq::contains(r.type, "dhcp") && r.v4_conn_state > WAN_CONNECT_UNSTABLE;
    });
}
} // namespace

const zq::method_descriptor dhcp_status_method = {
    .entry = {.name = "dhcp_status", .diag = zq_get_dhcp_status_diag, .envoy = zq::envoy<zq::OPEN_RULES>},
    .diag_when = dhcp_status_condition,
};

} // namespace zq
