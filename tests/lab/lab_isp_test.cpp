// The lab's WAN side: the gateway's WAN links, the ISP namespace behind
// them with its gateways, root servers and name server, the ping
// impairments, and the proof that nothing leaves the lab. Each case starts
// in a fresh healthy-gpon lab.
#include "zqlab.hpp"

#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace {

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

bool has(const std::string &text, const std::string &needle) {
    return text.find(needle) != std::string::npos;
}

// The interface names of `ip -o link` output ("2: nas0_0@if2: ...").
std::set<std::string> interfaces(const std::string &ip_o_link) {
    std::set<std::string> out;
    for (const std::string &l : lines(ip_o_link)) {
        std::vector<std::string> w = words(l);
        if (w.size() < 2) continue;
        std::string name = w[1].substr(0, w[1].find_first_of("@:"));
        out.insert(name);
    }
    return out;
}

// busybox ping from the WAN address; the statistics lines only.
std::string ping(const std::string &host, const std::string &opts = "-c 1 -W 1") {
    return zqlab::run("ping -4 " + host + " " + opts + " -I 192.0.2.10 | grep transmit -A 1");
}

} // namespace

// The lab's two network namespaces know only each other: every link but
// loopback is a veth whose peer lies in the other one, the ISP side has no
// default route and does not forward. No packet has a way out.
TEST(Isp, NothingCanLeaveTheLab) {
    zqlab::scenario("bridge-wan");
    const std::string gw_links = zqlab::run("ip -o -d link");
    const std::string isp_links = zqlab::isp_run("ip -o -d link");
    EXPECT_EQ(interfaces(gw_links), (std::set<std::string>{"lo", "nas0_0", "nas0_1"}));
    EXPECT_EQ(interfaces(isp_links), (std::set<std::string>{"lo", "wan0", "wan1"}));
    for (const auto &[text, peer] : {std::pair{gw_links, std::string("link-netns isp ")},
                                     std::pair{isp_links, std::string("link-netnsid 0 ")}}) {
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
    EXPECT_TRUE(has(ping("203.0.113.7"), "0 packets received"));
}

// diagM may report anything: what is not an address or an interface name
// never reaches a command, and the lab still comes up.
TEST(Isp, MalformedWanValuesNeverReachACommand) {
    const std::string payloads[] = {"192.0.2.10; touch /tmp/pwned",
                                    "$(touch /tmp/pwned)",
                                    "`touch /tmp/pwned`",
                                    "-a",
                                    "nas0_0 up; touch /tmp/pwned",
                                    "192.0.2.300",
                                    "1.2.3"};
    for (const std::string &p : payloads) {
        zqlab::set("wan.0.v4_ip", p);
        zqlab::set("wan.0.v4_gateway", p);
        zqlab::set("wan.0.v4_master_dns", p);
        zqlab::set("wan.0.v4_slave_dns", p);
        EXPECT_EQ(zqlab::run("ip -o addr show nas0_0 | grep -c 'inet '"), "0\n") << p;
        EXPECT_EQ(zqlab::isp_run("ip -o addr | grep -c 'inet '"), "4\n")
            << p << ": loopback and the root servers";
        if (p.find(' ') != std::string::npos || p[0] == '-' || p[0] == '$' || p[0] == '`') {
            zqlab::set("wan.0.nas_interface", p);
            EXPECT_EQ(interfaces(zqlab::run("ip -o link")), (std::set<std::string>{"lo"})) << p;
            zqlab::set("wan.0.nas_interface", "nas0_0");
        }
    }
    EXPECT_FALSE(zqlab::file_exists("/tmp/pwned"));
}
