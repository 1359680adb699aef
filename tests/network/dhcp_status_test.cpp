#include <gtest/gtest.h>

#include <string>

#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "wan_lab.hpp"

using namespace zq;

namespace {

constexpr const char *WAN_NAME = "1_TR069_INTERNET_R_VID_100";
constexpr const char *HEADING = "[error  ]1_TR069_INTERNET_R_VID_100[ipv4] DHCP:\n";

struct DhcpCase {
    const char *name;
    const char *scenario;
    uint32_t state;
    const char *findings; // after the heading
};

// The case name, not a dump of the struct, in test listings.
void PrintTo(const DhcpCase &c, std::ostream *os) { *os << c.name; }

const DhcpCase CASES[] = {
    {"server_answers", "dhcp-server", 0, "[normal ]\tDhcp server responded\n"},
    {"no_server", "dhcp-no-server", 2, "[warn   ]\tNo dhcp server responded\n"},
    {"server_ignores_client", "dhcp-server-ignores", 2, "[warn   ]\tNo dhcp server responded\n"},
};

class DhcpExchange : public ::testing::TestWithParam<DhcpCase> {
  protected:
    void SetUp() override {
        clear_diag_chain();
        zq_diag_msg_reset();
    }
};

// A real exchange: busybox udhcpc, started by diagM restart_wan on nas0_0,
// against the ISP's DHCP server (or none).
TEST_P(DhcpExchange, DiagnosisOfARealExchange) {
    const DhcpCase &c = GetParam();
    zqlab::scenario(c.scenario);
    wanlab::store_down_wan(WAN_NAME, "nas0_0", "route-dhcp");

    ASSERT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, zq_args(nullptr, 0, nullptr, 0)), 0);
    const std::string text = wanlab::normalized(wanlab::decoded_text());
    EXPECT_EQ(wanlab::without_retries(text),
              wanlab::without_retries(wanlab::fixture(std::string("dhcp-") + c.name + ".txt", text)));
    EXPECT_EQ(std::string(zq_diag_msg), std::string(HEADING) + c.findings);
    ASSERT_NE(wanlab::wan_record(0), nullptr);
    EXPECT_EQ(wanlab::wan_record(0)->dhcp_state, c.state);
}

INSTANTIATE_TEST_SUITE_P(Outcomes, DhcpExchange, ::testing::ValuesIn(CASES),
                         [](const auto &param_info) { return std::string(param_info.param.name); });

class DhcpStatus : public ::testing::Test {
  protected:
    void SetUp() override {
        clear_diag_chain();
        zq_diag_msg_reset();
    }
};

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
    // No WAN link at all: no client, no packet.
    zqlab::set("wan.num", "0");
    wanlab::store_down_wan(WAN_NAME, "nas0_0", "route-dhcp");
    const std::string log =
        wanlab::log_of([] { EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0); });
    EXPECT_EQ(std::string(zq_diag_msg),
              std::string(HEADING) + "[warn   ]\tCan not find any dhcp packets within specified time\n");
    EXPECT_EQ(wanlab::wan_record(0)->dhcp_state, 0u);
    EXPECT_TRUE(wanlab::logged_as(log, "zq_get_dhcp_status_diag",
                                  "Can not find any dhcp packets within specified time"))
        << log;
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
    const std::string log =
        wanlab::log_of([] { EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0); });
    EXPECT_TRUE(wanlab::logged_as(log, "zq_get_dhcp_status_diag", "filter_special_error!")) << log;
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
