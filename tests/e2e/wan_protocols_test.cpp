// Whole diagnoses of gateways whose DHCP or PPPoE WAN is down, through the
// shipped library's C ABI: the path reaches dhcp_status or pppoe_status,
// which restart the WAN, capture its real exchange with the lab's ISP side
// (the decoded text is compared with its fixture) and analyse it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "tests/network/exchange_text.hpp"
#include "zq_diag.h"

namespace {

struct Outcome {
    const char *scenario; // the lab's, and the fixture's name; pppoe-* or dhcp-*
    uint32_t result;      // the step's result word
    uint32_t state;       // pppoe_state or dhcp_state of the WAN
    const char *findings; // the step's section of the diagnosis log, after its heading
};

// The scenario, not a dump of the struct, in test listings.
void PrintTo(const Outcome &o, std::ostream *os) { *os << o.scenario; }

const Outcome OUTCOMES[] = {
    // The PADI goes unanswered whether no concentrator listens or it ignores
    // the service (the lab's pppoe-service-ignored): the same text.
    {"pppoe-no-concentrator", 5, 5,
     "[warn   ]\tNo servers respond!\n[warn   ]\tIt has a specified service-name: isp1\n"},
    {"pppoe-no-padt", 4, 4, "[warn   ]\tInteraction process not found!\n"},
    {"pppoe-lcp-not-agreed", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tLCP  fail!\n"
     "[warn   ]\t\tRejected some configuration of server!\n[warn   ]\t\tMTU:1492, Auth: CHAP, MD5\n"},
    {"pppoe-chap-failure", 0, 0, "[normal ]Requested server1 (isp1): \n[error  ]\tAuth fail!\n"},
    {"pppoe-pap-nak", 0, 0, "[normal ]Requested server1 (isp1): \n[error  ]\tAuth fail!\n"},
    {"pppoe-ipcp-not-agreed", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tIPCP  fail\n"
     "[warn   ]\t\tRejected some Ipcp configuration of server!\n"
     "[normal ]\t\tIp_addr:203.0.113.1 Pri_dns:203.0.113.53 Sec_dns:203.0.113.54\n"},
    {"pppoe-success", 6, 6, "[normal ]\tIt may be normal this time!\n"},
    {"pppoe-two-services", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tAuth fail!\n"
     "[normal ]Requested server2 (isp2): \n[error  ]\tAuth fail!\n"},
    {"dhcp-server", 0, 0, "[normal ]\tDhcp server responded\n"},
    // Likewise for a server that ignores the client (dhcp-server-ignores).
    {"dhcp-no-server", 0, 2, "[warn   ]\tNo dhcp server responded\n"},
};

class WanProtocols : public ::testing::TestWithParam<Outcome> {};

TEST_P(WanProtocols, DiagnosisShowsTheAnalysis) {
    const Outcome &o = GetParam();
    const bool ppp = strncmp(o.scenario, "pppoe-", 6) == 0;
    const char *method = ppp ? "pppoe_status" : "dhcp_status";
    const char *wan_name = ppp ? "2_INTERNET_R_VID_200" : "1_TR069_INTERNET_R_VID_100";
    zqlab::scenario(o.scenario);
    zq_diag_step step{};
    uint32_t result = 77;
    bool ran = false;
    std::string decoded;
    while (zq_diag_path_search(&step) == 1) {
        zq_intact_diag_run(&step);
        if (strcmp(step.method, method) != 0) continue;
        ran = true;
        result = step.result;
        decoded = exchange::normalized(zqlab::read_file("/tmp/capture_file/capture_parse"));
        const std::vector<std::string> calls = zqlab::journal("diagM");
        EXPECT_TRUE(!calls.empty() && calls.back() == "diagM restart_wan");
    }
    if (!zq_search_diag_record(WAN_DIAG_DATA))
        GTEST_SKIP() << "no WAN records: wan_status is not in this build";
    ASSERT_TRUE(ran) << method << " did not run";
    EXPECT_EQ(exchange::without_retries(decoded), exchange::without_retries(exchange::fixture(
                                                      std::string(o.scenario) + ".txt", decoded.c_str())));
    const std::string log = zqlab::read_file("/tmp/diag_file/diag_log");
    EXPECT_EQ(e2e::step_findings(log, method),
              "[error  ]" + std::string(wan_name) + (ppp ? "[ipv4] PPPoE:\n" : "[ipv4] DHCP:\n") + o.findings)
        << log;
    EXPECT_EQ(result, o.result);
    bool found = false;
    for (const zqSD_wan_diag &wan : e2e::records<zqSD_wan_diag>(WAN_DIAG_DATA))
        if (strcmp(wan.wan_name, wan_name) == 0) {
            found = true;
            EXPECT_EQ(ppp ? wan.pppoe_state : wan.dhcp_state, o.state);
        }
    EXPECT_TRUE(found) << "no WAN record named " << wan_name;
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
