// The injection suite's payload table, harness and fixture. Every payload
// would, if a shell ran it (or a program took it for an option or a path),
// create the canary MADE or remove the canary KEEP; both are laid out afresh
// before each payload. A payload ends in one of three ways:
//   executed  a canary was touched (the goal is 0);
//   refused   the library wrote a log line that names the refusal;
//   kept      it stayed data of the field, ended at its NUL in a C string,
//             or reached a command only as one quoted argument, byte for
//             byte (a capture filter, which tcpdump gets as its expression).
// Each field's test prints "injection: FIELD: ..."; scripts/injection adds
// them up.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <unistd.h>
#include <vector>

#include "capture/capture.h"
#include "engine/engine.h"
#include "engine/exec_block.h"
#include "engine/util.h"
#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "methods/network/pppoe_analysis.h"
#include "records/records.h"
#include "tests/capture/capture_support.hpp"
#include "tests/methods/method_support.hpp"
#include "upload/upload.h"

namespace injection {

using namespace zq;
using capture_support::fill;
using capture_support::log_of;
using method_test::records;

constexpr const char *MADE = "/tmp/zq-canary-made";
constexpr const char *KEEP = "/tmp/zq-canary-keep";

struct payload {
    std::string family, text;
    bool nul() const { return family == "nul"; } // an embedded NUL: a C string ends there
};
const std::vector<payload> &payloads();

// Runs every payload through `use`, which puts it into the field, uses the
// field as the library does and says whether the text stayed data; the log
// lines written meanwhile are the library's. Checks each payload: nothing
// executed, and refused (a log line holding one of `refusal_lines`) or
// kept. With `all_refused`, every payload must be refused but the NUL
// family's in a C string (`c_string`), which ends before its hostile part.
struct field_rule {
    const char *field;
    std::initializer_list<const char *> refusal_lines = {};
    bool all_refused = false;
    bool c_string = false;
};
void run_field(const field_rule &rule, const std::function<bool(const payload &)> &use);

void lay_canaries();
bool canary_touched();
void report(const char *field, size_t payloads, size_t executed, size_t refused, size_t kept);

// What the library holds of a tool's answer `output` after reading it
// through its command runner into a `buffer`-byte buffer and copying it
// into a `field`-byte text field.
std::string as_read(const std::string &output, size_t field, size_t buffer = 4096);

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

} // namespace injection
