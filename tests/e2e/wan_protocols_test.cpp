// Whole diagnoses of gateways whose DHCP or PPPoE WAN is down, through the
// shipped library's C ABI: the path reaches dhcp_status or pppoe_status,
// which capture a real exchange with the lab's ISP side and analyse it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace {

struct Outcome {
    const char *scenario;
    const char *step;
    uint32_t result;      // the step's result word
    uint32_t state;       // pppoe_state or dhcp_state of the WAN
    const char *findings; // the step's section of the diagnosis log
};

// The scenario, not a dump of the struct, in test listings.
void PrintTo(const Outcome &o, std::ostream *os) { *os << o.scenario; }

constexpr const char *PPP = "[error  ]2_INTERNET_R_VID_200[ipv4] PPPoE:\n";
constexpr const char *DHCP = "[error  ]1_TR069_INTERNET_R_VID_100[ipv4] DHCP:\n";

const Outcome OUTCOMES[] = {
    {"pppoe-no-concentrator", "pppoe_status", 5, 5,
     "[warn   ]\tNo servers respond!\n[warn   ]\tIt has a specified service-name: isp1\n"},
    {"pppoe-service-ignored", "pppoe_status", 5, 5,
     "[warn   ]\tNo servers respond!\n[warn   ]\tIt has a specified service-name: isp1\n"},
    {"pppoe-no-padt", "pppoe_status", 4, 4, "[warn   ]\tInteraction process not found!\n"},
    {"pppoe-lcp-not-agreed", "pppoe_status", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tLCP  fail!\n"
     "[warn   ]\t\tRejected some configuration of server!\n[warn   ]\t\tMTU:1492, Auth: CHAP, MD5\n"},
    {"pppoe-chap-failure", "pppoe_status", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tAuth fail!\n"},
    {"pppoe-pap-nak", "pppoe_status", 0, 0, "[normal ]Requested server1 (isp1): \n[error  ]\tAuth fail!\n"},
    {"pppoe-ipcp-not-agreed", "pppoe_status", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tIPCP  fail\n"
     "[warn   ]\t\tRejected some Ipcp configuration of server!\n"
     "[normal ]\t\tIp_addr:203.0.113.1 Pri_dns:203.0.113.53 Sec_dns:203.0.113.54\n"},
    {"pppoe-success", "pppoe_status", 6, 6, "[normal ]\tIt may be normal this time!\n"},
    {"pppoe-two-services", "pppoe_status", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tAuth fail!\n"
     "[normal ]Requested server2 (isp2): \n[error  ]\tAuth fail!\n"},
    {"dhcp-server", "dhcp_status", 0, 0, "[normal ]\tDhcp server responded\n"},
    {"dhcp-no-server", "dhcp_status", 0, 2, "[warn   ]\tNo dhcp server responded\n"},
    {"dhcp-server-ignores", "dhcp_status", 0, 2, "[warn   ]\tNo dhcp server responded\n"},
};

// The section of the diagnosis log that a step wrote.
std::string section(const std::string &log, const std::string &step) {
    const std::string header = ">>>> " + step + " diag <<<<\n";
    const size_t start = log.find(header);
    if (start == std::string::npos) return "";
    const size_t body = start + header.size();
    const size_t end = log.find("\n>>>> ", body);
    return log.substr(body, end == std::string::npos ? std::string::npos : end - body);
}

const zqSD_wan_diag *wan_named(const char *name) {
    for (const diag_data_node *node = zq_search_diag_record(WAN_DIAG_DATA); node; node = node->next) {
        if (node->type != WAN_DIAG_DATA) break;
        const auto *wan = static_cast<const zqSD_wan_diag *>(node->data);
        if (strncmp(wan->wan_name, name, sizeof(wan->wan_name)) == 0) return wan;
    }
    return nullptr;
}

class WanProtocols : public ::testing::TestWithParam<Outcome> {};

TEST_P(WanProtocols, DiagnosisShowsTheAnalysis) {
    const Outcome &o = GetParam();
    zqlab::scenario(o.scenario);
    zq_diag_step step{};
    uint32_t result = 77;
    bool ran = false;
    while (zq_diag_path_search(&step) == 1) {
        zq_intact_diag_run(&step);
        if (strcmp(step.method, o.step) == 0) {
            ran = true;
            result = step.result;
        }
    }
    if (!zq_search_diag_record(WAN_DIAG_DATA))
        GTEST_SKIP() << "no WAN records: wan_status is not in this build";
    ASSERT_TRUE(ran) << o.step << " did not run";
    const bool ppp = strcmp(o.step, "pppoe_status") == 0;
    const std::string log = zqlab::read_file("/tmp/diag_file/diag_log");
    EXPECT_EQ(section(log, o.step), std::string(ppp ? PPP : DHCP) + o.findings) << log;
    EXPECT_EQ(result, o.result);
    const zqSD_wan_diag *wan = wan_named(ppp ? "2_INTERNET_R_VID_200" : "1_TR069_INTERNET_R_VID_100");
    ASSERT_NE(wan, nullptr);
    EXPECT_EQ(ppp ? wan->pppoe_state : wan->dhcp_state, o.state);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_FALSE(zqlab::file_exists("/tmp/capture_file/capture_parse")) << "removed at the end of the path";
}

INSTANTIATE_TEST_SUITE_P(Scenarios, WanProtocols, ::testing::ValuesIn(OUTCOMES), [](const auto &param_info) {
    std::string name = param_info.param.scenario;
    for (char &c : name)
        if (c == '-') c = '_';
    return name;
});

} // namespace
