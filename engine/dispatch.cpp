// The single dispatcher through which every action of every method is run,
// over the method table of the registry.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"

namespace zq {

int find_method_index(const char *method, uint64_t *index) {
    // A null name is not found, like an empty one, rather than compared.
    if (!method || method[0] == '\0') return -1;
    const auto &table = zq::registry.table;
    for (uint64_t i = 0; i < table.count; ++i) {
        if (strcmp(method, table.items[i]->entry.name) == 0) {
            if (index) *index = i;
            return 0;
        }
    }
    return -1;
}

int call_action_of_method(const char *method, uint32_t action, zq_diag_args args, uint64_t index) {
    const zq_diag_method &entry = zq::registry.table.items[index]->entry;
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
    if (method && strcmp(method, zq::END_STEP) == 0) {
        zq::release_own_permit(__func__);
        return 0;
    }
    uint64_t index = 0;
    if (find_method_index(method, &index) != 0) {
        ZQ_LOG("can't find the method %s", method ? method : "(null)");
        return -1;
    }
    const zq_diag_method &entry = zq::registry.table.items[index]->entry;
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

} // namespace zq
