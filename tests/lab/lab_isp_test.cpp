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

// The round-trip times of the reply lines ("time=10.655 ms"), whole ms.
std::vector<int> reply_times(const std::string &out) {
    std::vector<int> ms;
    for (size_t p = out.find("time="); p != std::string::npos; p = out.find("time=", p + 1))
        ms.push_back(std::atoi(out.c_str() + p + 5));
    return ms;
}

} // namespace

TEST(Isp, TheHealthyGatewayReachesItsGatewayTheRootServersAndNames) {
    EXPECT_EQ(interfaces(zqlab::run("ip -o link")), (std::set<std::string>{"lo", "nas0_0"}));
    EXPECT_TRUE(has(zqlab::run("ip -o addr show nas0_0"), "inet 192.0.2.10/24"));

    // busybox route reads the kernel's table: the subnet of the WAN and the
    // default route through its gateway.
    std::set<std::vector<std::string>> routes;
    for (const std::string &l : lines(zqlab::run("route -n"))) {
        std::vector<std::string> w = words(l);
        if (w.size() == 8) routes.insert({w[0], w[1], w[2], w[7]});
    }
    EXPECT_TRUE(routes.count({"0.0.0.0", "192.0.2.1", "0.0.0.0", "nas0_0"}));
    EXPECT_TRUE(routes.count({"192.0.2.0", "0.0.0.0", "255.255.255.0", "nas0_0"}));

    for (const char *host : {"192.0.2.1", "192.5.5.241", "192.36.148.17", "192.203.230.10"})
        EXPECT_TRUE(has(ping(host), "1 packets received")) << host;

    // A real lookup: busybox nslookup, the gateway's dnsmasq on 127.0.0.1,
    // the ISP's name server, which logs the query from the WAN address.
    EXPECT_EQ(zqlab::run("nslookup www.example.com | grep www.example.com -A 1 | grep Address"),
              "Address: 203.0.113.80\n");
    EXPECT_TRUE(
        has(zqlab::isp_run("cat /run/zqlab/isp/dns.log"), "query[A] www.example.com from 192.0.2.10"));
    std::vector<int> forwarder = zqlab::pids("dnsmasq");
    ASSERT_EQ(forwarder.size(), 1u) << "the ISP's name server is not one of the gateway's processes";
    EXPECT_EQ(zqlab::run("readlink /proc/" + std::to_string(forwarder[0]) + "/exe"), "/usr/sbin/dnsmasq\n");
    EXPECT_EQ(zqlab::isp_run("ip -o addr show wan0 | grep -c 'inet 192.0.2.1/24'"), "1\n");
}

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

TEST(Isp, PingImpairmentsAreDeterministic) {
    // Replies after the listed delays, from the userspace responder; the
    // kernel's own echo replies are off while it runs.
    zqlab::set("isp.ping.192.0.2.1", "delay 10 50 80 20 30");
    std::string out = zqlab::run("ping -4 192.0.2.1 -c 5 -i 0.2 -W 1 -I 192.0.2.10");
    std::vector<int> ms = reply_times(out);
    ASSERT_EQ(ms.size(), 5u) << out;
    const int want[] = {10, 50, 80, 20, 30};
    for (size_t i = 0; i < 5; i++) {
        EXPECT_GE(ms[i], want[i]) << out;
        // A loaded machine adds scheduling delays, but never the next delay's worth.
        EXPECT_LT(ms[i], want[i] + 500) << out;
    }
    EXPECT_EQ(zqlab::isp_run("cat /proc/sys/net/ipv4/icmp_echo_ignore_all"), "1\n");
    // Other addresses are answered by the kernel, without the responder's
    // delays: far below the 800 ms that the responder would add.
    zqlab::set("isp.ping.192.0.2.1", "delay 800");
    std::vector<int> root = reply_times(zqlab::run("ping -4 192.5.5.241 -c 1 -W 2 -I 192.0.2.10"));
    ASSERT_EQ(root.size(), 1u) << "other addresses are answered";
    EXPECT_LT(root[0], 400) << "other addresses are answered without a delay";

    // Every second request dropped (the first of each pair), combined with
    // a delay.
    zqlab::set("isp.ping.192.0.2.1", "loss 2 delay 20");
    out = zqlab::run("ping -4 192.0.2.1 -c 4 -i 0.2 -W 1 -I 192.0.2.10");
    EXPECT_TRUE(has(out, "4 packets transmitted, 2 packets received, 50% packet loss")) << out;
    EXPECT_TRUE(has(out, "seq=1 ") && has(out, "seq=3 ") && !has(out, "seq=0 ")) << out;
    for (int t : reply_times(out)) EXPECT_GE(t, 20);

    // No answer at all; the responder is gone with its key, and the kernel
    // answers again.
    zqlab::set("isp.ping.192.0.2.1", "none");
    EXPECT_TRUE(has(ping("192.0.2.1"), "1 packets transmitted, 0 packets received, 100% packet loss"));
    EXPECT_TRUE(zqlab::pids("zqlab-echod").empty());
    EXPECT_EQ(zqlab::isp_run("cat /proc/sys/net/ipv4/icmp_echo_ignore_all"), "0\n");
    zqlab::unset("isp.ping.192.0.2.1");
    EXPECT_TRUE(has(ping("192.0.2.1"), "1 packets received"));
}

TEST(Isp, WanShapesFollowTheWanKeys) {
    // Dual stack: the IPv6 address, its gateway and default route.
    zqlab::set("wan.0.protocol", "IPv4/IPv6");
    zqlab::set("wan.0.v6_ip", "2001:db8:1::10");
    zqlab::set("wan.0.v6_gateway", "2001:db8:1::1");
    EXPECT_TRUE(has(zqlab::run("ip -6 route show default"), "default via 2001:db8:1::1 dev nas0_0"));
    EXPECT_TRUE(has(zqlab::run("ping -6 2001:db8:1::1 -c 1 -W 1 -I 2001:db8:1::10"), "1 packets received"));

    // Policy routes: the WAN works from its address, the main table (what
    // route -n shows) lacks its routes.
    zqlab::set("net.0.routes", "policy");
    EXPECT_EQ(zqlab::run("route -n | grep -c nas0_0"), "0\n");
    EXPECT_TRUE(has(ping("192.5.5.241"), "1 packets received"));
    EXPECT_EQ(zqlab::run("nslookup www.example.net | grep www.example.net -A 1 | grep Address"),
              "Address: 203.0.113.81\n")
        << "the forwarder's upstream sockets, bound to nas0_0, use the WAN's table";

    // A bridged WAN: a link without addresses. A second WAN naming the same
    // interface gets no second link.
    zqlab::scenario("bridge-wan");
    EXPECT_EQ(zqlab::run("ip -o addr show nas0_1 | grep -c 'inet '"), "0\n");
    zqlab::set("wan.1.nas_interface", "nas0_0");
    EXPECT_EQ(interfaces(zqlab::run("ip -o link")), (std::set<std::string>{"lo", "nas0_0"}));

    // iputils' ping for its output format; the firmware's timeout runs it.
    zqlab::set("ping", "iputils");
    EXPECT_TRUE(has(zqlab::run("timeout -t 10 ping -4 192.0.2.1 -c 1 -W 1 -I 192.0.2.10"),
                    "rtt min/avg/max/mdev = "));
    zqlab::set("ping", "busybox");
    EXPECT_TRUE(has(zqlab::run("timeout -t 10 ping -4 192.0.2.1 -c 1 -W 1 -I 192.0.2.10"),
                    "round-trip min/avg/max = "));
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

TEST(Isp, TheForwarderIsRealWithAnIdleStandIn) {
    auto exe_of_forwarder = [] {
        std::vector<int> ids = zqlab::pids("dnsmasq");
        return ids.size() == 1 ? zqlab::run("readlink /proc/" + std::to_string(ids[0]) + "/exe") : "";
    };
    EXPECT_EQ(exe_of_forwarder(), "/usr/sbin/dnsmasq\n");
    EXPECT_NE(zqlab::run_status("ZQLAB_NOJOURNAL=1 zqlab start dnsmasq 2>/dev/null"), 0)
        << "its port is taken";
    EXPECT_EQ(zqlab::pids("dnsmasq").size(), 1u);

    // Listed as broken, it fails to start, like every lab daemon.
    zqlab::stop("dnsmasq");
    zqlab::set("daemons.broken", "dnsmasq");
    EXPECT_TRUE(zqlab::pids("dnsmasq").empty());

    // A configuration the real one refuses: the idle daemon keeps the
    // process list as the scenario says.
    zqlab::write_file("/var/dnsmasq.conf", "no-such-option\n");
    zqlab::unset("daemons.broken");
    EXPECT_TRUE(has(exe_of_forwarder(), "/idle/dnsmasq")) << exe_of_forwarder();
    EXPECT_EQ(zqlab::run("nslookup www.example.com 2>&1 | grep -c 203.0.113.80"), "0\n");
}
