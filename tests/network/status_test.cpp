// dhcp_status and pppoe_status beside their real exchanges (tests/e2e): what they leave alone, captures
// without the connection's packets, two DHCP connections, text beyond pppoe_status's buffers and fields.
#include <gtest/gtest.h>

#include <string>

#include "engine/engine.h"
#include "engine/util.h"
#include "exchange_text.hpp"
#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "methods/network/pppoe_analysis.h"
#include "records/records.h"

using namespace zq;

namespace {

class PppoeStatus : public ::testing::Test {
  protected:
    void SetUp() override {
        clear_diag_chain();
        zq_diag_msg_reset();
    }
};
using DhcpStatus = PppoeStatus;

// Stores a WAN record as wan_status would (texts cut to their fields): its service down unless `state` says.
void store_wan(const char *name, const char *ifc, const char *type, uint32_t state = 0,
               uint32_t dhcp_state = 0) {
    zqSD_wan_diag wan{};
    zq::copy(wan.wan_name, name);
    zq::copy(wan.nas_interface, ifc);
    zq::copy(wan.type, type);
    zq::copy(wan.protocol, "IPv4");
    const uint32_t down = zq::contains(type, "ppp") ? WAN_PPP_SERVICE_ERROR : WAN_DHCP_SERVICE_ERROR;
    wan.v4_conn_state = state ? state : down;
    wan.dhcp_state = dhcp_state;
    zq_diag_record(WAN_DIAG_DATA, &wan, sizeof(wan));
}

const zqSD_wan_diag *wan_record(int position) {
    const diag_data_node *node = zq_search_diag_record(WAN_DIAG_DATA);
    for (int i = 0; node && i < position; ++i) node = node->next;
    return node ? static_cast<const zqSD_wan_diag *>(node->data) : nullptr;
}

constexpr const char *PPP_HEADING = "[error  ]2_INTERNET_R_VID_200[ipv4] PPPoE:\n";

uint32_t analyse(const std::string &text) {
    zq_diag_msg_reset();
    zqlab::write_file("/tmp/capture_file/capture_parse", text);
    return zq_check_pppoe_error();
}

TEST_F(PppoeStatus, ConnectionsUpOrOfOtherTypesRunNoCapture) {
    store_wan("1_PPP_UP", "", "route-ppp", WAN_CONNECT_UNSTABLE);
    store_wan("2_DHCP", "nas0_0", "route-dhcp");
    uint32_t result = 77;
    EXPECT_EQ(zq_get_sys_diag("pppoe_status", ACTION_DIAG, zq_args(nullptr, 0, &result, 4)), 0);
    EXPECT_EQ(std::string(zq_diag_msg), "[normal ]1_PPP_UP[ipv4] PPPoE:\n");
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(zqlab::journal("diagM").empty());
    EXPECT_EQ(zq_get_sys_diag("pppoe_status", ACTION_DIAG, zq_args(nullptr, 0, &result, 8)), -4);
}

TEST_F(PppoeStatus, NoPacketsAtAll) {
    // No link: the capture holds no PPPoE packet of any interface.
    store_wan("2_INTERNET_R_VID_200", "nas0_1", "route-ppp");
    uint32_t result = 77;
    EXPECT_EQ(zq_get_sys_diag("pppoe_status", ACTION_DIAG, zq_args(nullptr, 0, &result, 4)), 0);
    EXPECT_EQ(std::string(zq_diag_msg),
              PPP_HEADING +
                  std::string("[error  ]\tCan not find any pppoed pppoes packets within specified time\n"));
    EXPECT_EQ(result, 0u);
}

TEST_F(PppoeStatus, PacketsOfAnotherInterfaceOnly) {
    // The exchange runs on nas0_1; the connection's interface sees none of it.
    zqlab::scenario("pppoe-success");
    store_wan("2_INTERNET_R_VID_200", "nas0_9", "route-ppp");
    uint32_t result = 77;
    EXPECT_EQ(zq_get_sys_diag("pppoe_status", ACTION_DIAG, zq_args(nullptr, 0, &result, 4)), 0);
    EXPECT_EQ(std::string(zq_diag_msg), PPP_HEADING);
    EXPECT_EQ(result, 0u);
}

TEST_F(PppoeStatus, TextBeyondTheBuffersIsCut) {
    const std::string two = exchange::fixture("pppoe-two-services.txt"); // its first session: CHAP refused
    const std::string chap = two.substr(0, two.find("nas0_1 Out PPPoE PADI", 1));
    std::string padded = chap;
    for (size_t at = padded.find("isp1"); at != std::string::npos; at = padded.find("isp1", at))
        padded[at + 3] = '2';
    std::string lines;
    for (int i = 0; i < 40; ++i) lines += "\t" + std::string(120, 'x') + "\n";
    padded.insert(padded.find("nas0_1 In  PPPoE PADT"), lines);
    // A session longer than one block ends the session analysis there.
    EXPECT_EQ(analyse(chap + padded), 0u);
    EXPECT_EQ(std::string(zq_diag_msg), "[normal ]Requested server1 (isp1): \n[error  ]\tAuth fail!\n");
    // Only 4096 bytes of the whole text are read: its first PADT is beyond.
    EXPECT_EQ(analyse(padded + chap), 4u);
    EXPECT_EQ(std::string(zq_diag_msg), "[warn   ]\tInteraction process not found!\n");

    char text[64] = {};
    text_buffer buffer{text, sizeof(text)};
    zqlab::write_file("/tmp/capture_file/capture_parse", chap);
    EXPECT_EQ(zq_file_to_buffer(&buffer, "/tmp/capture_file/capture_parse"), 1);
    EXPECT_LT(strlen(text), sizeof(text));
    EXPECT_EQ(zq_file_to_buffer(&buffer, "/tmp/capture_file/none"), 0);
    EXPECT_EQ(zq_file_to_buffer(nullptr, "/tmp/capture_file/capture_parse"), 0);
}

TEST_F(PppoeStatus, OptionReadsStayInTheirFields) {
    std::string block = "nas0_1 In  PPPoE  [ses 0x1] LCP, Conf-Request (0x01), id 1, length 15\n"
                        "\t  MRU Option (0x01), length 4: 14921492149214921492\n"
                        "\t  Auth-Prot Option (0x03), length 5: CHAP, MD5 and a very long tail of text\n";
    lcp_options lcp{};
    EXPECT_EQ(parse_lcp_options(block.data(), lcp), 1);
    EXPECT_STREQ(lcp.mru, "149214921");
    EXPECT_STREQ(lcp.auth, " CHAP, MD5 and a very long ta");
    // Sent by the gateway: not the server's options.
    std::string sent = "nas0_1 Out PPPoE  [ses 0x1] LCP, Conf-Request (0x01), id 1, length 15\n"
                       "\t  MRU Option (0x01), length 4: 1492\n\t  Auth-Prot Option (0x03), length 5: PAP\n";
    EXPECT_EQ(parse_lcp_options(sent.data(), lcp), 0);

    std::string ipcp = "nas0_1 In  PPPoE  [ses 0x1] IPCP, Conf-Request (0x01), id 3, length 24\n"
                       "\t  IP-Addr Option (0x03), length 6: 203.0.113.111111111111111\n"
                       "\t  Pri-DNS Option (0x81), length 6: 203.0.113.53\n";
    ipcp_options values{};
    EXPECT_EQ(parse_ipcp_options(ipcp.data(), values), 0) << "no secondary DNS";
    EXPECT_STREQ(values.addr, "203.0.113.111111111");
    EXPECT_STREQ(values.pri_dns, "203.0.113.53");

    service_name name{};
    EXPECT_EQ(parse_service_name("PADR [Service-Name \"0123456789012345678901234567890123456789\"]", name),
              1);
    EXPECT_EQ(std::string(name), "0123456789012345678901234567890123");
    EXPECT_EQ(parse_service_name("PADR [Service-Name \"\"]", name), 0);

    server_list list{};
    EXPECT_EQ(server_list_add(list, "isp12"), 1);
    EXPECT_EQ(server_list_add(list, "isp1"), 0) << "contained in a listed name";
    for (int i = 0; i < 19; ++i)
        EXPECT_EQ(server_list_add(list, ("name" + std::to_string(i) + "x").c_str()), 1);
    EXPECT_EQ(server_list_add(list, "extra"), 1) << "full: new, not kept";
    EXPECT_EQ(server_list_add(list, "extra"), 1);
}

TEST_F(DhcpStatus, ConnectionsUpOrOfOtherTypesRunNoCapture) {
    store_wan("1_DHCP_UP", "", "route-dhcp", WAN_CONNECT_UNSTABLE, 9);
    store_wan("2_PPP", "nas0_1", "route-ppp");
    EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0);
    EXPECT_EQ(std::string(zq_diag_msg), "[normal ]1_DHCP_UP[ipv4] DHCP status is normal\n");
    EXPECT_EQ(wan_record(0)->dhcp_state, 0u);
    EXPECT_TRUE(zqlab::journal("diagM").empty());
}

TEST_F(DhcpStatus, NoPacketsAtAll) {
    zqlab::set("wan.num", "0"); // no WAN link at all: no client, no packet
    store_wan("1_TR069_INTERNET_R_VID_100", "nas0_0", "route-dhcp");
    EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0);
    EXPECT_EQ(std::string(zq_diag_msg), "[error  ]1_TR069_INTERNET_R_VID_100[ipv4] DHCP:\n"
                                        "[warn   ]\tCan not find any dhcp packets within specified time\n");
    EXPECT_EQ(wan_record(0)->dhcp_state, 0u);
}

// Two DHCP connections that are down: one capture and one WAN restart, each judged on its own interface
// index; a name that is not a plain interface name never reaches grep.
TEST_F(DhcpStatus, TwoConnectionsShareOneCapture) {
    zqlab::scenario("dhcp-server");
    zqlab::set("wan.2.type", "route-dhcp");
    zqlab::set("wan.2.protocol", "IPv4");
    zqlab::set("wan.2.nas_interface", "nas0_2");
    zqlab::set("wan.num", "3");
    store_wan("1_A", "nas0_0", "route-dhcp");
    store_wan("3_B", "nas0_2", "route-dhcp");
    store_wan("4_C", "nas0_2;touch /tmp/canary", "route-dhcp");
    EXPECT_EQ(zq_get_sys_diag("dhcp_status", ACTION_DIAG, {}), 0);
    EXPECT_EQ(std::string(zq_diag_msg), "[error  ]1_A[ipv4] DHCP:\n[normal ]\tDhcp server responded\n"
                                        "[error  ]3_B[ipv4] DHCP:\n[warn   ]\tNo dhcp server responded\n"
                                        "[error  ]4_C[ipv4] DHCP:\n");
    EXPECT_EQ(wan_record(0)->dhcp_state, 0u);
    EXPECT_EQ(wan_record(1)->dhcp_state, 2u);
    EXPECT_EQ(zqlab::journal("diagM").size(), 1u);
    EXPECT_FALSE(zqlab::file_exists("/tmp/canary"));
}

// The index is the fourth word of the first line naming the interface, as atoi reads it; 0 refuses it.
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
