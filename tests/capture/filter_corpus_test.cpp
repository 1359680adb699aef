// Each expression of filter_corpus.txt compiles in libpcap, and the library's command line, run by /bin/sh,
// hands it to tcpdump as exactly one argument (or is refused as too long only when it cannot hold it).
#include <gtest/gtest.h>

#include <fstream>
#include <unistd.h>

#ifdef ZQ_HAVE_PCAP
#include <pcap/pcap.h>
#endif

#include "capture/capture.h"
#include "capture_support.hpp"

using namespace zq;

namespace {

using argv_t = std::vector<std::string>;
using capture_support::expected_argv;
using capture_support::PCAP;

std::vector<std::string> corpus() {
    std::vector<std::string> out;
    std::ifstream file(ZQ_FILTER_CORPUS);
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#') out.push_back(line);
    return out;
}

// The arguments `tcpdump` (a shell function) receives when /bin/sh runs `command`, its trailing '&' included.
argv_t tcpdump_argv(const std::string &command) {
    FILE *sh = popen(("tcpdump() { printf '%s\\0' \"$@\"; }\n" + command + "\nwait\n").c_str(), "r");
    if (!sh) return {"(popen failed)"};
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), sh)) > 0;) out.append(buf, n);
    pclose(sh);
    return capture_support::nul_split(out);
}

struct built {
    bool ok;
    std::string command, log;
};

built build(uint32_t mode, uint64_t count, const std::string &filter, const char *interface = "any") {
    char cmd[ZQ_TCPDUMP_COMMAND_SIZE];
    memset(cmd, 'x', sizeof(cmd));
    bool ok = false;
    const tcpdump_req req = capture_support::request(mode, count, interface, filter);
    const std::string log = capture_support::log_of([&] { ok = build_tcpdump_command(req, cmd); });
    return {ok, std::string(cmd, strnlen(cmd, sizeof(cmd))), log};
}

// The length each mode's command line has without its filter word.
size_t length_without_filter(uint32_t mode, uint64_t count) {
    const std::string n = std::to_string(count);
    return (mode == 0 ? "tcpdump -v -i any  -c " + n + " -w " + PCAP + " &"
                      : "tcpdump -v -i any -C " + n + " -W 2 -w " + PCAP + " &")
        .size();
}

constexpr std::pair<uint32_t, uint64_t> MODES[] = {{0, 5000}, {1, 3}}; // mode, count

// One filter through both modes' command lines: `expression` whole and alone in its argument, or refused
// because even its unquoted text cannot fit. Returns whether both modes took it.
bool expect_whole(const std::string &filter, const std::string &expression) {
    bool both = true;
    for (const auto &[mode, count] : MODES) {
        const built b = build(mode, count, filter);
        both = both && b.ok;
        if (b.ok) {
            EXPECT_EQ(tcpdump_argv(b.command), expected_argv(mode, count, "any", expression))
                << "mode " << mode << ", command [" << b.command << "]";
        } else {
            EXPECT_NE(b.log.find("tcpdump command is too long"), std::string::npos) << b.log;
            EXPECT_GE(length_without_filter(mode, count) + expression.size() + 2, ZQ_TCPDUMP_COMMAND_SIZE)
                << "[" << filter << "] was refused though it fits";
        }
    }
    return both;
}

// The corpus is made of filters: compiled for Ethernet (a WAN or LAN) or the cooked header of "any", with a
// netmask so that "ip broadcast" compiles.
TEST(FilterCorpus, EveryExpressionIsAFilterForLibpcap) {
#ifdef ZQ_HAVE_PCAP
    for (const std::string &expression : corpus()) {
        std::string errors;
        for (int link : {DLT_EN10MB, DLT_LINUX_SLL}) {
            pcap_t *pcap = pcap_open_dead(link, 262144);
            bpf_program program{};
            const bool compiled = pcap_compile(pcap, &program, expression.c_str(), 1, 0xffffff00) == 0;
            errors = compiled ? "" : errors + " " + pcap_geterr(pcap);
            if (compiled) pcap_freecode(&program);
            pcap_close(pcap);
            if (compiled) break;
        }
        EXPECT_EQ(errors, "") << "[" << expression << "]";
    }
#else
    GTEST_SKIP() << "libpcap was not found when the build was configured";
#endif
}

// Each expression, also wrapped in single quotes, reaches tcpdump whole; the quoted word holds any length.
// Only one quote at each end and none between is a wrapping: other quotes are the expression's (tcpdump's).
TEST(FilterCorpus, EveryExpressionReachesTcpdumpWhole) {
    const std::vector<std::string> expressions = corpus();
    ASSERT_GE(expressions.size(), 100u) << ZQ_FILTER_CORPUS;
    size_t taken = 0;
    for (const std::string &expression : expressions) {
        char word[1100];
        ASSERT_TRUE(quote_capture_filter(expression, word, sizeof(word))) << expression;
        EXPECT_EQ(tcpdump_argv(std::string("tcpdump ") + word), argv_t{expression});
        taken += expect_whole(expression, expression);
        const std::string wrapped = "'" + expression + "'";
        for (const auto &[mode, count] : MODES)
            EXPECT_EQ(build(mode, count, wrapped).command, build(mode, count, expression).command) << wrapped;
    }
    EXPECT_GE(taken, expressions.size() - 4) << "the line holds all but the manual's four longest examples";
    expect_whole("'! host 203.0.113.21'", "! host 203.0.113.21"); // the library's own rotate-mode filter
    for (const char *as_is : {"'udp' and 'port 53'", "'icmp", "icmp'", "'", "it's", "a'''b", "''''"})
        expect_whole(as_is, as_is);
    expect_whole("''", "");
    expect_whole("", "");
}

TEST(FilterCorpus, ShellSyntaxInAFilterIsTcpdumpsText) {
    char dir[] = "/tmp/zq-filter-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string mark = std::string(dir) + "/ran", touch = "touch " + mark;
    // '@' stands for the command that leaves the mark, '^' for the mark.
    const char *const texts[] = {
        "icmp; @",    "icmp && @", "icmp || @", "icmp | @",          "icmp & @",       "$(@)",
        "`@`",        "icmp > ^",  "icmp < ^",  "icmp' ; @ '",       "icmp'\\'' ; @",  "\"$(@)\"",
        "icmp \\; @", "${IFS}@",   "icmp -w ^", "udp\tand\tport 53", "icmp # comment", "*",
        "~",          "!!",        "{a,b}"};
    for (std::string text : texts) {
        for (size_t at; (at = text.find_first_of("@^")) != std::string::npos;)
            text.replace(at, 1, text[at] == '@' ? touch : mark);
        expect_whole(text, text);
        EXPECT_NE(access(mark.c_str(), F_OK), 0) << "[" << text << "] ran";
    }
    std::remove(mark.c_str());
    rmdir(dir);
}

TEST(FilterCorpus, OnlyWhatNoExpressionCanBeIsRefused) {
    for (const char *text :
         {"udp\nand port 53", "icmp\n", "\r", "icmp\x7f", "\x1b[31m", "udp\vport 53", "-w /tmp/x",
          "  -w /tmp/x", "\t-z sh", "'-r /tmp/x'", "' -w /tmp/x'", "--help", "-", "-z sh"}) {
        const built b = build(0, 10, text); // refused before the mode's line is written
        EXPECT_FALSE(b.ok) << text;
        EXPECT_EQ(b.command, "");
        EXPECT_NE(b.log.find("invalid capture filter"), std::string::npos) << b.log;
        char word[64] = "untouched";
        EXPECT_FALSE(quote_capture_filter(text, word, sizeof(word)));
        EXPECT_STREQ(word, "");
    }
    // A '-' later in the expression is tcpdump's text, and so are bytes above ASCII.
    for (const char *text : {"icmp -w /tmp/x", "'x' -w /tmp/x", "host \xc3\xa9t\xc3\xa9"})
        expect_whole(text, text);
}

TEST(FilterCorpus, TheLineIsRefusedRatherThanCut) {
    // The longest expression that fits each mode's line exactly, and one more character; the same length with
    // a quote in it (which takes four) does not fit.
    for (const auto &[mode, count] : MODES) {
        const size_t room = ZQ_TCPDUMP_COMMAND_SIZE - 1 - length_without_filter(mode, count) - 2;
        const std::string fits = "ip and " + std::string(room - 7, ' ');
        const built b = build(mode, count, fits);
        ASSERT_TRUE(b.ok) << b.log;
        EXPECT_EQ(tcpdump_argv(b.command), expected_argv(mode, count, "any", fits));
        const built over = build(mode, count, fits + " ");
        EXPECT_FALSE(over.ok);
        EXPECT_NE(over.log.find("tcpdump command is too long"), std::string::npos) << over.log;
        EXPECT_FALSE(build(mode, count, "'" + fits.substr(1)).ok);
    }
    // A filter that fills its whole field, without a terminator.
    EXPECT_FALSE(build(0, 10, std::string(sizeof(tcpdump_req::filter), 'a'), "lo").ok);
    // A word buffer too small for the quoted expression stays empty.
    char small[6] = "xxxxx", exact[7];
    EXPECT_FALSE(quote_capture_filter("icmp", small, sizeof(small)));
    EXPECT_STREQ(small, "");
    EXPECT_TRUE(quote_capture_filter("icmp", exact, sizeof(exact)));
    EXPECT_STREQ(exact, "'icmp'");
    EXPECT_FALSE(quote_capture_filter("icmp", nullptr, 10));
}

} // namespace
