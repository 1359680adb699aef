// dhcp_status beside its real exchanges (tests/e2e/wan_protocols_test.cpp):
// the connections it leaves alone, an empty capture, two connections at once
// and the interface filter.
#include <gtest/gtest.h>

#include <string>

#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "wan_lab.hpp"

using namespace zq;

namespace {

class DhcpStatus : public wanlab::Fresh {};

TEST_F(DhcpStatus, ConnectionsUpOrOfOtherTypesRunNoCapture) {
    zqSD_wan_diag up{};
    strcpy(up.wan_name, "1_DHCP_UP");
    strcpy(up.type, "route-dhcp");
    up.v4_conn_state = WAN_CONNECT_UNSTABLE;
    up.dhcp_state = 9;
    zq_diag_record(WAN_DIAG_DATA, &up, sizeof(up));
    wanlab::store_down_wan("2_PPP", "nas0_1", "route-ppp");
    EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0);
    EXPECT_EQ(std::string(zq_diag_msg), "[normal ]1_DHCP_UP[ipv4] DHCP status is normal\n");
    EXPECT_EQ(wanlab::wan_record(0)->dhcp_state, 0u);
    EXPECT_TRUE(zqlab::journal("diagM").empty());
}

TEST_F(DhcpStatus, NoPacketsAtAll) {
    zqlab::set("wan.num", "0"); // no WAN link at all: no client, no packet
    wanlab::store_down_wan("1_TR069_INTERNET_R_VID_100", "nas0_0", "route-dhcp");
    EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0);
    EXPECT_EQ(std::string(zq_diag_msg), "[error  ]1_TR069_INTERNET_R_VID_100[ipv4] DHCP:\n"
                                        "[warn   ]\tCan not find any dhcp packets within specified time\n");
    EXPECT_EQ(wanlab::wan_record(0)->dhcp_state, 0u);
}

// Two DHCP connections that are down: one capture and one WAN restart,
// each judged on its own interface index; a name that is not a plain
// interface name never reaches grep.
TEST_F(DhcpStatus, TwoConnectionsShareOneCapture) {
    zqlab::scenario("dhcp-server");
    zqlab::set("wan.2.type", "route-dhcp");
    zqlab::set("wan.2.protocol", "IPv4");
    zqlab::set("wan.2.nas_interface", "nas0_2");
    zqlab::set("wan.num", "3");
    wanlab::store_down_wan("1_A", "nas0_0", "route-dhcp");
    wanlab::store_down_wan("3_B", "nas0_2", "route-dhcp");
    wanlab::store_down_wan("4_C", "nas0_2;touch /tmp/canary", "route-dhcp");
    EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0);
    EXPECT_EQ(std::string(zq_diag_msg), "[error  ]1_A[ipv4] DHCP:\n[normal ]\tDhcp server responded\n"
                                        "[error  ]3_B[ipv4] DHCP:\n[warn   ]\tNo dhcp server responded\n"
                                        "[error  ]4_C[ipv4] DHCP:\n");
    EXPECT_EQ(wanlab::wan_record(0)->dhcp_state, 0u);
    EXPECT_EQ(wanlab::wan_record(1)->dhcp_state, 2u);
    EXPECT_EQ(zqlab::journal("diagM").size(), 1u);
    EXPECT_FALSE(zqlab::file_exists("/tmp/canary"));
}

// The index is the fourth word of the first line naming the interface, as
// atoi reads it; only 0 (no number) refuses the interface.
TEST_F(DhcpStatus, InterfaceIndexOfTheFirstLine) {
    const std::pair<const char *, int> cases[] = {
        {"nas0_0 Out ifindex 3 IP 0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP\n", 0},
        {"nas0_0 Out ifindex -3 IP 0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP\n", 0},
        {"nas0_0 Out ifindex 0 IP 0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP\n", -1},
        {"nas0_0 Out ifindex x IP 0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP\n", -1},
        {"nas0_0 Out\n", -1},
        {"nas0_1 Out ifindex 3 IP 0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP\n", -1},
    };
    for (const auto &[line, result] : cases) {
        zqlab::write_file("/tmp/capture_file/capture_parse", line);
        EXPECT_EQ(dhcp_filter_special("nas0_0"), result) << line;
    }
    EXPECT_EQ(dhcp_filter_special(nullptr), -1);
}

} // namespace
