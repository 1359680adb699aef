// A caller's capture filter against the shell and against libpcap, on the
// host: for every expression of filter_corpus.txt, the command line that
// the library builds, split by /bin/sh, hands tcpdump exactly that
// expression as one argument (or, when the line cannot hold it, is refused
// as too long), and libpcap compiles the expression. The shell runs the
// command with `tcpdump` defined as a function that prints its arguments,
// so nothing is captured and nothing but the function runs.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#ifdef ZQ_HAVE_PCAP
#include <pcap/pcap.h>
#endif

#include "capture/capture.h"

using namespace zq;

namespace {

using argv_t = std::vector<std::string>;

std::vector<std::string> corpus() {
    std::vector<std::string> out;
    std::ifstream file(ZQ_FILTER_CORPUS);
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#') out.push_back(line);
    return out;
}

// The arguments `tcpdump` receives when /bin/sh runs `command` (as the
// library's system() does, the trailing '&' included, then waits for it).
argv_t tcpdump_argv(const std::string &command) {
    const std::string script = "tcpdump() { printf '%s\\0' \"$@\"; }\n" + command + "\nwait\n";
    FILE *sh = popen(script.c_str(), "r");
    if (!sh) return {"(popen failed)"};
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), sh)) > 0;) out.append(buf, n);
    pclose(sh);
    argv_t argv;
    for (size_t at = 0; at < out.size();) {
        const size_t end = out.find('\0', at);
        if (end == std::string::npos) {
            argv.push_back(out.substr(at) + "(unterminated)");
            break;
        }
        argv.push_back(out.substr(at, end - at));
        at = end + 1;
    }
    return argv;
}

tcpdump_req request(uint32_t mode, uint64_t count, const char *interface, const std::string &filter) {
    tcpdump_req req{};
    req.mode = mode;
    req.catch_count = count;
    strncpy(req.interface, interface, sizeof(req.interface) - 1);
    memcpy(req.filter, filter.data(),
           filter.size() < sizeof(req.filter) ? filter.size() : sizeof(req.filter));
    return req;
}

struct built {
    bool ok;
    std::string command;
    std::string log;
};

built build(const tcpdump_req &req) {
    char cmd[ZQ_TCPDUMP_COMMAND_SIZE];
    memset(cmd, 'x', sizeof(cmd));
    testing::internal::CaptureStdout();
    const bool ok = build_tcpdump_command(req, cmd);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(memchr(cmd, '\0', sizeof(cmd)), nullptr) << "the command buffer is not terminated";
    return {ok, std::string(cmd, strnlen(cmd, sizeof(cmd))), log};
}

// What tcpdump must receive for a request of each mode; an empty
// expression gives no filter argument at all.
constexpr const char *PCAP = "/tmp/capture_file/capture.pcap";
argv_t expected_argv(uint32_t mode, const std::string &interface, uint64_t count,
                     const std::string &expression) {
    argv_t argv = {"-v", "-i", interface};
    if (mode == 0) {
        if (!expression.empty()) argv.push_back(expression);
        argv.insert(argv.end(), {"-c", std::to_string(count), "-w", PCAP});
    } else {
        argv.insert(argv.end(), {"-C", std::to_string(count), "-W", "2", "-w", PCAP});
        if (!expression.empty()) argv.push_back(expression);
    }
    return argv;
}

// The length the command line of each mode has without its filter word.
size_t length_without_filter(uint32_t mode, const std::string &interface, uint64_t count) {
    const std::string rest =
        mode == 0 ? "tcpdump -v -i " + interface + "  -c " + std::to_string(count) + " -w " + PCAP + " &"
                  : "tcpdump -v -i " + interface + " -C " + std::to_string(count) + " -W 2 -w " + PCAP + " &";
    return rest.size();
}

struct mode_case {
    uint32_t mode;
    uint64_t count;
};
constexpr mode_case MODES[] = {{0, 5000}, {1, 3}};

// One expression through both modes' command lines: whole and alone in
// its argument, or refused because even its unquoted text cannot fit.
void expect_whole(const std::string &filter, const std::string &expression) {
    for (const auto &[mode, count] : MODES) {
        const built b = build(request(mode, count, "any", filter));
        if (b.ok) {
            EXPECT_EQ(tcpdump_argv(b.command), expected_argv(mode, "any", count, expression))
                << "mode " << mode << ", command [" << b.command << "]";
        } else {
            EXPECT_NE(b.log.find("tcpdump command is too long"), std::string::npos) << b.log;
            EXPECT_GE(length_without_filter(mode, "any", count) + expression.size() + 2,
                      ZQ_TCPDUMP_COMMAND_SIZE)
                << "[" << filter << "] was refused though it fits";
        }
    }
}

TEST(FilterCorpus, HoldsEnoughRealExpressions) { EXPECT_GE(corpus().size(), 200u); }

TEST(FilterCorpus, EveryExpressionIsAFilterForLibpcap) {
#ifdef ZQ_HAVE_PCAP
    // Ethernet, as on a WAN or LAN interface, or the cooked header of the
    // "any" interface; a netmask so that "ip broadcast" compiles.
    for (const std::string &expression : corpus()) {
        std::string errors;
        bool compiled = false;
        for (int link : {DLT_EN10MB, DLT_LINUX_SLL}) {
            pcap_t *pcap = pcap_open_dead(link, 262144);
            ASSERT_NE(pcap, nullptr);
            bpf_program program{};
            if (pcap_compile(pcap, &program, expression.c_str(), 1, 0xffffff00) == 0) {
                compiled = true;
                pcap_freecode(&program);
            } else {
                errors += std::string(" ") + pcap_geterr(pcap);
            }
            pcap_close(pcap);
            if (compiled) break;
        }
        EXPECT_TRUE(compiled) << "[" << expression << "]:" << errors;
    }
#else
    GTEST_SKIP() << "libpcap was not found when the build was configured";
#endif
}

TEST(FilterCorpus, EveryExpressionReachesTcpdumpWhole) {
    size_t whole_in_both_modes = 0;
    for (const std::string &expression : corpus()) {
        // The quoted word alone, whatever its length.
        char word[1100];
        ASSERT_TRUE(quote_capture_filter(expression, word, sizeof(word))) << expression;
        EXPECT_EQ(tcpdump_argv(std::string("tcpdump ") + word), argv_t{expression});
        expect_whole(expression, expression);
        whole_in_both_modes +=
            length_without_filter(1, "any", 3) + expression.size() + 2 < ZQ_TCPDUMP_COMMAND_SIZE;
    }
    // Most of the corpus fits the line; the longest of the manual's
    // examples do not.
    EXPECT_GE(whole_in_both_modes, 250u);
}

TEST(FilterCorpus, WrappedInQuotesReachesTcpdumpAsTheSameExpression) {
    for (const std::string &expression : corpus()) {
        const std::string wrapped = "'" + expression + "'";
        for (const auto &[mode, count] : MODES)
            EXPECT_EQ(build(request(mode, count, "any", wrapped)).command,
                      build(request(mode, count, "any", expression)).command)
                << wrapped;
        expect_whole(wrapped, expression);
    }
    // The library's own rotate-mode filter.
    expect_whole("'! host 203.0.113.21'", "! host 203.0.113.21");
    // Wrapped whole means one quote at each end and none between: anything
    // else is an expression of its own, quotes included, which tcpdump
    // rejects rather than anything else running.
    for (const char *as_is : {"'udp' and 'port 53'", "'icmp", "icmp'", "'", "it's", "a'''b", "''''"})
        expect_whole(as_is, as_is);
    expect_whole("''", "");
    expect_whole("", "");
}

TEST(FilterCorpus, ShellSyntaxInAFilterIsTcpdumpsText) {
    char dir_template[] = "/tmp/zq-filter-XXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    const std::string mark = std::string(dir_template) + "/ran";
    const std::string touch = "touch " + mark;
    for (const std::string &text : std::vector<std::string>{"icmp; " + touch,
                                                            "icmp && " + touch,
                                                            "icmp || " + touch,
                                                            "icmp | " + touch,
                                                            "icmp & " + touch,
                                                            "$(" + touch + ")",
                                                            "`" + touch + "`",
                                                            "icmp > " + mark,
                                                            "icmp < " + mark,
                                                            "icmp' ; " + touch + " '",
                                                            "icmp'\\'' ; " + touch,
                                                            "\"$(" + touch + ")\"",
                                                            "icmp \\; " + touch,
                                                            "${IFS}" + touch,
                                                            "icmp -w " + mark,
                                                            "udp\tand\tport 53",
                                                            "icmp # comment",
                                                            "*",
                                                            "~",
                                                            "!!",
                                                            "{a,b}",
                                                            "udp and (port 67 or port 68); " + touch}) {
        expect_whole(text, text);
        EXPECT_NE(access(mark.c_str(), F_OK), 0) << "[" << text << "] ran";
    }
    expect_whole("'$(" + touch + ")'", "$(" + touch + ")");
    EXPECT_NE(access(mark.c_str(), F_OK), 0);
    std::remove(mark.c_str());
    rmdir(dir_template);
}

TEST(FilterCorpus, OnlyWhatNoExpressionCanBeIsRefused) {
    for (const std::string &text :
         {std::string("udp\nand port 53"), std::string("icmp\n"), std::string("\r"), std::string("icmp\x7f"),
          std::string("\x1b[31m"), std::string("udp\vport 53"), std::string("-w /tmp/x"),
          std::string("  -w /tmp/x"), std::string("\t-z sh"), std::string("'-r /tmp/x'"),
          std::string("' -w /tmp/x'"), std::string("--help"), std::string("-"), std::string("-z sh")}) {
        for (const auto &[mode, count] : MODES) {
            const built b = build(request(mode, count, "any", text));
            EXPECT_FALSE(b.ok) << text;
            EXPECT_EQ(b.command, "");
            EXPECT_NE(b.log.find("invalid capture filter"), std::string::npos) << b.log;
        }
        char word[64] = "untouched";
        EXPECT_FALSE(quote_capture_filter(text, word, sizeof(word)));
        EXPECT_STREQ(word, "");
    }
    // A '-' later in the expression is tcpdump's text, and so are bytes
    // above ASCII.
    expect_whole("icmp -w /tmp/x", "icmp -w /tmp/x");
    expect_whole("'x' -w /tmp/x", "'x' -w /tmp/x");
    expect_whole("host \xc3\xa9t\xc3\xa9", "host \xc3\xa9t\xc3\xa9");
}

TEST(FilterCorpus, TheLineIsRefusedRatherThanCut) {
    // The longest expression that fits each mode's line exactly, and one
    // character more.
    for (const auto &[mode, count] : MODES) {
        const size_t room = ZQ_TCPDUMP_COMMAND_SIZE - 1 - length_without_filter(mode, "any", count) - 2;
        const std::string fits = "ip and " + std::string(room - 7, ' ');
        const built b = build(request(mode, count, "any", fits));
        ASSERT_TRUE(b.ok) << b.log;
        EXPECT_EQ(b.command.size(), ZQ_TCPDUMP_COMMAND_SIZE - 1);
        EXPECT_EQ(tcpdump_argv(b.command), expected_argv(mode, "any", count, fits));
        const built over = build(request(mode, count, "any", fits + " "));
        EXPECT_FALSE(over.ok);
        EXPECT_NE(over.log.find("tcpdump command is too long"), std::string::npos) << over.log;
        // The same length with a quote in it does not fit: the quote takes
        // four characters.
        EXPECT_FALSE(build(request(mode, count, "any", "'" + fits.substr(1))).ok);
    }
    // A filter that fills its whole field, without a terminator.
    EXPECT_FALSE(build(request(0, 10, "lo", std::string(sizeof(tcpdump_req::filter), 'a'))).ok);
    // A word buffer too small for the quoted expression stays empty.
    char small[6] = "xxxxx";
    EXPECT_FALSE(quote_capture_filter("icmp", small, sizeof(small)));
    EXPECT_STREQ(small, "");
    char exact[7];
    EXPECT_TRUE(quote_capture_filter("icmp", exact, sizeof(exact)));
    EXPECT_STREQ(exact, "'icmp'");
    EXPECT_FALSE(quote_capture_filter("icmp", nullptr, 10));
}

} // namespace
