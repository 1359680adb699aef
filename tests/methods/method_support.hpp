// Running one method's actions the way a diagnosis step does, and reading
// back what it left: the result word, the findings and the records.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "engine/util.h"
#include "records/records.h"

using namespace zq;

namespace method_test {

struct Step {
    int rc;
    uint32_t result;
    std::string findings;
};

// One step of `method` with `action` and a result word starting at `preset`;
// the findings of earlier calls are dropped first.
inline Step run_step(const char *method, uint32_t action, uint32_t preset = 0) {
    zq_diag_msg_reset();
    uint32_t result = preset;
    const int rc = zq_get_sys_diag(method, action, zq_args(nullptr, 0, &result, sizeof(result)));
    return {rc, result, zq_diag_msg};
}

// Copies of the stored records of type T, in chain order.
template <class T> std::vector<T> records() {
    std::vector<T> out;
    list_diag_record<T>("test", [&out](const T &record) {
        out.push_back(record);
        return false;
    });
    return out;
}

// The one record of a single-record type (an empty one, and a failure, when
// there is none or more).
template <class T> T only_record() {
    const std::vector<T> all = records<T>();
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? T{} : all.front();
}

} // namespace method_test
