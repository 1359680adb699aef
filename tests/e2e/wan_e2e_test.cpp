// The WAN steps of whole diagnoses through the C ABI, one scenario per case: the path, the findings, every
// byte of the WAN records; for a DHCP or PPPoE WAN that is down, its real exchange (as its fixture) and its
// analysis.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "tests/network/exchange_text.hpp"
#include "zq_diag.h"

namespace {

const std::string WAN0 = "1_TR069_INTERNET_R_VID_100";

struct Diagnosis {
    std::string log;
    std::vector<std::string> path;
    std::vector<zqSD_wan_diag> wans;
    std::string operator[](const char *step) const { return e2e::step_findings(log, step); }
};

Diagnosis diagnose(const std::string &scenario) {
    const std::string log = e2e::diagnose(scenario);
    return {log, e2e::step_names(log), e2e::records<zqSD_wan_diag>(WAN_DIAG_DATA)};
}

const std::vector<std::string> WHOLE_HEALTHY = {"port_status",  "pon_status", "wan_status",
                                                "route_status", "dns_status", "wan_params",
                                                "dhcp_config",  "sys_status", "end"};

// The WAN record of healthy-gpon.
zqSD_wan_diag healthy_wan() {
    zqSD_wan_diag w{};
    w.nat_enable = 1;
    w.vlan_enable = 1;
    w.vlan = 100;
    strcpy(w.type, "route-dhcp");
    strcpy(w.protocol, "IPv4");
    strcpy(w.v4_ip, "192.0.2.10");
    strcpy(w.v4_gateway, "192.0.2.1");
    strcpy(w.v4_master_dns, "198.51.100.53");
    strcpy(w.v4_slave_dns, "198.51.100.54");
    strcpy(w.nas_interface, "nas0_0");
    strcpy(w.service_type, "TR069_INTERNET");
    strcpy(w.wan_name, WAN0.c_str());
    w.itfGroup = 15;
    w.v4_conn_state = WAN_CONNECT_NORMAL;
    w.v6_conn_state = WAN_GATEWAY_UNREACHABLE;
    return w;
}

// Every byte, the padding included: an outside process reads the record whole.
void expect_only_wan(const Diagnosis &d, const zqSD_wan_diag &want) {
    ASSERT_EQ(d.wans.size(), 1u);
    EXPECT_EQ(memcmp(&d.wans[0], &want, sizeof(want)), 0)
        << "\n got: " << testing::PrintToString(d.wans[0]) << "\nwant: " << testing::PrintToString(want);
}

std::string normal(const std::string &s) { return "[normal ]" + s + "\n"; }
std::string error(const std::string &s) { return "[error  ]" + s + "\n"; }

TEST(WanEndToEnd, RouteMissing) {
    const Diagnosis d = diagnose("wan-route-missing");
    EXPECT_EQ(d.path, WHOLE_HEALTHY);
    EXPECT_EQ(d["wan_status"], normal(WAN0 + "[v4] connect normal"));
    EXPECT_EQ(d["route_status"], error("Route of " + WAN0 + " is missing"));
    EXPECT_EQ(d["dns_status"],
              normal("DNS is available") + normal(WAN0 + " [V4] Internet connectivity is normal"));
    zqSD_wan_diag want = healthy_wan();
    want.route_state = 1;
    expect_only_wan(d, want);
    // Each LAN port is asked for by its own number: the first is up, the other three down.
    const auto ports = e2e::records<zqSD_port_diag>(PORT_DIAG_DATA);
    ASSERT_EQ(ports.size(), 4u);
    for (size_t i = 0; i < ports.size(); ++i)
        EXPECT_EQ(std::string(ports[i].status) + ports[i].speed, i == 0 ? "Up1000" : "Down0") << "port " << i;
    // The records as the operator reads them at the end of the uploaded log (the daemons' pids aside).
    std::string data = d.log.substr(std::min(d.log.find(">>>>>>> DIAG DATA"), d.log.size()));
    for (size_t at; (at = data.find(".pid_")) != std::string::npos;) data.erase(at, data.find('\n', at) - at);
    const std::string down = "port_status.status = Down\nport_status.speed = 0\nport_status.duplex = Half\n";
    EXPECT_EQ(
        data,
        ">>>>>>> DIAG DATA <<<<<<<\n====== PORT_DIAG_DATA ======\n>> port 1\nport_status.status = Up\n"
        "port_status.speed = 1000\nport_status.duplex = Full\n>> port 2\n" +
            down + ">> port 3\n" + down + ">> port 4\n" + down +
            "\n====== PON_DIAG_DATA ======\npon_status.pon_mode = GPON\n\npon_status.rx_power = -18.52 dBm\n"
            "pon_status.tx_power = 2.35 dBm\n\n====== WAN_DIAG_DATA ======\n"
            "wan_status.wan_name = 1_TR069_INTERNET_R_VID_100\nwan_status.type = route-dhcp\n"
            "wan_status.protocol = IPv4\nwan_status.nat_enable = 1\nwan_status.v4_ip = 192.0.2.10\n"
            "wan_status.v4_gateway = 192.0.2.1\nwan_status.v4_master_dns = 198.51.100.53\n"
            "wan_status.v4_slave_dns = 198.51.100.54\nwan_status.v6_ip = \nwan_status.v6_gateway = \n\n"
            "==== DHCP_DIAG_DATA(server) ====\ndhcp_config_struct.ip_addr = 192.168.1.1\n"
            "dhcp_config_struct.pool_addr_start = 192.168.1.2\ndhcp_config_struct.pool_addr_end = "
            "192.168.1.254\n"
            "dhcp_config_struct.subnet = 255.255.255.0\ndhcp_config_struct.gateway = 192.168.1.1\n"
            "dhcp_config_struct.dns = 192.168.1.1\n\n====== SYS_DIAG_DATA ======\n"
            "sys_status.sys_mem_total = 253476 KByte\nsys_status.sys_mem_free = 132436 KByte\n"
            "sys_status.sys_mem_usage = 47 %\nsys_status.sys_cpu_usage = 12 %\nsys_status\nsys_status\n"
            "sys_status\nsys_status.software_version = V2.1.0R5 [GENERIC]\n"
            "sys_status.dnsmasq = 198.51.100.53/198.51.100.54/\n\n\n>>>> end diag <<<<\n");
}

TEST(WanEndToEnd, DualStackAndParametersOff) {
    Diagnosis d = diagnose("wan-dual-stack");
    EXPECT_EQ(d.path, WHOLE_HEALTHY);
    EXPECT_EQ(d["wan_status"], normal(WAN0 + "[v4] connect normal") + normal(WAN0 + "[v6] connect normal"));
    EXPECT_EQ(d["wan_params"], normal(WAN0 + "[ipv4] params:") + normal("\tNat enable"));
    zqSD_wan_diag want = healthy_wan();
    strcpy(want.protocol, "IPv4_IPv6");
    strcpy(want.v6_ip, "2001:db8:1::10");
    strcpy(want.v6_gateway, "2001:db8:1::1");
    want.v6_conn_state = WAN_CONNECT_NORMAL;
    expect_only_wan(d, want);

    d = diagnose("wan-params-off");
    EXPECT_EQ(d["wan_params"],
              error(WAN0 + "[ipv4] params:") + error("\tNat not enable") + "[warn   ]\tVlan not enable\n");
    want = healthy_wan();
    want.nat_enable = 0;
    want.vlan_enable = 0;
    want.vlan = 0;
    want.params_state = 6;
    expect_only_wan(d, want);
}

struct Outcome {
    const char *scenario; // the lab's, and the fixture's name; pppoe-* or dhcp-*
    uint32_t result;      // the step's result word
    uint32_t state;       // pppoe_state or dhcp_state of the WAN
    const char *findings; // the step's section of the diagnosis log, after its heading
};

void PrintTo(const Outcome &o, std::ostream *os) { *os << o.scenario; }

// pppoe-service-ignored and dhcp-server-ignores print what pppoe-no-concentrator and dhcp-no-server print;
// pppoe-chap-failure's exchange is pppoe-two-services' first session.
const Outcome OUTCOMES[] = {
    {"pppoe-no-concentrator", 5, 5,
     "[warn   ]\tNo servers respond!\n[warn   ]\tIt has a specified service-name: isp1\n"},
    {"pppoe-no-padt", 4, 4, "[warn   ]\tInteraction process not found!\n"},
    {"pppoe-lcp-not-agreed", 0, 0,
     "[normal ]Requested server1 (isp1): \n[error  ]\tLCP  fail!\n"
     "[warn   ]\t\tRejected some configuration of server!\n[warn   ]\t\tMTU:1492, Auth: CHAP, MD5\n"},
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
    uint32_t result = 77; // stays when the step does not run
    std::string decoded;
    while (zq_diag_path_search(&step) == 1) {
        zq_intact_diag_run(&step);
        if (strcmp(step.method, method) != 0) continue;
        result = step.result;
        decoded = exchange::normalized(zqlab::read_file("/tmp/capture_file/capture_parse"));
        const std::vector<std::string> calls = zqlab::journal("diagM");
        EXPECT_TRUE(!calls.empty() && calls.back() == "diagM restart_wan");
    }
    EXPECT_EQ(exchange::without_retries(decoded), exchange::without_retries(exchange::fixture(
                                                      std::string(o.scenario) + ".txt", decoded.c_str())));
    const std::string log = e2e::diag_log();
    EXPECT_EQ(e2e::step_findings(log, method),
              "[error  ]" + std::string(wan_name) + (ppp ? "[ipv4] PPPoE:\n" : "[ipv4] DHCP:\n") + o.findings)
        << log;
    EXPECT_EQ(result, o.result);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_FALSE(zqlab::file_exists("/tmp/capture_file/capture_parse")) << "removed at the end of the path";
    const auto wans = e2e::records<zqSD_wan_diag>(WAN_DIAG_DATA);
    const auto wan =
        std::ranges::find_if(wans, [&](const auto &w) { return strcmp(w.wan_name, wan_name) == 0; });
    ASSERT_NE(wan, wans.end()) << "no WAN record named " << wan_name;
    EXPECT_EQ(ppp ? wan->pppoe_state : wan->dhcp_state, o.state);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, WanProtocols, ::testing::ValuesIn(OUTCOMES));

} // namespace
