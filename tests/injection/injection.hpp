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

#include <cstdio>
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

// What the library holds of a tool's answer `output` after reading it
// through its command runner into a `buffer`-byte buffer and copying it
// into a `field`-byte text field.
inline std::string as_read(const std::string &output, size_t field, size_t buffer = 4096) {
    // The runner reads at most 63 bytes at a time (through a line end) and
    // keeps each read up to its first NUL.
    std::string stream;
    for (size_t at = 0; at < output.size();) {
        size_t end = output.find('\n', at);
        end = end == std::string::npos ? output.size() : end + 1;
        if (end - at > 63) end = at + 63;
        const std::string piece = output.substr(at, end - at);
        stream += piece.substr(0, piece.find('\0'));
        at = end;
    }
    // A ring of `buffer` bytes: a longer stream leaves its newest bytes with
    // the last one given to the terminator, as does one of exactly that size.
    if (stream.size() > buffer)
        stream = stream.substr(stream.size() - buffer, buffer - 1);
    else if (stream.size() == buffer)
        stream.pop_back();
    // The copy into the field stops at the first NUL and keeps field - 1 characters.
    return stream.substr(0, field - 1);
}

// A field, and the log lines that refuse a value of it. With `all_refused`,
// every payload must be refused but the NUL family's in a C string
// (`c_string`), which ends before its hostile part.
struct field_rule {
    const char *field;
    std::initializer_list<const char *> refusal_lines = {};
    bool all_refused = false;
    bool c_string = false;
};

// Runs every payload through `use`, which puts it into the field, uses the
// field as the library does and sets `kept` when the text stayed data; the
// log lines written meanwhile are the library's. Checks each payload:
// nothing executed, and refused (a log line of the rule) or kept.
using use_fn = std::function<void(const payload &, bool &kept)>;
inline void run_field(const field_rule &rule, const use_fn &use) {
    const testing::TestResult &result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    size_t executed = 0, refused = 0, kept = 0;
    for (const payload &p : payloads()) {
        lay_canaries();
        const int failures = result.total_part_count();
        bool stayed_data = false;
        const std::string log = capture_support::log_of([&] { use(p, stayed_data); });
        std::string shown = "the " + p.family + " payload [", shown_log = log.substr(0, 2000);
        for (char c : p.text.substr(0, 60)) shown += c >= ' ' && c <= '~' ? c : '?';
        shown = std::string(rule.field) + ": " + shown + (p.text.size() > 60 ? "...]" : "]");
        if (result.total_part_count() > failures) printf("%s:\n%s\n", shown.c_str(), shown_log.c_str());
        const bool touched = canary_touched();
        bool was_refused = false;
        for (const char *line : rule.refusal_lines)
            was_refused = was_refused || log.find(line) != std::string::npos;
        const bool was_kept = !was_refused && (stayed_data || (rule.c_string && p.nul()));
        executed += touched;
        refused += was_refused;
        kept += was_kept;
        EXPECT_FALSE(touched) << shown << " ran";
        EXPECT_TRUE(was_refused || was_kept)
            << shown << " was neither refused with a log line nor kept as data\n"
            << shown_log;
        if (rule.all_refused && !(rule.c_string && p.nul())) {
            EXPECT_TRUE(was_refused) << shown << " was not refused\n" << shown_log;
        }
    }
    lay_canaries();
    report(rule.field, payloads().size(), executed, refused, kept);
}

template <size_t N> inline std::string text_of(const char (&field)[N]) {
    return std::string(zq::view(field));
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
