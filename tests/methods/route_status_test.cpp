// route_status: busybox route -n read from the lab gateway's kernel table,
// compared with WAN records stored by hand.
#include "tests/methods/wan_fixture.hpp"

#include "methods/methods.h"

using namespace zq;

namespace {

const char *const TITLE = "Kernel IP routing table\n"
                          "Destination     Gateway         Genmask         Flags Metric Ref    Use Iface\n";

std::string route_line(const std::string &destination, const std::string &mask) {
    return destination + "     0.0.0.0         " + mask + "   U     0      0        0 nas0_0\n";
}

TEST(RouteParser, KeepsDestinationsAndMasksOfAtMost31Routes) {
    route_table t{};
    parse_route_table(TITLE, t);
    EXPECT_EQ(t.count, 0);
    parse_route_table("", t);
    EXPECT_EQ(t.count, 0);

    std::string text = TITLE;
    for (int i = 0; i < 40; ++i) text += route_line("10.0." + std::to_string(i) + ".0", "255.255.255.0");
    t = {};
    parse_route_table(text, t);
    EXPECT_EQ(t.count, 31);
    EXPECT_STREQ(t.destinations[30], "10.0.30.0");
    EXPECT_STREQ(t.destinations[31], "10.0.39.0") << "later routes overwrite the last slot";
    EXPECT_STREQ(t.masks[31], "255.255.255.0");

    // Blank lines vanish; a broadcast route is skipped like the header, and
    // so is a line whose destination and mask do not convert; a token longer
    // than 15 characters is cut and its rest read as the next token.
    t = {};
    parse_route_table(std::string(TITLE) + "\n\n" + route_line("255.255.255.255", "255.255.255.255") +
                          "0123456789abcdefXYZ 255.255.0.0\n" + "\t192.168.1.0\t0.0.0.0\t255.255.255.0\n" +
                          "lonely\n",
                      t);
    ASSERT_EQ(t.count, 2);
    EXPECT_STREQ(t.destinations[0], "0123456789abcde");
    EXPECT_STREQ(t.masks[0], "255.255.0.0") << "the rest of the long token was read as the gateway";
    EXPECT_STREQ(t.destinations[1], "192.168.1.0");
    EXPECT_STREQ(t.masks[1], "255.255.255.0");
}

class RouteStatus : public WanMethod {
  protected:
    static uint32_t diagnose(uint32_t result = 0) {
        EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_DIAG, zq_args(nullptr, 0, &result, 4)), 0);
        return result;
    }
    static void route(const std::string &args) {
        ASSERT_EQ(zqlab::run_status("ip route " + args), 0) << args;
    }
};

TEST_F(RouteStatus, TheKernelTableDecidesEachRoutedIpv4Wan) {
    // The lab's table: 192.0.2.0/24 and a default route, which matches every
    // gateway.
    store(wan("A", "route-dhcp", "IPv4", "INTERNET", "192.0.2.10", "192.0.2.1"));
    store(wan("B", "route-static", "IPv4", "VOIP", "10.9.9.10", "10.9.9.1"));
    EXPECT_EQ(diagnose(), 0u);
    EXPECT_EQ(findings(), "[normal ]Route of A is normal\n[normal ]Route of B is normal\n");
    EXPECT_TRUE(
        has(zqlab::read_file("/tmp/diag_file/cmd_log"), "cmd: [route -n]\nKernel IP routing table\n"));

    // Without the default route: once one WAN lacks its route, every later
    // one of the pass is marked too. A WAN without address is missing but
    // leaves the result word alone; other WANs get nothing.
    route("del default");
    reset();
    store(wan("A", "route-dhcp", "IPv4", "INTERNET", "192.0.2.10", "192.0.2.1"));
    store(wan("B", "route-static", "IPv4", "VOIP", "10.9.9.10", "10.9.9.1"));
    store(wan("C", "route-dhcp", "IPv4_IPv6", "OTHER", "192.0.2.11", "192.0.2.254"));
    store(wan("D", "route-pppoe", "IPv4", "INTERNET", "", ""));
    store(wan("E", "route-dhcp", "IPv6", "INTERNET", "", ""));
    store(wan("F", "bridge", "IPv4", "IPTV", "", ""));
    EXPECT_EQ(diagnose(), 1u);
    EXPECT_EQ(findings(), "[normal ]Route of A is normal\n"
                          "[error  ]Route of B is missing\n"
                          "[normal ]Route of C is normal\n"
                          "[error  ]Route of D is missing\n");
    std::vector<uint32_t> states;
    for (const zqSD_wan_diag &w : wan_records()) states.push_back(w.route_state);
    EXPECT_EQ(states, (std::vector<uint32_t>{0, 1, 1, 1, 0, 0}));

    reset();
    store(wan("D", "route-pppoe", "IPv4", "INTERNET", "192.0.2.10", ""));
    EXPECT_EQ(diagnose(), 0u) << "a WAN without gateway does not set the result word";
    EXPECT_EQ(wan_records().at(0).route_state, 1u);

    // Only the title and header: no route at all.
    route("flush table main");
    reset();
    store(wan("A", "route-dhcp", "IPv4", "INTERNET", "192.0.2.10", "192.0.2.1"));
    EXPECT_EQ(diagnose(), 1u);
    EXPECT_EQ(findings(), "[error  ]Route of A is missing\n");
}

TEST_F(RouteStatus, PolicyRoutesAreNotInTheMainTable) {
    zqlab::set("net.0.routes", "policy");
    store(wan("A", "route-dhcp", "IPv4", "INTERNET", "192.0.2.10", "192.0.2.1"));
    EXPECT_EQ(diagnose(), 1u);
    EXPECT_EQ(findings(), "[error  ]Route of A is missing\n");
}

TEST_F(RouteStatus, StructGetterNeedsRoomForTheTable) {
    route_table table{};
    ASSERT_EQ(zq_get_sys_diag("route_status", ACTION_STRUCT, zq_args(nullptr, 0, &table, sizeof(table))), 0);
    ASSERT_EQ(table.count, 2);
    EXPECT_STREQ(table.destinations[0], "0.0.0.0");
    EXPECT_STREQ(table.destinations[1], "192.0.2.0");
    EXPECT_STREQ(table.masks[1], "255.255.255.0");
    // The validator lets any struct request pass; the getter refuses a
    // block that cannot hold the table.
    char small[16];
    memset(small, 'x', sizeof(small));
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_STRUCT, zq_args(nullptr, 0, small, sizeof(small))), -5);
    EXPECT_EQ(small[0], 'x');
    uint32_t word = 0;
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_DIAG, zq_args(nullptr, 0, &word, 8)), -4);
}

} // namespace
