// wan_params: two settings of every routed IPv4 WAN, NAT on a WAN that
// carries Internet traffic and VLAN tagging.
#include <cstring>

#include "engine/engine.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "methods/result_word.h"
#include "records/records.h"

namespace zq {

namespace {

constexpr uint32_t NAT_OFF = 2;
constexpr uint32_t VLAN_OFF = 4;

// Services whose traffic leaves through NAT.
constexpr const char *NAT_SERVICES[] = {"INTERNET", "Other"};

bool carries_nat_traffic(const zqSD_wan_diag &wan) {
    for (const char *service : NAT_SERVICES)
        if (zq::contains(wan.service_type, service)) return true;
    return false;
}

uint32_t header_level(uint32_t flags) {
    if (flags & NAT_OFF) return DIAG_MSG_ERROR;
    return flags & VLAN_OFF ? DIAG_MSG_WARN : DIAG_MSG_NORMAL;
}

} // namespace

void print_wan_params(uint32_t flags, const char *wan_name) {
    zq_diag_msg_printf(header_level(flags), "%s[ipv4] params:", wan_name);
    if (flags & NAT_OFF)
        zq_diag_msg_printf(DIAG_MSG_ERROR, "\tNat not enable");
    else
        zq_diag_msg_printf(DIAG_MSG_NORMAL, "\tNat enable");
    if (flags & VLAN_OFF) zq_diag_msg_printf(DIAG_MSG_WARN, "\tVlan not enable");
}

int zq_get_wan_params_diag(zq_diag_args args) {
    uint32_t result = 0;
    list_diag_record<zqSD_wan_diag>(__func__, [&result](zqSD_wan_diag &wan) {
        result = 0;
        if (!zq::contains(wan.type, "route") || !zq::contains(wan.protocol, "IPv4")) return false;
        if (carries_nat_traffic(wan) && wan.nat_enable == 0) result |= NAT_OFF;
        if (wan.vlan_enable == 0) result |= VLAN_OFF;
        char name[sizeof(wan.wan_name) + 1] = {};
        zq::copy(name, wan.wan_name);
        print_wan_params(result, name);
        wan.params_state = result;
        return false;
    });
    zq::write_result(args, result);
    return 0;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules WAN_PARAMS_RULES = {zq::ANY_BLOCK, zq::ANY_BLOCK, out_exact(zq::RESULT_WORD_SIZE),
                                              zq::ANY_BLOCK};

int wan_params_condition() {
    return any_diag_record<zqSD_wan_diag>(
        __func__, [](const zqSD_wan_diag &r) { return zq::contains(r.protocol, "IPv4"); });
}
} // namespace

const zq::method_descriptor wan_params_method = {
    .entry = {.name = "wan_params", .diag = zq_get_wan_params_diag, .envoy = zq::envoy<WAN_PARAMS_RULES>},
    .diag_when = wan_params_condition,
};

} // namespace zq
