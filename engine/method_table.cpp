// The method table and the single dispatcher through which every action of
// every method is run.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "methods/methods.h"

// Fixed order: the index of an entry is its place here. Empty slots are
// actions a method does not offer; the dispatcher answers them with -2.
const zq_diag_method zq_method_table[ZQ_METHOD_COUNT] = {
    {"cmd", zq_get_cmd_raw_data, nullptr, nullptr, nullptr, cmd_envoy},
    {"port_status", nullptr, zq_get_port_status_struct, zq_get_port_status_diag, nullptr, port_status_envoy},
    {"ping", zq_get_ping_raw_data, zq_get_ping_struct, zq_get_ping_diag, nullptr, ping_envoy},
    {"wan_status", nullptr, zq_get_wan_status_struct, zq_get_wan_status_diag, nullptr, wan_status_envoy},
    {"sys_status", nullptr, zq_get_sys_status_struct, zq_get_sys_status_diag, zq_get_sys_status_fix,
     sys_status_envoy},
    {"pon_status", nullptr, zq_get_pon_status_struct, zq_get_pon_status_diag, zq_get_pon_status_fix,
     pon_status_envoy},
    {"wan_params", nullptr, nullptr, zq_get_wan_params_diag, nullptr, wan_params_envoy},
    {"dns_status", nullptr, nullptr, zq_get_dns_status_diag, nullptr, dns_status_envoy},
    {"dhcp_config", nullptr, zq_get_dhcp_config_struct, zq_get_dhcp_config_diag, zq_get_dhcp_config_fix,
     dhcp_config_envoy},
    {"pppoe_status", nullptr, nullptr, zq_get_pppoe_diag, nullptr, pppoe_status_envoy},
    {"route_status", nullptr, zq_get_route_status_struct, zq_get_route_status_diag, nullptr,
     route_status_envoy},
    {"dhcp_status", nullptr, nullptr, zq_get_dhcp_status_diag, nullptr, dhcp_status_envoy},
};

int find_method_index(const char *method, uint64_t *index) {
    // A null name is not found, like an empty one, rather than compared.
    if (!method || method[0] == '\0') return -1;
    for (uint64_t i = 0; i < ZQ_METHOD_COUNT; ++i) {
        if (strcmp(method, zq_method_table[i].name) == 0) {
            if (index) *index = i;
            return 0;
        }
    }
    return -1;
}

int call_action_of_method(const char *method, uint32_t action, zq_diag_args args, uint64_t index) {
    const zq_diag_method &entry = zq_method_table[index];
    const zq_action_fn slots[] = {entry.raw_data, entry.get_struct, entry.diag, entry.fix};
    if (action > ACTION_FIX || !slots[action]) {
        ZQ_LOG("can't find the action of %s", method);
        return -2;
    }
    if (slots[action](args) != 0) {
        ZQ_LOG("%s[%d] diag process fail", method, static_cast<int>(action));
        return -5;
    }
    return 0;
}

int zq_get_sys_diag(const char *method, uint32_t action, zq_diag_args args) {
    // The last step of every path gives back the permit its first search
    // took; a process that took none frees no other's.
    if (method && strcmp(method, "end") == 0) {
        zq::release_own_permit(__func__);
        return 0;
    }
    uint64_t index = 0;
    if (find_method_index(method, &index) != 0) {
        ZQ_LOG("can't find the method %s", method ? method : "(null)");
        return -1;
    }
    const zq_diag_method &entry = zq_method_table[index];
    if (!entry.envoy) {
        ZQ_LOG("method %s is incomplete", entry.name);
        return -3;
    }
    if (entry.envoy(action, args) != 0) {
        ZQ_LOG("%s[%d] envoy is illegal", entry.name, static_cast<int>(action));
        return -4;
    }
    return call_action_of_method(entry.name, action, args, index);
}
