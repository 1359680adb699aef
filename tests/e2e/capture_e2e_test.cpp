// A capture filter with parentheses, as an operator types it, through the
// shipped library's C ABI: the real tcpdump's capture holds the WAN's DHCP
// exchange and none of the other traffic.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace {

constexpr const char *PCAP = "/tmp/capture_file/capture.pcap";
constexpr const char *CLIENT_PID = "/run/zqlab/wan/0.pid";

std::vector<std::string> tcpdump_argv() {
    const std::vector<int> pids = zqlab::pids("tcpdump");
    if (pids.size() != 1) return {};
    const std::string cmdline = zqlab::read_file("/proc/" + std::to_string(pids[0]) + "/cmdline");
    std::vector<std::string> argv;
    for (size_t at = 0, end; (end = cmdline.find('\0', at)) != std::string::npos; at = end + 1)
        argv.push_back(cmdline.substr(at, end - at));
    return argv;
}

// Restarts the WAN's DHCP client and waits until it has ended (it quits
// once it holds a lease, or after its three Discovers).
void run_dhcp_client() {
    zqlab::run("diagM restart_wan");
    const std::string pid = zqlab::read_file(CLIENT_PID);
    ASSERT_FALSE(pid.empty());
    for (int i = 0; i < 1000 && zqlab::file_exists("/proc/" + std::to_string(std::stoi(pid))); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

TEST(CaptureEndToEnd, FilterWithParenthesesCapturesWhatItSays) {
    for (const char *filter : {"udp and (port 67 or port 68)", "'udp and (port 67 or port 68)'"}) {
        SCOPED_TRACE(filter);
        tcpdump_req req{}; // mode 0: a single file
        req.catch_count = 5000;
        snprintf(req.interface, sizeof(req.interface), "any");
        snprintf(req.filter, sizeof(req.filter), "%s", filter);
        ASSERT_EQ(zq_get_tcpdump_file(req), 0);
        EXPECT_EQ(tcpdump_argv(),
                  (std::vector<std::string>{"tcpdump", "-v", "-i", "any", "udp and (port 67 or port 68)",
                                            "-c", "5000", "-w", PCAP}));
        zqlab::run("ping -q -c 3 -i 0.05 127.0.0.1 >/dev/null 2>&1");
        run_dhcp_client();
        // tcpdump hands packets over a second after they came in at the latest.
        zqlab::run("sleep 1.5");
        EXPECT_EQ(stop_tcpdump_catch(), 0);
        EXPECT_TRUE(zqlab::pids("tcpdump").empty());

        const std::string packets = zqlab::run(std::string("tcpdump -n -r ") + PCAP + " 2>/dev/null");
        EXPECT_NE(packets.find("0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP, Request"), std::string::npos)
            << packets;
        EXPECT_NE(packets.find(".67 > "), std::string::npos) << "no answer of the ISP's server\n" << packets;
        // Every packet is one of the DHCP exchange (the pings are not).
        size_t lines = 0;
        for (size_t at = 0, end; (end = packets.find('\n', at)) != std::string::npos; at = end + 1, ++lines)
            EXPECT_NE(packets.substr(at, end - at).find("BOOTP/DHCP"), std::string::npos)
                << packets.substr(at, end - at);
        EXPECT_GE(lines, 2u);
    }
}

} // namespace
