// Validators of the method table. Each method's validator is one row of
// rules: what the argument block must hold for each of the four actions.
// Actions above 3 always pass (the dispatcher then refuses them).
#include "engine/engine.h"

namespace {

enum : uint8_t {
    NEED_IN = 1,    // in_buf non-null
    NEED_OUT = 2,   // out_buf non-null
    IN_EXACT = 4,   // in_size == in
    IN_MIN = 8,     // in_size >= in
    OUT_EXACT = 16, // out_size == out
    OUT_MIN = 32,   // out_size >= out
};

struct envoy_rule {
    uint8_t checks;
    uint64_t in;
    uint64_t out;
};

constexpr envoy_rule ANY{0, 0, 0};
constexpr envoy_rule out_exact(uint64_t out) { return {NEED_OUT | OUT_EXACT, 0, out}; }
constexpr envoy_rule in_out_exact(uint64_t in, uint64_t out) {
    return {NEED_IN | NEED_OUT | IN_EXACT | OUT_EXACT, in, out};
}

using envoy_rules = envoy_rule[4];

constexpr uint64_t PING_REQUEST_SIZE = sizeof(ping_request);
constexpr uint64_t PING_RESULT_SIZE = 20;
constexpr uint64_t ROUTE_TABLE_SIZE = 1025;
constexpr uint64_t WAN_BLOCK_SIZE = 280;
constexpr uint64_t SYS_BLOCK_SIZE = 424;
constexpr uint64_t PON_BLOCK_SIZE = 68;
constexpr uint64_t DHCP_BLOCK_SIZE = 130;

constexpr envoy_rules CMD_RULES = {{NEED_IN | NEED_OUT | IN_MIN | OUT_MIN, 3, 64}, ANY, ANY, ANY};
constexpr envoy_rules PORT_RULES = {ANY, in_out_exact(4, sizeof(zqSD_port_diag)), out_exact(4), ANY};
constexpr envoy_rules PING_RULES = {{NEED_IN | NEED_OUT | IN_EXACT | OUT_MIN, PING_REQUEST_SIZE, 256},
                                    in_out_exact(PING_REQUEST_SIZE, PING_RESULT_SIZE),
                                    in_out_exact(PING_REQUEST_SIZE, 4),
                                    ANY};
constexpr envoy_rules WAN_RULES = {ANY, in_out_exact(4, WAN_BLOCK_SIZE), ANY, ANY};
constexpr envoy_rules SYS_RULES = {ANY, out_exact(SYS_BLOCK_SIZE), out_exact(4), ANY};
constexpr envoy_rules PON_RULES = {ANY, out_exact(PON_BLOCK_SIZE), out_exact(4), ANY};
constexpr envoy_rules WAN_PARAMS_RULES = {ANY, ANY, out_exact(4), ANY};
constexpr envoy_rules OPEN_RULES = {ANY, ANY, ANY, ANY};
constexpr envoy_rules DHCP_CONFIG_RULES = {ANY, out_exact(DHCP_BLOCK_SIZE), ANY, ANY};
constexpr envoy_rules PPPOE_RULES = {ANY, ANY, out_exact(4), ANY};
constexpr envoy_rules ROUTE_RULES = {out_exact(ROUTE_TABLE_SIZE), ANY, out_exact(4), ANY};

int envoy_check(const envoy_rules &rules, uint32_t action, const zq_diag_args &a) {
    if (action > ACTION_FIX) return 0;
    const envoy_rule &r = rules[action];
    bool ok = (!(r.checks & NEED_IN) || a.in_buf) && (!(r.checks & NEED_OUT) || a.out_buf) &&
              (!(r.checks & IN_EXACT) || a.in_size == r.in) && (!(r.checks & IN_MIN) || a.in_size >= r.in) &&
              (!(r.checks & OUT_EXACT) || a.out_size == r.out) &&
              (!(r.checks & OUT_MIN) || a.out_size >= r.out);
    return ok ? 0 : -4;
}

} // namespace

int cmd_envoy(uint32_t action, zq_diag_args args) { return envoy_check(CMD_RULES, action, args); }
int port_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(PORT_RULES, action, args); }
int ping_envoy(uint32_t action, zq_diag_args args) { return envoy_check(PING_RULES, action, args); }
int wan_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(WAN_RULES, action, args); }
int sys_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(SYS_RULES, action, args); }
int pon_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(PON_RULES, action, args); }
int wan_params_envoy(uint32_t action, zq_diag_args args) {
    return envoy_check(WAN_PARAMS_RULES, action, args);
}
int dns_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(OPEN_RULES, action, args); }
int dhcp_config_envoy(uint32_t action, zq_diag_args args) {
    return envoy_check(DHCP_CONFIG_RULES, action, args);
}
int pppoe_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(PPPOE_RULES, action, args); }
int route_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(ROUTE_RULES, action, args); }
int dhcp_status_envoy(uint32_t action, zq_diag_args args) { return envoy_check(OPEN_RULES, action, args); }
