#include "injection.hpp"

#include <cstdio>

#include "lab/zqlab.hpp"

namespace injection {

namespace {

const std::string T = std::string("touch ") + MADE;
const std::string R = std::string("rm -f ") + KEEP;
const std::string T_IFS = std::string("touch${IFS}") + MADE;
const std::string A = "192.0.2.10"; // a WAN's own address
const std::string I = "nas0_0";     // a WAN's own interface

struct family {
    const char *name;
    std::vector<std::string> texts;
};

std::vector<family> families() {
    using std::string;
    return {
        {"backtick", {"`" + T + "`", "x`" + R + "`", A + "`" + T + "`", "`" + T_IFS + "`"}},
        {"semicolon", {";" + T, "x;" + R + ";", A + "; " + T, I + ";" + T}},
        {"pipe", {"|" + T, "x|" + R, "x||" + T, A + "|tee " + MADE}},
        {"and", {"&&" + T, "x&&" + R, "x & " + T, A + "&" + T + "&"}},
        {"dollar-paren", {"$(" + T + ")", "x$(" + R + ")", "$(" + T_IFS + ")", A + "$(" + T + ")"}},
        {"ifs",
         {";" + T_IFS, "${IFS}-w${IFS}" + string(MADE), "x;rm${IFS}-f${IFS}" + string(KEEP), "$IFS;" + T}},
        {"quote", {"';" + T + ";'", "\";" + T + ";\"", "x' -w " + string(MADE) + " '", "\\\";" + T + ";#"}},
        {"newline", {"\n" + T, "x\n" + R, A + "\n" + T, "x\r\n" + T}},
        {"option",
         {"-w" + string(MADE), "-o" + string(MADE), "--output-file=" + string(MADE), "-fr " + string(KEEP)}},
        {"path",
         {"../../../../tmp/zq-canary-keep", "..", "/../../tmp/zq-canary-keep",
          "x/../../../tmp/zq-canary-keep"}},
        {"oversize",
         {string(300, 'A') + ";" + T, string(4096, 'A') + "$(" + T + ")", string(70000, 'A') + "|" + T,
          A + string(300, ' ') + ";" + T}},
        {"nul",
         {string("\0;", 2) + T, string("lo\0`", 4) + T + "`", A + string("\0;", 2) + R,
          I + string("\0$(", 3) + T + ")"}},
    };
}

// A payload as a test failure shows it: printable, and short.
std::string shown(const std::string &text) {
    std::string out;
    for (char c : text.substr(0, 60)) out += c >= ' ' && c <= '~' ? c : '?';
    return text.size() > 60 ? out + "..." : out;
}

bool holds_any(const std::string &log, std::initializer_list<const char *> lines) {
    for (const char *line : lines)
        if (log.find(line) != std::string::npos) return true;
    return false;
}

} // namespace

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

const std::vector<payload> &payloads() {
    static const std::vector<payload> all = [] {
        std::vector<payload> out;
        for (const family &f : families())
            for (const std::string &text : f.texts) out.push_back({f.name, text});
        return out;
    }();
    return all;
}

std::string log_of(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
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
    return stream.substr(0, field - 1);
}

void run_field(const field_rule &rule, const std::function<observation(const payload &)> &use) {
    size_t executed = 0, refused = 0, kept = 0;
    for (const payload &p : payloads()) {
        lay_canaries();
        const observation seen = use(p);
        const bool touched = canary_touched();
        const bool was_refused = holds_any(seen.log, rule.refusal_lines);
        const bool was_kept = !was_refused && (seen.kept || (rule.c_string && p.nul()));
        executed += touched ? 1 : 0;
        refused += was_refused ? 1 : 0;
        kept += was_kept ? 1 : 0;
        EXPECT_FALSE(touched) << rule.field << ": the " << p.family << " payload [" << shown(p.text)
                              << "] ran";
        EXPECT_TRUE(was_refused || was_kept)
            << rule.field << ": the " << p.family << " payload [" << shown(p.text)
            << "] was neither refused with a log line nor kept as data\n"
            << seen.log.substr(0, 2000);
        if (rule.all_refused && !(rule.c_string && p.nul())) {
            EXPECT_TRUE(was_refused) << rule.field << ": the " << p.family << " payload [" << shown(p.text)
                                     << "] was not refused\n"
                                     << seen.log.substr(0, 2000);
        }
    }
    lay_canaries();
    report(rule.field, payloads().size(), executed, refused, kept);
}

} // namespace injection
