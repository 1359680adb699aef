// The injection payloads, harness and fixture. Each payload, run by a shell (or taken for an option or a
// path), would create the canary MADE or remove KEEP; it must be refused with a log line or kept as data (a C
// string ends at its NUL). Each field prints "injection: FIELD: ...", which scripts/injection adds up.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <unistd.h>

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
using method_test::records;

constexpr const char *MADE = "/tmp/zq-canary-made";
constexpr const char *KEEP = "/tmp/zq-canary-keep";

struct payload {
    std::string family, text;
    bool nul() const { return family == "nul"; } // an embedded NUL: a C string ends there
};

inline const std::vector<payload> &payloads() {
    static const std::vector<payload> all = [] {
        using std::string;
        const string M = MADE, K = KEEP, T = "touch " + M, R = "rm -f " + K, T_IFS = "touch${IFS}" + M;
        const string A = "192.0.2.10", I = "nas0_0"; // a WAN's own address and interface
        const std::pair<const char *, std::vector<string>> families[] = {
            {"backtick", {"`" + T + "`", "x`" + R + "`", A + "`" + T + "`", "`" + T_IFS + "`"}},
            {"semicolon", {";" + T, "x;" + R + ";", A + "; " + T, I + ";" + T}},
            {"pipe", {"|" + T, "x|" + R, "x||" + T, A + "|tee " + MADE}},
            {"and", {"&&" + T, "x&&" + R, "x & " + T, A + "&" + T + "&"}},
            {"dollar-paren", {"$(" + T + ")", "x$(" + R + ")", "$(" + T_IFS + ")", A + "$(" + T + ")"}},
            {"ifs", {";" + T_IFS, "${IFS}-w${IFS}" + M, "x;rm${IFS}-f${IFS}" + K, "$IFS;" + T}},
            {"quote", {"';" + T + ";'", "\";" + T + ";\"", "x' -w " + M + " '", "\\\";" + T + ";#"}},
            {"newline", {"\n" + T, "x\n" + R, A + "\n" + T, "x\r\n" + T}},
            {"option", {"-w" + M, "-o" + M, "--output-file=" + M, "-fr " + K}},
            {"path", {"../../../.." + K, "..", "/../.." + K, "x/../../.." + K}},
            {"oversize",
             {string(300, 'A') + ";" + T, string(4096, 'A') + "$(" + T + ")", string(70000, 'A') + "|" + T,
              A + string(300, ' ') + ";" + T}},
            {"nul",
             {string("\0;", 2) + T, string("lo\0`", 4) + T + "`", A + string("\0;", 2) + R,
              I + string("\0$(", 3) + T + ")"}},
        };
        std::vector<payload> out;
        for (const auto &[name, texts] : families)
            for (const string &text : texts) out.push_back({name, text});
        return out;
    }();
    return all;
}

inline bool canary_touched() { return zqlab::file_exists(MADE) || !zqlab::file_exists(KEEP); }

inline void lay_canaries() {
    std::remove(MADE);
    zqlab::write_file(KEEP, "keep\n");
}

inline void report(const char *field, size_t payloads, size_t executed, size_t refused, size_t kept) {
    printf("injection: %s: %zu payloads, %zu executed, %zu refused with a log line, %zu kept as data\n",
           field, payloads, executed, refused, kept);
    fflush(stdout);
}

// What a `field`-byte text holds of a tool's answer `output` read by the command runner: up to its first NUL,
// the newest bytes of a 4096-byte ring whose last byte is the terminator.
inline std::string as_read(const std::string &output, size_t field) {
    std::string stream = output.substr(0, output.find('\0'));
    if (stream.size() >= 4096) stream = stream.substr(stream.size() - 4096, 4095);
    return stream.substr(0, field - 1);
}

// A field and the log lines that refuse a value of it. With `all_refused`, every payload must be refused but
// the NUL family's in a C string (`c_string`), which ends before its hostile part.
struct field_rule {
    const char *field;
    std::initializer_list<const char *> refusal_lines = {};
    bool all_refused = false;
    bool c_string = false;
};

// Runs every payload through `use`, which puts it into the field, uses the field as the library does and sets
// `kept` when the text stayed data: nothing may run, and each is refused or kept.
using use_fn = std::function<void(const payload &, bool &kept)>;
inline void run_field(const field_rule &rule, const use_fn &use) {
    const testing::TestResult &result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    size_t executed = 0, refused = 0, kept = 0;
    for (size_t i = 0; i < payloads().size(); ++i) {
        const payload &p = payloads()[i];
        lay_canaries();
        const int failures = result.total_part_count(); // a failure inside `use` is in its log
        bool stayed_data = false;
        const std::string log = capture_support::log_of([&] { use(p, stayed_data); }),
                          shown_log = log.substr(0, 2000);
        const std::string shown =
            std::string(rule.field) + ": payload " + std::to_string(i) + " (" + p.family + ")";
        if (result.total_part_count() > failures) printf("%s:\n%s\n", shown.c_str(), shown_log.c_str());
        const bool touched = canary_touched();
        const bool was_refused = std::ranges::any_of(
            rule.refusal_lines, [&](const char *line) { return log.find(line) != std::string::npos; });
        const bool was_kept = !was_refused && (stayed_data || (rule.c_string && p.nul()));
        executed += touched;
        refused += was_refused;
        kept += was_kept;
        EXPECT_FALSE(touched) << shown << " ran";
        const bool must_refuse = rule.all_refused && !(rule.c_string && p.nul());
        EXPECT_TRUE(was_refused || (was_kept && !must_refuse))
            << shown
            << (must_refuse ? " was not refused\n"
                            : " was neither refused with a log line nor kept as data\n")
            << shown_log;
    }
    lay_canaries();
    report(rule.field, payloads().size(), executed, refused, kept);
}

template <size_t N> std::string text_of(const char (&field)[N]) { return std::string(zq::view(field)); }

inline void stop_any_capture() {
    if (!zqlab::pids("tcpdump").empty()) stop_tcpdump_catch();
}

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
