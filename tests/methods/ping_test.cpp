// The ping method: its parser on the texts of busybox's and iputils' ping,
// its verdict rules, and its actions against real replies from the lab's
// ISP side.
#include "tests/methods/wan_fixture.hpp"

#include "methods/methods.h"

using namespace zq;

namespace {

constexpr uint32_t UNTOUCHED = 77;

struct ParseCase {
    std::string text;
    uint8_t loss, no_stats;
    uint32_t avg, min, max, jitter, verdict;
};

const std::string BB_ALL = "5 packets transmitted, 5 packets received, 0% packet loss\n";

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
