#include <gtest/gtest.h>

#include <string>

#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "tests/methods/method_support.hpp"

using namespace zq;

namespace {

using method_test::records;
using method_test::run_step;
using method_test::store_wan;

// ---- One configuration line, no gateway needed ----------------------------------

zqSD_dhcp_diag parsed(std::initializer_list<const char *> lines) {
    zqSD_dhcp_diag block{};
    for (const char *line : lines) parse_udhcpd_conf_line(line, block);
    return block;
}

TEST(DhcpConfigParser, EachKeywordFillsItsField) {
    const zqSD_dhcp_diag b =
        parsed({"interface br0\n", "server 192.168.1.1\n", "start 192.168.1.2\n", "end 192.168.1.254\n",
                "opt subnet 255.255.255.0\n", "opt router 192.168.1.1\n", "opt\tdns   192.168.1.1\n",
                "opt lease 86400\n"});
    EXPECT_STREQ(b.interface, "br0");
    EXPECT_STREQ(b.ip_addr, "192.168.1.1");
    EXPECT_STREQ(b.pool_addr_start, "192.168.1.2");
    EXPECT_STREQ(b.pool_addr_end, "192.168.1.254");
    EXPECT_STREQ(b.subnet, "255.255.255.0");
    EXPECT_STREQ(b.gateway, "192.168.1.1");
    EXPECT_STREQ(b.dns, "192.168.1.1");
    EXPECT_STREQ(b.secondary_dns, "");
}

TEST(DhcpConfigParser, OnlyLinesThatStartWithTheirKeywordCount) {
    // The first keyword found anywhere picks the line's format, which must
    // then match from the start.
    const zqSD_dhcp_diag b =
        parsed({"# the server hands out addresses from start to end\n", " interface br1\n",
                "opt domain home.subnet\n", "opt dns-search end.example\n"});
    EXPECT_STREQ(b.ip_addr, "") << "'server' is tested before 'start' and 'end'";
    EXPECT_STREQ(b.interface, "") << "no blank may come first";
    EXPECT_STREQ(b.subnet, "");
    EXPECT_STREQ(b.pool_addr_end, "") << "'end' comes before 'dns' in the keyword order";
    EXPECT_STREQ(b.dns, "");
    EXPECT_STREQ(parsed({"servers 10.0.0.1\n"}).ip_addr, "s") << "as \"server %s\" reads it";
}

TEST(DhcpConfigParser, ValuesAreCutAtTheirFieldsAndDnsTakesTwo) {
    const zqSD_dhcp_diag b = parsed({"interface br0.lan-bridge-number-0001\n", "opt dns 192.168.1.1\n",
                                     "opt dns 2001:db8:1234:5678::53\n", "opt dns 198.51.100.54\n"});
    EXPECT_STREQ(b.interface, "br0.lan-bridge-");
    EXPECT_STREQ(b.dns, "192.168.1.1");
    EXPECT_STREQ(b.secondary_dns, "2001:db8:1234:5") << "a third server is ignored";
    EXPECT_EQ(b.reserved_tail[0], 0);
}

TEST(DhcpConfigParser, PoolMustLieInTheServersSubnet) {
    auto block = [](const char *server, const char *start, const char *end, const char *mask) {
        zqSD_dhcp_diag b{};
        zq::copy(b.ip_addr, server);
        zq::copy(b.pool_addr_start, start);
        zq::copy(b.pool_addr_end, end);
        zq::copy(b.subnet, mask);
        return b;
    };
    EXPECT_EQ(dhcp_pool_check(block("192.168.1.1", "192.168.1.2", "192.168.1.254", "255.255.255.0")), 0);
    EXPECT_EQ(dhcp_pool_check(block("192.168.1.1", "192.168.2.2", "192.168.2.254", "255.255.255.0")), -1);
    EXPECT_EQ(dhcp_pool_check(block("192.168.1.1", "192.168.1.2", "192.168.2.254", "255.255.255.0")), -1);
    EXPECT_EQ(dhcp_pool_check(block("192.168.1.1", "192.168.2.2", "192.168.2.254", "255.255.0.0")), 0);
    EXPECT_EQ(dhcp_pool_check(block("0.0.0.0", "0.0.0.1", "0.0.0.2", "255.255.255.0")), -1);
    EXPECT_EQ(dhcp_pool_check(block("", "", "", "")), 0) << "unreadable texts all read as 255.255.255.255";
}

TEST(DhcpConfigParser, CopyLastWord) {
    char path[48];
    copy_last_word(path, sizeof(path), "/bin/udhcpd -S /var/udhcpd/udhcpd.conf");
    EXPECT_STREQ(path, "/var/udhcpd/udhcpd.conf");
    copy_last_word(path, sizeof(path), "word");
    EXPECT_STREQ(path, "word");
    copy_last_word(path, sizeof(path), "trailing ");
    EXPECT_STREQ(path, "");
    char small[4];
    copy_last_word(small, sizeof(small), "a abcdef");
    EXPECT_STREQ(small, "abc");
}

// ---- The method in the lab ---------------------------------------------------------

constexpr const char *CONF_PATH = "/var/udhcpd/udhcpd.conf";
constexpr const char *NORMAL = "[normal ]The lan configuration diagnosis is normal\n";

class DhcpConfig : public ::testing::Test {
  protected:
    void SetUp() override { clear_diag_chain(); }

    static zqSD_dhcp_diag record() { return method_test::only_record<zqSD_dhcp_diag>(); }
    static std::string diagnose() { return run_step("dhcp_config", ACTION_DIAG).findings; }
    static void conf(const std::string &server, const std::string &pool, const std::string &router) {
        zqlab::write_file(CONF_PATH, "interface br0\nserver " + server + "\nstart " + pool + ".2\nend " +
                                         pool + ".254\nopt subnet 255.255.255.0\nopt router " + router +
                                         "\n");
    }
    static void dhcps_disable(const std::string &rules) {
        zqlab::set("ebtables",
                   "Bridge table: filter\n\nBridge chain: dhcps_disable, entries: 2, policy: RETURN\n" +
                       rules + "\n");
    }
};

TEST_F(DhcpConfig, HealthyServer) {
    zqSD_dhcp_diag block{};
    ASSERT_EQ(zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, &block, 130)), 0);
    EXPECT_EQ(block.server_running, 1u);
    EXPECT_STREQ(block.interface, "br0");
    EXPECT_STREQ(block.secondary_dns, "");
    EXPECT_EQ(diagnose(), NORMAL);
    const zqSD_dhcp_diag r = record();
    EXPECT_EQ(r.fault_flags, 0u);
    EXPECT_EQ(r.lan_dhcp_disabled, 0u);
    EXPECT_STREQ(r.pool_addr_end, "192.168.1.254");
    EXPECT_EQ(run_step("dhcp_config", ACTION_FIX).rc, 0) << "nothing to repair in a configuration";
}

// A server address of 0.0.0.0 fails the pool check whatever the pool; both
// findings may stand together.
TEST_F(DhcpConfig, ServerAddressZeroAndBothFaults) {
    const std::string pool_finding =
        "[error  ]The address pool network segment is inconsistent with the ONU LAN network segment\n";
    conf("0.0.0.0", "192.168.1", "0.0.0.0");
    EXPECT_EQ(diagnose(), pool_finding);
    EXPECT_EQ(record().fault_flags, 2u);
    conf("0.0.0.0", "192.168.2", "192.168.1.1");
    EXPECT_EQ(diagnose(), pool_finding + "[error  ]The assigned gateway is different from the IP address\n");
    EXPECT_EQ(record().fault_flags, 6u);
}

// A running server whose configuration cannot be read: nothing to judge.
TEST_F(DhcpConfig, MissingConfigurationFile) {
    zqlab::run("rm -f /var/udhcpd/udhcpd.conf");
    zqSD_dhcp_diag block{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, &block, 130)), -5);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("] create fd fail!"), std::string::npos);
    EXPECT_EQ(block.server_running, 1u);
    EXPECT_EQ(diagnose(), NORMAL);
}

TEST_F(DhcpConfig, RoutedWansSwitchLanDhcpOff) {
    store_wan("route-dhcp", 1, 0x211, "1_INTERNET_R_VID_100");
    store_wan("bridge", 1, 0x0f, "2_IPTV_B_VID_200");
    store_wan("route-static", 0, 0x0f, "3_VOIP_R_VID_300");
    store_wan("route-pppoe", 1, 0x1000 | 0xc000, "4_OTHER_R_VID_400");
    dhcps_disable("-p IPv4 -i eth0.2 --ip-proto udp --ip-dport 67 -j DROP\n");
    EXPECT_EQ(diagnose(), "[warn   ][1_INTERNET_R_VID_100] disable LAN DHCP:\n"
                          "[warn   ]\tLAN1 is disable\n"
                          "[warn   ]\tWLAN(AP0_5G) is disable\n"
                          "[warn   ]\tWLAN(AP0_2.4G) is disable\n"
                          "[warn   ][4_OTHER_R_VID_400] disable LAN DHCP:\n"
                          "[warn   ]\tWLAN(AP3_2.4G) is disable\n");
    const zqSD_dhcp_diag r = record();
    EXPECT_EQ(r.lan_dhcp_disabled, 0x1211u) << "bits above 13 are no interface";
    EXPECT_EQ(r.fault_flags, 0u);
}

TEST_F(DhcpConfig, WithoutAnInputInterfaceRuleNoWanIsRead) {
    store_wan("route-dhcp", 1, 0x211, "1_INTERNET_R_VID_100");
    EXPECT_EQ(diagnose(), NORMAL) << "an empty chain";
    dhcps_disable("-p IPv4 -o nas0_0 -j DROP\n");
    EXPECT_EQ(diagnose(), NORMAL) << "a rule for output only";
    zqlab::unset("ebtables");
    testing::internal::CaptureStdout();
    EXPECT_EQ(diagnose(), NORMAL) << "no chain at all";
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("list record fail"), std::string::npos);
    EXPECT_EQ(record().lan_dhcp_disabled, 0u);
}

} // namespace
