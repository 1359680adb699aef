#include "injection.hpp"

#include <cstdio>

namespace injection {

namespace {

// A payload as a test failure shows it: printable, and short.
std::string shown(const payload &p) {
    std::string out = "the " + p.family + " payload [";
    for (char c : p.text.substr(0, 60)) out += c >= ' ' && c <= '~' ? c : '?';
    return out + (p.text.size() > 60 ? "...]" : "]");
}

bool holds_any(const std::string &log, std::initializer_list<const char *> lines) {
    for (const char *line : lines)
        if (log.find(line) != std::string::npos) return true;
    return false;
}

} // namespace

const std::vector<payload> &payloads() {
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

bool canary_touched() { return zqlab::file_exists(MADE) || !zqlab::file_exists(KEEP); }

void lay_canaries() {
    std::remove(MADE);
    zqlab::write_file(KEEP, "keep\n");
}

void report(const char *field, size_t payloads, size_t executed, size_t refused, size_t kept) {
    printf("injection: %s: %zu payloads, %zu executed, %zu refused with a log line, %zu kept as data\n",
           field, payloads, executed, refused, kept);
    fflush(stdout);
}

std::string as_read(const std::string &output, size_t field, size_t buffer) {
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

void run_field(const field_rule &rule, const std::function<bool(const payload &)> &use) {
    const testing::TestResult &result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    size_t executed = 0, refused = 0, kept = 0;
    for (const payload &p : payloads()) {
        lay_canaries();
        const int failures = result.total_part_count();
        bool stayed_data = false;
        const std::string log = log_of([&] { stayed_data = use(p); }), shown_log = log.substr(0, 2000);
        if (result.total_part_count() > failures)
            printf("%s: %s:\n%s\n", rule.field, shown(p).c_str(), shown_log.c_str());
        const bool touched = canary_touched();
        const bool was_refused = holds_any(log, rule.refusal_lines);
        const bool was_kept = !was_refused && (stayed_data || (rule.c_string && p.nul()));
        executed += touched;
        refused += was_refused;
        kept += was_kept;
        EXPECT_FALSE(touched) << rule.field << ": " << shown(p) << " ran";
        EXPECT_TRUE(was_refused || was_kept)
            << rule.field << ": " << shown(p) << " was neither refused with a log line nor kept as data\n"
            << shown_log;
        if (rule.all_refused && !(rule.c_string && p.nul())) {
            EXPECT_TRUE(was_refused) << rule.field << ": " << shown(p) << " was not refused\n" << shown_log;
        }
    }
    lay_canaries();
    report(rule.field, payloads().size(), executed, refused, kept);
}

} // namespace injection
