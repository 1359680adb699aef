#include <gtest/gtest.h>

#include <unistd.h>

#include "capture/capture.h"
#include "capture_support.hpp"
#include "engine/engine.h"
#include "lab/zqlab.hpp"

using namespace zq;

namespace {

using capture_support::log_of;
using capture_support::request;

bool tcpdump_runs() { return !zqlab::pids("tcpdump").empty(); }

class Capture : public ::testing::Test {
  protected:
    void SetUp() override {
        zq_diag_msg_reset();
        memset(&g_cap_exec, 0, sizeof(g_cap_exec));
    }
    void TearDown() override {
        if (tcpdump_runs()) stop_tcpdump_catch();
    }
};

TEST_F(Capture, RequestsOutsideTheirRangesAreRefused) {
    const std::pair<tcpdump_req, const char *> cases[] = {
        {request(0, 5001, "lo"), "catch_count is invalid [cout 5001]"},
        {request(0, 0, "lo"), "catch_count is invalid [cout 0]"},
        {request(1, 4, "lo"), "catch_count is invalid [cout 4]"},
        {request(0, 10, ""), "empty interface"},
        {request(2, 10, "lo"), "invalid mode"},
    };
    for (const auto &[req, message] : cases) {
        std::string log = log_of([&] { EXPECT_EQ(zq_get_tcpdump_file(req), -1); });
        EXPECT_NE(log.find(message), std::string::npos) << log;
    }
    EXPECT_FALSE(tcpdump_runs());

    zqlab::set("tcpdump.max_size", "0");
    log_of([] { EXPECT_EQ(zq_get_tcpdump_file(request(0, 10, "lo")), -1); });
    EXPECT_STREQ(zq_diag_msg, "[warn   ]Out of memory! Disable capture diagnose!\n");
}

TEST_F(Capture, StartsStopsAndPacks) {
    ASSERT_EQ(zq_get_tcpdump_file(request(0, 5000, "lo", "icmp or arp")), 0);
    EXPECT_TRUE(tcpdump_runs());
    log_of([] { EXPECT_EQ(zq_get_tcpdump_file(request(0, 10, "lo")), -1); }); // a second start
    // tcpdump hands packets over a second after they came in at the latest.
    zqlab::run("ping -c 1 127.0.0.1; sleep 1.5");
    EXPECT_EQ(stop_tcpdump_catch(), 0);
    EXPECT_FALSE(tcpdump_runs());
    EXPECT_GT(zq_get_file_size(ZQ_CAPTURE_PCAP), 24);

    const long size = packet_capture_file();
    EXPECT_EQ(size, zq_get_file_size(ZQ_CAPTURE_TAR));
    EXPECT_EQ(zqlab::run("tar -tf /tmp/capture_file/capture.tar"), "capture.pcap\n");
    EXPECT_FALSE(zqlab::file_exists(ZQ_CAPTURE_PCAP));

    // A capture with a time: stopped after it, capture.pcap left; an old capture.pcap makes the start empty
    // the directory first.
    zqlab::write_file(ZQ_CAPTURE_PCAP, "old");
    auto timed = request(0, 100, "lo");
    timed.catch_time = 1;
    EXPECT_EQ(zq_get_tcpdump_file(timed), 0);
    EXPECT_FALSE(tcpdump_runs());
    EXPECT_FALSE(zqlab::file_exists(ZQ_CAPTURE_TAR));
    EXPECT_TRUE(zqlab::file_exists(ZQ_CAPTURE_PCAP));
}

TEST_F(Capture, PackingTheRotatedFiles) {
    zqlab::run("mkdir -p /tmp/capture_file");
    zqlab::write_file("/tmp/capture_file/capture.pcap0", std::string(3000000, 'a'));
    zqlab::write_file("/tmp/capture_file/capture.pcap1", std::string(1000, 'b'));
    EXPECT_GT(packet_capture_file(), 3000000);
    EXPECT_EQ(zqlab::run("tar -tvf /tmp/capture_file/capture.tar | awk '{print $3, $6}'"),
              "1000 capture1.pcap\n3000000 capture0.pcap\n");
    EXPECT_EQ(zqlab::run("ls /tmp/capture_file"), "capture.tar\n");

    zqlab::write_file("/tmp/capture_file/capture.pcap0", "x");
    EXPECT_GT(packet_capture_file(), 0);
    EXPECT_EQ(zqlab::run("tar -tf /tmp/capture_file/capture.tar"), "capture0.pcap\n");

    zqlab::write_file("/tmp/capture_file/capture.pcap1", "x");
    log_of([] { EXPECT_EQ(packet_capture_file(), -1); });
    EXPECT_FALSE(zqlab::file_exists(ZQ_CAPTURE_TAR));
}

// Hostile text for the decoded capture's search and decode filter: none runs. (Requests and the manager's
// capture interface: tests/injection.)
TEST_F(Capture, OutsideTextNeverReachesTheShell) {
    const std::string touch = "touch /tmp/canary";
    const std::string payloads[] = {";" + touch, "$(" + touch + ")", "`" + touch + "`",          "|" + touch,
                                    "&" + touch, "\n" + touch,       "-z /bin/sh -w /tmp/canary"};
    zqlab::write_file(ZQ_CAPTURE_PCAP, "x"); // a capture to decode
    for (const std::string &p : payloads) {
        EXPECT_EQ(grep_tcpdump_parse(("x\"" + p).c_str()), 0) << p;
        get_tcpdump_parse(("-tve 'icmp' " + p).c_str());
    }
    EXPECT_FALSE(zqlab::file_exists("/tmp/canary"));
    EXPECT_FALSE(zqlab::file_exists("/tmp/capture_file/capture_parse"));
}

int set_action(uint32_t action) {
    g_cap_exec.action = action;
    return capture_set();
}

TEST_F(Capture, RequestsThatDoNothing) {
    g_cap_exec.worker = 1;
    EXPECT_EQ(log_of([] { EXPECT_EQ(set_action(1), 0); }), "capture execution is busy\n");
    EXPECT_EQ(g_cap_exec.state, 0u);
    g_cap_exec.worker = 0;

    ASSERT_EQ(get_diag_permit(), 0);
    EXPECT_EQ(set_action(0), 0) << "stop while not capturing";
    EXPECT_EQ(is_diag_permit_holding(), 1);
    g_cap_exec.state = EXEC_DONE;
    log_of([] { EXPECT_EQ(set_action(1), -1); });
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    release_diag_permit();

    log_of([] { EXPECT_EQ(set_action(7), -1); });
    g_cap_exec.mode = 1;
    EXPECT_EQ(log_of([] { EXPECT_EQ(set_action(2), -1); }), "") << "rotate mode uploads by itself";
}

TEST_F(Capture, StartAndStopThroughTheBlock) {
    ASSERT_EQ(set_action(1), 0);
    EXPECT_NE(zqlab::run("ps").find("tcpdump -v -i any -c 5000"), std::string::npos);
    EXPECT_EQ(capture_abnormal_get(), 0) << "the watchdog reports a death while tcpdump runs";
    EXPECT_EQ(set_action(1), -1) << "already running";
    EXPECT_EQ(set_action(2), -1) << "upload while capturing";
    EXPECT_EQ(g_cap_exec.state, EXEC_RUNNING);
    // The stop's packing and release: PermitHolder.StopAfterTheCaptureEnded (tests/e2e).
    EXPECT_EQ(set_action(0), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    EXPECT_FALSE(tcpdump_runs());
}

} // namespace
