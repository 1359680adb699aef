// The injection suite: a table of payload families, and the harness that
// sends every payload through one field of outside text and judges what
// became of it.
//
// Every payload would, if a shell ever ran it (or a program took it for an
// option or a path), create the canary file MADE or remove the canary file
// KEEP; both are laid out afresh before each payload. A payload ends in one
// of three ways:
//   executed  a canary was touched (the goal is 0);
//   refused   the library wrote a log line that names the refusal (each
//             field lists the lines that count);
//   kept      the text never reached a command: it stayed data of the
//             field (a name shown in a finding, a value in a record), or,
//             in a C string, ended at its NUL byte; or it reached one only
//             as a single quoted argument, byte for byte (a capture
//             filter, which tcpdump gets as its expression).
// Each field's test prints one summary line, "injection: FIELD: ...";
// scripts/injection adds them up.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace injection {

constexpr const char *MADE = "/tmp/zq-canary-made";
constexpr const char *KEEP = "/tmp/zq-canary-keep";

struct payload {
    std::string family;
    std::string text;
    // The family is the embedded NUL: in a C string the value ends there.
    bool nul() const { return family == "nul"; }
};

// Every payload, family by family.
const std::vector<payload> &payloads();

// What one payload did to its field.
struct observation {
    std::string log; // the library's log lines while the field was used
    bool kept = false;
};

// Runs every payload through `use` (which puts it into the field, uses the
// field as the library does and reports what happened) and checks each:
// nothing executed, and refused (a log line holding one of
// `refusal_lines`) or kept. With `all_refused`, every payload but those of
// the NUL family in a C string (`c_string`) must be refused.
struct field_rule {
    const char *field;
    std::initializer_list<const char *> refusal_lines;
    bool all_refused;
    bool c_string;
};
void run_field(const field_rule &rule, const std::function<observation(const payload &)> &use);

// Lays the canaries out afresh; true when a payload has touched them since.
void lay_canaries();
bool canary_touched();

// Prints a field's summary line, which scripts/injection adds up.
void report(const char *field, size_t payloads, size_t executed, size_t refused, size_t kept);

// The library's log lines (its standard output) while `fn` runs.
std::string log_of(const std::function<void()> &fn);

// What the library holds of a tool's answer `output` after reading it
// through its command runner into a `buffer`-byte buffer and copying it
// into a `field`-byte text field: the runner drops the rest of a 63-byte
// read after a NUL and keeps the newest bytes of a long answer; the copy
// stops at the first NUL and keeps field - 1 characters.
std::string as_read(const std::string &output, size_t field, size_t buffer = 4096);

} // namespace injection
