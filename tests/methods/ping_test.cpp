// The ping method: its parser on the texts of busybox's and iputils' ping,
// its verdict rules, and its actions against real replies from the lab's
// ISP side.
#include "tests/methods/wan_fixture.hpp"

#include "methods/methods.h"

using namespace zq;

namespace {

constexpr uint32_t UNTOUCHED = 77;

ping_result parse(const std::string &text) {
    ping_result r{};
    r.avg = r.min = r.max = r.jitter = UNTOUCHED;
    parse_ping_output(text, r);
    return r;
}

struct ParseCase {
    std::string text;
    uint8_t loss, no_stats;
    uint32_t avg, min, max, jitter, verdict;
};

const std::string BB_ALL = "5 packets transmitted, 5 packets received, 0% packet loss\n";

TEST(PingParser, StatisticsOfBothPingsAndTheVerdictRules) {
    const std::string rtt = BB_ALL + "round-trip min/avg/max = ";
    const ParseCase cases[] = {
        {"", 100, 1, UNTOUCHED, UNTOUCHED, UNTOUCHED, UNTOUCHED, PING_NO_STATS},
        {"ping: bad address 'x'\n", 100, 1, UNTOUCHED, UNTOUCHED, UNTOUCHED, UNTOUCHED, PING_NO_STATS},
        {"5 packets transmitted, 0 packets received, 100% packet loss\n", 100, 0, UNTOUCHED, UNTOUCHED,
         UNTOUCHED, UNTOUCHED, PING_UNREACHABLE},
        // Fractions are cut: sub-millisecond times read as 0.
        {rtt + "0.101/0.220/0.415 ms\n", 0, 0, 0, 0, 0, 0, PING_NORMAL},
        {rtt + "10.1/50.5/80.9 ms\n", 0, 0, 50, 10, 80, 70, PING_JITTER},
        {rtt + "300.2/310.9/315.0 ms\n", 0, 0, 310, 300, 315, 15, PING_SLOW},
        // A jitter of exactly 10 is never jitter; 200 ms is not slow, 201 is.
        {rtt + "1.0/5.0/11.0 ms\n", 0, 0, 5, 1, 11, 10, PING_NORMAL},
        {rtt + "190.0/200.9/200.0 ms\n", 0, 0, 200, 190, 200, 10, PING_NORMAL},
        {rtt + "195.0/201.0/205.0 ms\n", 0, 0, 201, 195, 205, 10, PING_SLOW},
        {"5 packets transmitted, 4 packets received, 20% packet loss\nround-trip min/avg/max = 1.0/1.0/1.0 "
         "ms\n",
         20, 0, 1, 1, 1, 0, PING_LOSS},
        {"3 packets transmitted, 2 received, 33.3% packet loss, time 2003ms\n", 33, 0, 0, 0, 0, 0, PING_LOSS},
        // iputils: a fourth value (mdev) after max.
        {"5 packets transmitted, 5 received, 0% packet loss, time 4005ms\n"
         "rtt min/avg/max/mdev = 1.1/2.2/3.3/0.4 ms\n",
         0, 0, 2, 1, 3, 2, PING_NORMAL},
        {"5 packets transmitted, 5 received, 0% packet loss, time 4005ms\n"
         "rtt min/avg/max/mdev = 10.320/38.402/80.271/25.160 ms\n",
         0, 0, 38, 10, 80, 70, PING_JITTER},
        // Malformed texts read as 0 where a value cannot be found; the
        // jitter is max - min, unsigned.
        {(BB_ALL + "round-trip min/avg/max 1/2/3 ms\n"), 0, 0, 0, 0, 0, 0, PING_NORMAL},
        {rtt + "1/2/3", 0, 0, 2, 1, 0, 4294967295u, PING_JITTER},
        {rtt + "1234567890123456789012345678901234567890/2/3 ms\n", 0, 0, 2, 0, 3, 3, PING_NORMAL},
        {rtt + "99999999999/2/3 ms\n", 0, 0, 2, 2147483647u, 3, 2147483652u, PING_JITTER},
    };
    for (const ParseCase &c : cases) {
        SCOPED_TRACE(c.text);
        const ping_result r = parse(c.text);
        EXPECT_EQ(r.loss, c.loss);
        EXPECT_EQ(r.no_stats, c.no_stats);
        EXPECT_EQ(r.avg, c.avg);
        EXPECT_EQ(r.min, c.min);
        EXPECT_EQ(r.max, c.max);
        EXPECT_EQ(r.jitter, c.jitter);
        EXPECT_EQ(ping_verdict(r), c.verdict);
    }
}

class Ping : public WanMethod {
  protected:
    static ping_request request(uint8_t family, const char *host, const char *source) {
        ping_request r{};
        r.family = family;
        strncpy(r.host, host, sizeof(r.host) - 1);
        strncpy(r.source, source, sizeof(r.source) - 1);
        return r;
    }
    static uint32_t verdict(const ping_request &req) {
        uint32_t v = 99;
        EXPECT_EQ(zq_get_sys_diag("ping", ACTION_DIAG, zq_args(&req, sizeof(req), &v, sizeof(v))), 0);
        return v;
    }
    static uint32_t gateway_verdict() { return verdict(request(4, "192.0.2.1", "192.0.2.10")); }
};

TEST_F(Ping, VerdictsOfRealReplies) {
    EXPECT_EQ(verdict(request(0, "192.0.2.1", "192.0.2.10")), PING_NORMAL);
    EXPECT_EQ(journal_of("timeout"),
              std::vector<std::string>{"timeout -t 10 ping -4 -c 5 -W 1 192.0.2.1 -I 192.0.2.10"});

    zqlab::set("isp.ping.192.0.2.1", "delay 10 50 80 20 30");
    EXPECT_EQ(gateway_verdict(), PING_JITTER);
    zqlab::set("isp.ping.192.0.2.1", "delay 500");
    EXPECT_EQ(gateway_verdict(), PING_SLOW);
    zqlab::set("isp.ping.192.0.2.1", "loss 5");
    EXPECT_EQ(gateway_verdict(), PING_LOSS);
    zqlab::set("isp.ping.192.0.2.1", "none");
    EXPECT_EQ(gateway_verdict(), PING_UNREACHABLE);

    // iputils' format, with the struct's times.
    zqlab::set("ping", "iputils");
    zqlab::set("isp.ping.192.0.2.1", "delay 30 30 30 30 90");
    const ping_request req = request(4, "192.0.2.1", "192.0.2.10");
    ping_result r{};
    ASSERT_EQ(zq_get_sys_diag("ping", ACTION_STRUCT, zq_args(&req, sizeof(req), &r, sizeof(r))), 0);
    // Whole milliseconds of real replies: at least the delays; a busy
    // machine adds scheduling delays, never the size of the spread.
    EXPECT_EQ(r.loss, 0);
    EXPECT_GE(r.min, 30u);
    EXPECT_LT(r.min, 90u);
    EXPECT_GE(r.max, 90u);
    EXPECT_GE(r.avg, 42u);
    EXPECT_EQ(r.jitter, r.max - r.min);
    EXPECT_EQ(ping_verdict(r), PING_JITTER);

    // IPv6 through "-6".
    zqlab::scenario("wan-dual-stack");
    zqlab::set("ping.interval", "0.2");
    zqlab::clear_journal();
    EXPECT_EQ(verdict(request(6, "2001:db8:1::1", "2001:db8:1::10")), PING_NORMAL);
    EXPECT_EQ(journal_of("timeout"),
              std::vector<std::string>{"timeout -t 10 ping -6 -c 5 -W 1 2001:db8:1::1 -I 2001:db8:1::10"});
}

TEST_F(Ping, RawTextIsTheStatisticsLines) {
    const ping_request req = request(4, "192.0.2.1", "");
    char text[300];
    memset(text, 0, sizeof(text));
    ASSERT_EQ(zq_get_sys_diag("ping", ACTION_RAW_DATA, zq_args(&req, sizeof(req), text, sizeof(text))), 0);
    EXPECT_EQ(std::string(text).rfind("5 packets transmitted, 5 packets received, 0% packet loss\n"
                                      "round-trip min/avg/max = ",
                                      0),
              0u)
        << text;
    // Without a source the option is empty: two blanks before the pipe.
    EXPECT_EQ(journal_of("timeout"), std::vector<std::string>{"timeout -t 10 ping -4 -c 5 -W 1 192.0.2.1"});
    EXPECT_TRUE(has(zqlab::read_file("/tmp/diag_file/cmd_log"),
                    "cmd: [timeout -t 10 ping -4 -c 5 -W 1 192.0.2.1  | grep transmit -A 2]\n"));
}

// An empty host runs nothing; so does a host that is no plain address or
// name. A bad source is left out. Nothing of either reaches a shell.
TEST_F(Ping, EmptyOrMalformedValuesNeverReachTheShell) {
    char text[256];
    memset(text, 'x', sizeof(text));
    const ping_request empty = request(4, "", "192.0.2.10");
    ASSERT_EQ(zq_get_sys_diag("ping", ACTION_RAW_DATA, zq_args(&empty, sizeof(empty), text, sizeof(text))),
              0);
    EXPECT_EQ(text[0], 'x') << "the output is left untouched";
    EXPECT_EQ(verdict(empty), PING_NO_STATS);

    const char *payloads[] = {"192.0.2.1; touch /tmp/pwned", "$(touch /tmp/pwned)",
                              "`touch /tmp/pwned`",          "-f",
                              "192.0.2.1|touch /tmp/pwned",  "a b",
                              "192.0.2.1\ntouch /tmp/pwned"};
    for (const char *p : payloads) {
        std::string log =
            log_of([&] { EXPECT_EQ(verdict(request(4, p, "192.0.2.10")), PING_NO_STATS) << p; });
        EXPECT_TRUE(has(log, "is no address or host name: not pinged")) << p << "\n" << log;
    }
    EXPECT_TRUE(journal_of("timeout").empty());

    std::string log = log_of([&] { verdict(request(4, "192.0.2.1", "$(touch /tmp/pwned)")); });
    EXPECT_TRUE(has(log, "source [$(touch /tmp/pwned)] is no address or interface: pinged without it"))
        << log;
    EXPECT_EQ(journal_of("timeout"), std::vector<std::string>{"timeout -t 10 ping -4 -c 5 -W 1 192.0.2.1"});
    EXPECT_FALSE(zqlab::file_exists("/tmp/pwned"));
}

} // namespace
