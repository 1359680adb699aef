// wan_status: the status block from the diagnosis manager, the verdicts
// from real pings of the WAN's gateway, the records and the findings.
#include "tests/methods/wan_fixture.hpp"

#include "methods/methods.h"

using namespace zq;

namespace {

class WanStatus : public WanMethod {
  protected:
    static zqSD_wan_diag block_of(uint32_t index) {
        zqSD_wan_diag block{};
        memset(&block, 0xee, sizeof(block));
        EXPECT_EQ(zq_get_sys_diag("wan_status", ACTION_STRUCT, zq_args(&index, 4, &block, WAN_BLOCK_SIZE)),
                  0);
        return block;
    }
    static void diagnose() { EXPECT_EQ(zq_get_sys_diag("wan_status", ACTION_DIAG, {}), 0); }
    static std::vector<std::string> queries() {
        std::vector<std::string> keys;
        for (const std::string &line : journal_of("diagM"))
            keys.push_back(line.substr(strlen("diagM get wan_info ")));
        return keys;
    }
};

TEST_F(WanStatus, BlockHoldsWhatTheManagerReportsInItsWidths) {
    zqlab::set("wan.0.vlan", "70000");    // cut to 16 bits
    zqlab::set("wan.0.nat_enable", "2x"); // atoi
    zqlab::set("wan.0.wan_name", std::string(60, 'n'));
    const zqSD_wan_diag b = block_of(0);
    EXPECT_EQ(queries(), (std::vector<std::string>{
                             "nas_interface 0", "wan_name 0", "protocol 0", "service_type 0", "type 0",
                             "nat_enable 0", "vlan_enable 0", "vlan 0", "disable_lan_dhcp 0", "itfGroup 0",
                             "v4_ip 0", "v4_gateway 0", "v4_master_dns 0", "v4_slave_dns 0"}));
    EXPECT_STREQ(b.nas_interface, "nas0_0");
    EXPECT_EQ(std::string(b.wan_name), std::string(47, 'n'));
    EXPECT_STREQ(b.protocol, "IPv4");
    EXPECT_STREQ(b.service_type, "TR069_INTERNET");
    EXPECT_STREQ(b.type, "route-dhcp");
    EXPECT_EQ(b.nat_enable, 2);
    EXPECT_EQ(b.vlan_enable, 1);
    EXPECT_EQ(b.vlan, 70000 % 65536);
    EXPECT_EQ(b.itfGroup, 15);
    EXPECT_STREQ(b.v4_ip, "192.0.2.10");
    EXPECT_STREQ(b.v4_gateway, "192.0.2.1");
    EXPECT_STREQ(b.v4_master_dns, "198.51.100.53");
    EXPECT_STREQ(b.v4_slave_dns, "198.51.100.54");
    EXPECT_STREQ(b.v6_ip, "");
    EXPECT_EQ(b.v4_conn_state, 0xeeeeeeeeu) << "the getter writes 280 bytes, no more";

    // A bridge: no address is asked for, whatever the manager would say.
    zqlab::scenario("bridge-wan");
    zqlab::set("wan.1.v4_ip", "192.0.2.99");
    zqlab::clear_journal();
    const zqSD_wan_diag bridge = block_of(1);
    EXPECT_EQ(queries().size(), 10u);
    EXPECT_STREQ(bridge.v4_ip, "");
    EXPECT_EQ(bridge.disable_lan_dhcp, 1);
    EXPECT_EQ(bridge.itfGroup, 529);
}

TEST_F(WanStatus, HealthyWanIsPingedAndRecorded) {
    diagnose();
    EXPECT_EQ(findings(), "[normal ]1_TR069_INTERNET_R_VID_100[v4] connect normal\n");
    EXPECT_EQ(journal_of("timeout"),
              std::vector<std::string>{"timeout -t 10 ping -4 -c 5 -W 1 192.0.2.1 -I 192.0.2.10"});
    const std::vector<zqSD_wan_diag> records = wan_records();
    ASSERT_EQ(records.size(), 1u);
    const zqSD_wan_diag block = block_of(0);
    EXPECT_EQ(memcmp(&records[0], &block, WAN_BLOCK_SIZE), 0);
    EXPECT_EQ(records[0].v4_conn_state, WAN_CONNECT_NORMAL);
    EXPECT_EQ(records[0].v6_conn_state, WAN_GATEWAY_UNREACHABLE) << "no IPv6 on this WAN";
    EXPECT_EQ(records[0].dns_state + records[0].params_state + records[0].route_state, 0u);
}

TEST_F(WanStatus, NoWanCountMeansNoWan) {
    for (const char *count : {"0", "", "-3", "none"}) {
        reset();
        zqlab::set("wan.num", count);
        diagnose();
        EXPECT_EQ(findings(), "") << count;
        EXPECT_TRUE(wan_records().empty()) << count;
        EXPECT_EQ(queries(), std::vector<std::string>{"wan_num"}) << count;
    }
}

// Without an address or gateway nothing is pinged: the verdict names the
// service that should have given one.
TEST_F(WanStatus, WanWithoutAddressIsJudgedByItsType) {
    zqlab::scenario("wan-dhcp-down");
    const std::pair<const char *, std::string> cases[] = {{"route-dhcp", "dhcp service error"},
                                                          {"route-pppoe", "ppp service error"},
                                                          {"route-static", "static service errror"}};
    uint32_t verdict = WAN_DHCP_SERVICE_ERROR;
    for (const auto &[type, text] : cases) {
        reset();
        zqlab::set("wan.0.type", type);
        diagnose();
        EXPECT_EQ(findings(), "[error  ]1_TR069_INTERNET_R_VID_100[v4] " + text + "\n");
        const std::vector<zqSD_wan_diag> records = wan_records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].v4_conn_state, verdict++);
        EXPECT_EQ(records[0].v6_conn_state, WAN_GATEWAY_UNREACHABLE);
        EXPECT_TRUE(journal_of("timeout").empty());
    }
}

TEST_F(WanStatus, BridgesAreSkippedAndDualStackIsJudgedTwice) {
    zqlab::scenario("wan-dual-stack");
    zqlab::set("ping.interval", "0.2");
    zqlab::set("wan.num", "2");
    zqlab::set("wan.1.type", "bridge");
    zqlab::set("wan.1.protocol", "IPv4_IPv6");
    diagnose();
    EXPECT_EQ(findings(), "[normal ]1_TR069_INTERNET_R_VID_100[v4] connect normal\n"
                          "[normal ]1_TR069_INTERNET_R_VID_100[v6] connect normal\n");
    const std::vector<zqSD_wan_diag> records = wan_records();
    ASSERT_EQ(records.size(), 1u) << "no record for the bridge";
    EXPECT_EQ(records[0].v4_conn_state, WAN_CONNECT_NORMAL);
    EXPECT_EQ(records[0].v6_conn_state, WAN_CONNECT_NORMAL);
    EXPECT_STREQ(records[0].v6_gateway, "2001:db8:1::1");
}

// Values that are no addresses count as missing: no ping, a log
// line, the fallback verdict.
TEST_F(WanStatus, MalformedAddressesNeverReachTheShell) {
    const char *payloads[] = {"192.0.2.1;touch /tmp/pwned", "$(touch /tmp/pwned)", "-f", "`reboot`"};
    for (const char *p : payloads) {
        for (const char *key : {"wan.0.v4_gateway", "wan.0.v4_ip"}) {
            zqlab::scenario("healthy-gpon");
            reset();
            zqlab::set(key, p);
            const std::string log = log_of([] { diagnose(); });
            // Refused when read (longer than an address can be) or when used.
            EXPECT_TRUE(has(log, "is no IPv4 address: taken as empty") ||
                        has(log, "is longer than 15: refused"))
                << key << "=" << p << "\n"
                << log;
            EXPECT_EQ(findings(), "[error  ]1_TR069_INTERNET_R_VID_100[v4] dhcp service error\n") << p;
            EXPECT_TRUE(journal_of("timeout").empty()) << p;
        }
    }
    EXPECT_FALSE(zqlab::file_exists("/tmp/pwned"));
}

TEST_F(WanStatus, AManagerClaimingTooManyWansIsCapped) {
    zqlab::set("wan.num", "100000");
    const std::string log = log_of([] { diagnose(); });
    EXPECT_TRUE(has(log, "wan_num 100000 is more than 32, only the first are diagnosed")) << log;
    EXPECT_EQ(journal_of("diagM").size(), 1u + 32 * 10 + 4)
        << "WAN 0 is routed IPv4, the others report nothing";
    EXPECT_EQ(wan_records().size(), 8u) << "the chain keeps eight";
}

TEST(WanVerdicts, LevelsAndTexts) {
    const uint32_t levels[] = {DIAG_MSG_NORMAL, DIAG_MSG_WARN,  DIAG_MSG_ERROR,
                               DIAG_MSG_ERROR,  DIAG_MSG_ERROR, DIAG_MSG_ERROR};
    for (uint32_t v = 0; v < 6; ++v) EXPECT_EQ(wan_verdict_level(v), levels[v]) << v;
    EXPECT_STREQ(wan_verdict_text[5], "static service errror");
    uint32_t index = 0;
    char block[WAN_BLOCK_SIZE];
    EXPECT_EQ(zq_get_sys_diag("wan_status", ACTION_STRUCT, zq_args(&index, 4, block, sizeof(block) - 1)), -4);
    EXPECT_EQ(zq_get_sys_diag("wan_status", ACTION_STRUCT, zq_args(&index, 3, block, WAN_BLOCK_SIZE)), -4);
}

} // namespace
