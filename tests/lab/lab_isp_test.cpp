// The lab's WAN side: the gateway's WAN links, the ISP namespace behind
// them, and the proof that nothing leaves the lab. Each case starts in a
// fresh healthy-gpon lab.
#include "zqlab.hpp"

#include <gtest/gtest.h>
#include <sstream>

namespace {

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

bool has(const std::string &text, const std::string &needle) {
    return text.find(needle) != std::string::npos;
}

// The names of a namespace's interfaces, sorted, one a line.
const std::string LINK_NAMES = "ip -o link | cut -d: -f2 | cut -d@ -f1 | tr -d ' ' | sort";

} // namespace

// The lab's two network namespaces know only each other: every link but
// loopback is a veth whose peer lies in the other one, the ISP side has no
// default route and does not forward. No packet has a way out.
TEST(Isp, NothingCanLeaveTheLab) {
    zqlab::scenario("bridge-wan");
    EXPECT_EQ(zqlab::run(LINK_NAMES), "lo\nnas0_0\nnas0_1\n");
    EXPECT_EQ(zqlab::isp_run(LINK_NAMES), "lo\nwan0\nwan1\n");
    for (const auto &[text, peer] :
         {std::pair{zqlab::run("ip -o -d link"), std::string("link-netns isp ")},
          std::pair{zqlab::isp_run("ip -o -d link"), std::string("link-netnsid 0 ")}}) {
        for (const std::string &l : lines(text)) {
            if (has(l, "LOOPBACK")) continue;
            EXPECT_TRUE(has(l, " veth ")) << l;
            EXPECT_TRUE(has(l, peer)) << l;
        }
    }
    // Each namespace has an id for one other namespace only: a link to the
    // host's would give the host's namespace one too.
    EXPECT_EQ(lines(zqlab::run("ip netns list-id")).size(), 1u);
    EXPECT_EQ(zqlab::isp_run("ip netns list-id"), "nsid 0 \n");
    EXPECT_EQ(zqlab::isp_run("ip route show default; ip -6 route show default"), "");
    EXPECT_EQ(zqlab::isp_run("cat /proc/sys/net/ipv4/ip_forward /proc/sys/net/ipv6/conf/all/forwarding"),
              "0\n0\n");
    for (const std::string &l : lines(zqlab::run("ip route show table all")))
        EXPECT_TRUE(has(l, " dev nas0_") || has(l, " dev lo ") || has(l, "unreachable")) << l;
    // An address that no lab host holds is not answered.
    EXPECT_TRUE(has(zqlab::run("ping -4 203.0.113.7 -c 1 -W 1 -I 192.0.2.10"), "0 packets received"));
}

// diagM may report anything: what is not an address or an interface name
// never reaches a command, and the lab still comes up.
TEST(Isp, MalformedWanValuesNeverReachACommand) {
    for (const std::string p : {"192.0.2.10; touch /tmp/pwned", "$(touch /tmp/pwned)", "`touch /tmp/pwned`",
                                "-a", "nas0_0 up; touch /tmp/pwned", "192.0.2.300", "1.2.3"}) {
        for (const char *key :
             {"wan.0.v4_ip", "wan.0.v4_gateway", "wan.0.v4_master_dns", "wan.0.v4_slave_dns"})
            zqlab::set(key, p);
        EXPECT_EQ(zqlab::run("ip -o addr show nas0_0 | grep -c 'inet '"), "0\n") << p;
        EXPECT_EQ(zqlab::isp_run("ip -o addr | grep -c 'inet '"), "4\n")
            << p << ": loopback and the root servers";
        if (has(p, " ") || p[0] == '-' || p[0] == '$' || p[0] == '`') {
            zqlab::set("wan.0.nas_interface", p);
            EXPECT_EQ(zqlab::run(LINK_NAMES), "lo\n") << p;
            zqlab::set("wan.0.nas_interface", "nas0_0");
        }
    }
    EXPECT_FALSE(zqlab::file_exists("/tmp/pwned"));
}
