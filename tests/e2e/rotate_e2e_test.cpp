// Rotate mode end to end, through the shipped library's C ABI: the real
// tcpdump rolls its files over, and every finished file must arrive on the
// lab's FTP server as cap_N.pcap, readable, without the upload traffic.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

#include "lab/zqlab.hpp"
#include "tests/e2e/capture_support.hpp"
#include "zq_diag.h"

namespace {

constexpr const char *FTP_DIR = "/run/zqlab/isp/ftp/upload/";

bool wait_until(const std::function<bool()> &done, int seconds) {
    for (int i = 0; i < seconds * 50; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
}

bool on_server(const std::string &name) { return zqlab::file_exists(std::string(FTP_DIR) + name); }

// Big echo requests to the WAN's gateway: each one crosses nas0_0 twice
// with some 8 kB, so 150 of them fill about 2.4 MB of capture.
void make_traffic(int pings) {
    zqlab::run("ping -q -c " + std::to_string(pings) + " -s 8000 -i 0.01 192.0.2.1 >/dev/null 2>&1");
}

TEST(RotateEndToEnd, EveryFinishedFileArrivesAsAValidCaptureInOrder) {
    zqlab::set("tcpdump.max_size", "1");
    ASSERT_EQ(e2e::start_capture(1), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_RUNNING);
    EXPECT_EQ(is_diag_permit_holding(), 1);
    ASSERT_TRUE(wait_until([] { return on_server("transport_test"); }, 10));
    EXPECT_EQ(zqlab::read_file(std::string(FTP_DIR) + "transport_test"),
              std::string("Transport test!\0", 16));

    make_traffic(150);
    ASSERT_TRUE(wait_until([] { return on_server("cap_1.pcap"); }, 20))
        << zqlab::run(std::string("ls -l ") + FTP_DIR);

    // The stop packs what is left into capture.tar, and the file that the
    // stop closed goes to the server too.
    const int watch_fd = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(watch_fd, "/tmp/capture_file", IN_CLOSE_WRITE), 0);
    g_cap_exec.action = 0;
    ASSERT_EQ(capture_set(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    bool packed = false;
    char events[4096];
    for (ssize_t n; (n = read(watch_fd, events, sizeof(events))) > 0;)
        for (ssize_t at = 0; at < n;) {
            const auto *event = reinterpret_cast<const inotify_event *>(events + at);
            if (event->len && std::string(event->name) == "capture.tar") packed = true;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    close(watch_fd);
    EXPECT_TRUE(packed);
    ASSERT_TRUE(wait_until(e2e::rotate_chain_ended, 30));

    // cap_0.pcap, cap_1.pcap, ... without a gap, in the order they were sent.
    const std::string server_log = zqlab::read_file("/run/zqlab/isp/ftp.log");
    size_t last_at = 0;
    int files = 0;
    for (;; ++files) {
        const std::string name = "cap_" + std::to_string(files) + ".pcap";
        if (!on_server(name)) break;
        const std::string path = std::string(FTP_DIR) + name;
        EXPECT_EQ(zqlab::run_status("tcpdump -r " + path + " -c 1 >/dev/null 2>&1"), 0) << name;
        const std::string packets = zqlab::run("tcpdump -n -r " + path + " 2>/dev/null");
        EXPECT_NE(packets.find("192.0.2.1: ICMP echo"), std::string::npos) << name;
        EXPECT_EQ(packets.find("203.0.113.21"), std::string::npos) << name << " holds upload traffic";
        const size_t at = server_log.find("OK UPLOAD: Client \"192.0.2.10\", \"/upload/" + name + "\"");
        ASSERT_NE(at, std::string::npos) << name;
        EXPECT_GT(at, last_at) << name << " was stored out of order";
        last_at = at;
    }
    EXPECT_GE(files, 2);
    EXPECT_GE(zqlab::read_file(std::string(FTP_DIR) + "cap_0.pcap").size(), 1000000u)
        << "a file rolls over at 1 MB";

    // The end cleans up after itself.
    EXPECT_EQ(zqlab::pids("tcpdump").size(), 0u);
    EXPECT_EQ(zqlab::run("ls /tmp/capture_file"), "");
    EXPECT_EQ(zqlab::run("ip route show 203.0.113.21"), "");
}

TEST(RotateEndToEnd, UnreachableServerEndsTheChainAndGivesThePermitBack) {
    zqlab::scenario("upload-server-down");
    testing::internal::CaptureStdout();
    ASSERT_EQ(e2e::start_capture(1), 0);
    const bool ended =
        wait_until([] { return __atomic_load_n(&g_cap_exec.state, __ATOMIC_ACQUIRE) == EXEC_IDLE; }, 20);
    ASSERT_TRUE(wait_until(e2e::rotate_chain_ended, 30));
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(ended);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_EQ(zqlab::pids("tcpdump").size(), 0u);
    EXPECT_EQ(log.find("upload [capture"), std::string::npos) << "no capture file was sent";
    EXPECT_EQ(zqlab::run("ls /tmp/capture_file"), "");
}

} // namespace
