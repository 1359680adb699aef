// The injection tests' fixture and helpers, shared by their files.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "capture/capture.h"
#include "engine/engine.h"
#include "engine/exec_block.h"
#include "engine/util.h"
#include "injection.hpp"
#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "methods/network/pppoe_analysis.h"
#include "records/records.h"
#include "tests/methods/method_support.hpp"
#include "upload/upload.h"

namespace injection_test {

using namespace zq;

using injection::as_read;
using injection::field_rule;
using injection::log_of;
using injection::observation;
using injection::payload;
using injection::run_field;

// The payload's bytes in a fixed field, as a caller fills it: all of them
// that fit, NULs included; one that fills the field leaves no terminator.
template <size_t N> inline void fill(char (&field)[N], const std::string &text) {
    memset(field, 0, N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

template <size_t N> inline std::string text_of(const char (&field)[N]) {
    return std::string(zq::view(field));
}

inline void wait_for_worker(const diag_exec_ctl &block) {
    for (int i = 0; i < 3000 && zq::worker_busy(block); ++i) usleep(10000);
    ASSERT_FALSE(zq::worker_busy(block)) << "the worker did not end";
}

inline void stop_any_capture() {
    if (!zqlab::pids("tcpdump").empty()) stop_tcpdump_catch();
}

// One diagnosis step of `method` on a cleared message buffer.
inline uint32_t step(const char *method) { return method_test::run_step(method, ACTION_DIAG).result; }

using method_test::records;

// Lines the library writes when it refuses a value of each kind.
#define URL_REFUSALS                                                                                         \
    "refused url", "wput url parse error", "file upload params error", "rotate mode init error"
#define NAME_REFUSALS "refused file_name", "does not exist and cannot be renamed or uploaded"
#define INTERFACE_REFUSALS "invalid interface name", "empty interface", "tcpdump command is too long"
#define NUL_REFUSAL "output holds a NUL byte"
#define NUMBER_REFUSAL "is no plain number"

class Injection : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&g_diag_exec, 0, sizeof(g_diag_exec));
        memset(&g_cap_exec, 0, sizeof(g_cap_exec));
        clear_diag_chain();
        zq_diag_msg_reset();
        zqlab::write_file("/tmp/diag_file/.keep", "");
    }
    void TearDown() override {
        stop_any_capture();
        EXPECT_EQ(is_diag_permit_holding(), 0) << "a refused payload left the permit taken";
    }
};

} // namespace injection_test
