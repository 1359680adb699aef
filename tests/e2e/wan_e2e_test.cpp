// The WAN steps of whole diagnoses, through the shipped library's C ABI, one
// lab scenario per case: which steps the path takes, their exact findings
// and every field of the WAN records. The findings of the steps that other
// methods own are left to their own tests.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "zq_diag.h"

namespace {

const std::string WAN0 = "1_TR069_INTERNET_R_VID_100";

// The findings of this library's WAN steps; the path is compared whole.
const char *const WAN_STEPS[] = {"wan_status", "route_status", "dns_status", "wan_params"};

struct Diagnosis {
    std::vector<std::string> path;
    std::map<std::string, std::string> findings; // of the WAN steps
    std::vector<zqSD_wan_diag> wans;
};

Diagnosis diagnose(const std::string &scenario, uint32_t mode = 0) {
    zqlab::scenario(scenario);
    // The verdicts, not the seconds they take, are under test here.
    zqlab::set("ping.interval", "0.2");
    Diagnosis d;
    EXPECT_EQ(e2e::run_and_wait(0, mode), 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    const std::string log = e2e::diag_log();
    d.path = e2e::step_names(log);
    for (const char *step : WAN_STEPS)
        if (std::find(d.path.begin(), d.path.end(), step) != d.path.end())
            d.findings[step] = e2e::step_findings(log, step);
    d.wans = e2e::records<zqSD_wan_diag>(WAN_DIAG_DATA);
    return d;
}

using Path = std::vector<std::string>;
const Path WHOLE_HEALTHY = {"port_status", "pon_status",  "wan_status", "route_status", "dns_status",
                            "wan_params",  "dhcp_config", "sys_status", "end"};

// The WAN record of healthy-gpon, with the given results.
zqSD_wan_diag healthy_wan(uint32_t v4_state = WAN_CONNECT_NORMAL) {
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
    w.v4_conn_state = v4_state;
    w.v6_conn_state = WAN_GATEWAY_UNREACHABLE;
    return w;
}

// A routed WAN of the scenarios without a lease or address.
zqSD_wan_diag leaseless_wan(const char *name, const char *nas, const char *type, const char *service,
                            uint16_t vlan, uint32_t v4_state) {
    zqSD_wan_diag w{};
    w.nat_enable = 1;
    w.vlan_enable = 1;
    w.vlan = vlan;
    strcpy(w.type, type);
    strcpy(w.protocol, "IPv4");
    strcpy(w.nas_interface, nas);
    strcpy(w.service_type, service);
    strcpy(w.wan_name, name);
    w.v4_conn_state = v4_state;
    w.v6_conn_state = WAN_GATEWAY_UNREACHABLE;
    return w;
}

template <size_t N> std::string text(const char (&field)[N]) { return std::string(field, strnlen(field, N)); }

// Field by field, so that a difference names the field.
void expect_wan(const zqSD_wan_diag &got, const zqSD_wan_diag &want) {
    SCOPED_TRACE("WAN " + text(want.wan_name));
    EXPECT_EQ(got.nat_enable, want.nat_enable);
    EXPECT_EQ(got.vlan_enable, want.vlan_enable);
    EXPECT_EQ(got.vlan, want.vlan);
    EXPECT_EQ(text(got.type), text(want.type));
    EXPECT_EQ(text(got.protocol), text(want.protocol));
    EXPECT_EQ(text(got.v4_ip), text(want.v4_ip));
    EXPECT_EQ(text(got.v4_gateway), text(want.v4_gateway));
    EXPECT_EQ(text(got.v4_master_dns), text(want.v4_master_dns));
    EXPECT_EQ(text(got.v4_slave_dns), text(want.v4_slave_dns));
    EXPECT_EQ(text(got.nas_interface), text(want.nas_interface));
    EXPECT_EQ(text(got.service_type), text(want.service_type));
    EXPECT_EQ(text(got.v6_ip), text(want.v6_ip));
    EXPECT_EQ(text(got.v6_gateway), text(want.v6_gateway));
    EXPECT_EQ(text(got.wan_name), text(want.wan_name));
    EXPECT_EQ(got.disable_lan_dhcp, want.disable_lan_dhcp);
    EXPECT_EQ(got.itfGroup, want.itfGroup);
    EXPECT_EQ(got.v4_conn_state, want.v4_conn_state);
    EXPECT_EQ(got.v6_conn_state, want.v6_conn_state);
    EXPECT_EQ(got.dns_state, want.dns_state);
    EXPECT_EQ(got.params_state, want.params_state);
    EXPECT_EQ(got.pppoe_state, want.pppoe_state);
    EXPECT_EQ(got.route_state, want.route_state);
    EXPECT_EQ(got.dhcp_state, want.dhcp_state);
    EXPECT_EQ(memcmp(&got, &want, sizeof(got)), 0) << "bytes outside the fields";
}

std::string normal(const std::string &s) { return "[normal ]" + s + "\n"; }
std::string warn(const std::string &s) { return "[warn   ]" + s + "\n"; }
std::string error(const std::string &s) { return "[error  ]" + s + "\n"; }

const std::string ROUTE_OK = normal("Route of " + WAN0 + " is normal");
const std::string INTERNET_OK =
    normal("DNS is available") + normal(WAN0 + " [V4] Internet connectivity is normal");
const std::string PARAMS_OK = normal(WAN0 + "[ipv4] params:") + normal("\tNat enable");

TEST(WanEndToEnd, HealthyGatewayAndItsModes) {
    Diagnosis d = diagnose("healthy-gpon");
    EXPECT_EQ(d.path, WHOLE_HEALTHY);
    EXPECT_EQ(d.findings["wan_status"], normal(WAN0 + "[v4] connect normal"));
    EXPECT_EQ(d.findings["route_status"], ROUTE_OK);
    EXPECT_EQ(d.findings["dns_status"], INTERNET_OK);
    EXPECT_EQ(d.findings["wan_params"], PARAMS_OK);
    ASSERT_EQ(d.wans.size(), 1u);
    expect_wan(d.wans[0], healthy_wan());
    // The whole log of a healthy gateway: every step has its method, none
    // fails; the daemons' process ids vary from lab to lab.
    const std::string log = e2e::masked_pids(e2e::diag_log());
    EXPECT_EQ(log.find("processing fail"), std::string::npos) << log;
    EXPECT_EQ(log, e2e::golden("healthy-gpon.diag_log", log));

    EXPECT_EQ(diagnose("healthy-gpon", 5).path, (Path{"pon_status", "wan_status", "wan_params", "end"}));
    EXPECT_EQ(diagnose("healthy-gpon", 6).path, (Path{"pon_status", "wan_status", "dns_status", "end"}));
    d = diagnose("healthy-gpon", 9);
    EXPECT_EQ(d.path, (Path{"pon_status", "wan_status", "route_status", "end"}));
    EXPECT_EQ(d.findings["route_status"], ROUTE_OK);
}

// iputils' ping prints other statistics lines; the verdicts are the same.
TEST(WanEndToEnd, IputilsPing) {
    zqlab::scenario("wan-jittery");
    zqlab::set("ping", "iputils");
    zqlab::set("ping.interval", "0.2");
    ASSERT_EQ(e2e::run_and_wait(0, 3), 0);
    EXPECT_EQ(e2e::step_findings(e2e::diag_log(), "wan_status"), warn(WAN0 + "[v4] connect unstable"));
    EXPECT_NE(zqlab::read_file("/tmp/diag_file/cmd_log").find("rtt min/avg/max/mdev = "), std::string::npos);
}

TEST(WanEndToEnd, GatewayUnreachable) {
    Diagnosis d = diagnose("wan-gateway-unreachable");
    EXPECT_EQ(d.path, (Path{"port_status", "pon_status", "wan_status", "route_status", "dhcp_status",
                            "wan_params", "dhcp_config", "sys_status", "end"}));
    EXPECT_EQ(d.findings["wan_status"], error(WAN0 + "[v4] gateway unreachable"));
    EXPECT_EQ(d.findings["route_status"], ROUTE_OK);
    EXPECT_EQ(d.findings["wan_params"], PARAMS_OK);
    ASSERT_EQ(d.wans.size(), 1u);
    // The WAN is down, so dhcp_status restarts it: the ISP side of this
    // scenario runs no DHCP server, and the Discover stays unanswered.
    zqSD_wan_diag want = healthy_wan(WAN_GATEWAY_UNREACHABLE);
    want.dhcp_state = 2;
    expect_wan(d.wans[0], want);
}

// Loss, jitter and slowness all make the WAN "unstable"; the Internet
// behind it is still reached.
TEST(WanEndToEnd, LossyJitteryAndSlowWans) {
    for (const char *scenario : {"wan-lossy", "wan-jittery", "wan-slow"}) {
        SCOPED_TRACE(scenario);
        Diagnosis d = diagnose(scenario);
        EXPECT_EQ(d.path, WHOLE_HEALTHY);
        EXPECT_EQ(d.findings["wan_status"], warn(WAN0 + "[v4] connect unstable"));
        EXPECT_EQ(d.findings["route_status"], ROUTE_OK);
        EXPECT_EQ(d.findings["dns_status"], INTERNET_OK);
        EXPECT_EQ(d.findings["wan_params"], PARAMS_OK);
        ASSERT_EQ(d.wans.size(), 1u);
        expect_wan(d.wans[0], healthy_wan(WAN_CONNECT_UNSTABLE));
    }
}

TEST(WanEndToEnd, RouteMissing) {
    Diagnosis d = diagnose("wan-route-missing");
    EXPECT_EQ(d.path, WHOLE_HEALTHY);
    EXPECT_EQ(d.findings["wan_status"], normal(WAN0 + "[v4] connect normal"));
    EXPECT_EQ(d.findings["route_status"], error("Route of " + WAN0 + " is missing"));
    EXPECT_EQ(d.findings["dns_status"], INTERNET_OK);
    ASSERT_EQ(d.wans.size(), 1u);
    zqSD_wan_diag want = healthy_wan();
    want.route_state = 1;
    expect_wan(d.wans[0], want);
}

TEST(WanEndToEnd, NamesDoNotResolveOrTheInternetIsUnreachable) {
    Diagnosis d = diagnose("wan-dns-broken");
    EXPECT_EQ(d.path, WHOLE_HEALTHY);
    EXPECT_EQ(d.findings["dns_status"],
              error("DNS is unavailable") + normal(WAN0 + " [V4] Internet connectivity is normal"));
    ASSERT_EQ(d.wans.size(), 1u);
    expect_wan(d.wans[0], healthy_wan());

    d = diagnose("wan-internet-unreachable");
    EXPECT_EQ(d.path, WHOLE_HEALTHY);
    EXPECT_EQ(d.findings["wan_status"], normal(WAN0 + "[v4] connect normal"));
    EXPECT_EQ(d.findings["dns_status"],
              normal("DNS is available") + error(WAN0 + " [V4] Internet connectivity is abnormal"));
    ASSERT_EQ(d.wans.size(), 1u);
    zqSD_wan_diag want = healthy_wan();
    want.dns_state = 1;
    expect_wan(d.wans[0], want);
}

TEST(WanEndToEnd, DualStackAndParametersOff) {
    Diagnosis d = diagnose("wan-dual-stack");
    EXPECT_EQ(d.path, WHOLE_HEALTHY);
    EXPECT_EQ(d.findings["wan_status"],
              normal(WAN0 + "[v4] connect normal") + normal(WAN0 + "[v6] connect normal"));
    EXPECT_EQ(d.findings["wan_params"], PARAMS_OK);
    ASSERT_EQ(d.wans.size(), 1u);
    zqSD_wan_diag want = healthy_wan();
    strcpy(want.protocol, "IPv4_IPv6");
    strcpy(want.v6_ip, "2001:db8:1::10");
    strcpy(want.v6_gateway, "2001:db8:1::1");
    want.v6_conn_state = WAN_CONNECT_NORMAL;
    expect_wan(d.wans[0], want);

    d = diagnose("wan-params-off");
    EXPECT_EQ(d.findings["wan_params"],
              error(WAN0 + "[ipv4] params:") + error("\tNat not enable") + warn("\tVlan not enable"));
    ASSERT_EQ(d.wans.size(), 1u);
    want = healthy_wan();
    want.nat_enable = 0;
    want.vlan_enable = 0;
    want.vlan = 0;
    want.params_state = 6;
    expect_wan(d.wans[0], want);
}

// The INTERNET WAN is down over PPP, the IPTV bridge leaves nothing, the
// VOIP WAN works. No Internet WAN is up: no DNS step.
TEST(WanEndToEnd, SeveralWans) {
    Diagnosis d = diagnose("wan-multi");
    EXPECT_EQ(d.path, (Path{"port_status", "pon_status", "wan_status", "route_status", "pppoe_status",
                            "wan_params", "dhcp_config", "sys_status", "end"}));
    const std::string voip = "3_VOIP_R_VID_300";
    EXPECT_EQ(d.findings["wan_status"],
              error(WAN0 + "[v4] ppp service error") + normal(voip + "[v4] connect normal"));
    // The PPP WAN has no address: missing, but the VOIP WAN after it keeps 0.
    EXPECT_EQ(d.findings["route_status"],
              error("Route of " + WAN0 + " is missing") + normal("Route of " + voip + " is normal"));
    EXPECT_EQ(d.findings["wan_params"], PARAMS_OK + normal(voip + "[ipv4] params:") + normal("\tNat enable"));
    ASSERT_EQ(d.wans.size(), 2u);
    zqSD_wan_diag ppp =
        leaseless_wan(WAN0.c_str(), "ppp0", "route-pppoe", "TR069_INTERNET", 100, WAN_PPP_SERVICE_ERROR);
    ppp.itfGroup = 15;
    ppp.route_state = 1;
    ppp.pppoe_state = 5; // PADI sent, no concentrator answered
    expect_wan(d.wans[0], ppp);
    zqSD_wan_diag want =
        leaseless_wan(voip.c_str(), "nas0_2", "route-static", "VOIP", 300, WAN_CONNECT_NORMAL);
    want.nat_enable = 0;
    strcpy(want.v4_ip, "10.20.0.10");
    strcpy(want.v4_gateway, "10.20.0.1");
    strcpy(want.v4_master_dns, "10.20.0.53");
    expect_wan(d.wans[1], want);
}

// Nine routed WANs: nine findings, eight records.
TEST(WanEndToEnd, NineWansKeepEightRecords) {
    Diagnosis d = diagnose("wan-nine");
    EXPECT_EQ(d.path, (Path{"port_status", "pon_status", "wan_status", "route_status", "dns_status",
                            "dhcp_status", "wan_params", "dhcp_config", "sys_status", "end"}));
    std::string wan_findings = normal(WAN0 + "[v4] connect normal");
    std::string route_findings = ROUTE_OK;
    std::string params_findings = PARAMS_OK;
    std::vector<zqSD_wan_diag> want = {healthy_wan()};
    for (int n = 1; n <= 8; ++n) {
        const std::string name = std::to_string(n + 1) + "_OTHER_R_VID_" + std::to_string(100 + n);
        wan_findings += error(name + "[v4] dhcp service error");
        if (n == 8) break; // the ninth WAN has no record
        route_findings += error("Route of " + name + " is missing");
        params_findings += normal(name + "[ipv4] params:") + normal("\tNat enable");
        const std::string nas = "nas0_" + std::to_string(n);
        want.push_back(leaseless_wan(name.c_str(), nas.c_str(), "route-dhcp", "OTHER",
                                     static_cast<uint16_t>(100 + n), WAN_DHCP_SERVICE_ERROR));
        want.back().route_state = 1;
        want.back().dhcp_state = 2; // Discover sent, no DHCP server on the ISP side
    }
    EXPECT_EQ(d.findings["wan_status"], wan_findings);
    EXPECT_EQ(d.findings["route_status"], route_findings);
    EXPECT_EQ(d.findings["dns_status"], INTERNET_OK);
    EXPECT_EQ(d.findings["wan_params"], params_findings);
    ASSERT_EQ(d.wans.size(), 8u);
    for (size_t i = 0; i < want.size(); ++i) expect_wan(d.wans[i], want[i]);
}

// The lab's older scenarios: a WAN without a lease takes no route or DNS
// step; a bridged WAN leaves no record.
TEST(WanEndToEnd, WanWithoutLeaseAndBridgedWan) {
    Diagnosis d = diagnose("wan-dhcp-down");
    EXPECT_EQ(d.path, (Path{"port_status", "pon_status", "wan_status", "dhcp_status", "wan_params",
                            "dhcp_config", "sys_status", "end"}));
    EXPECT_EQ(d.findings["wan_status"], error(WAN0 + "[v4] dhcp service error"));
    ASSERT_EQ(d.wans.size(), 1u);
    zqSD_wan_diag want =
        leaseless_wan(WAN0.c_str(), "nas0_0", "route-dhcp", "TR069_INTERNET", 100, WAN_DHCP_SERVICE_ERROR);
    want.itfGroup = 15;
    want.dhcp_state = 2; // the restarted client's Discover stays unanswered
    expect_wan(d.wans[0], want);

    d = diagnose("bridge-wan", 3);
    EXPECT_EQ(d.findings["wan_status"], normal(WAN0 + "[v4] connect normal"));
    ASSERT_EQ(d.wans.size(), 1u);
    expect_wan(d.wans[0], healthy_wan());
}

// Whatever the manager reports reaches no shell: a gateway that is no
// address is taken as missing.
TEST(WanEndToEnd, MalformedManagerAnswers) {
    zqlab::scenario("healthy-gpon");
    zqlab::set("wan.0.v4_gateway", "192.0.2.1;touch /tmp/pwned");
    zqlab::clear_journal();
    ASSERT_EQ(e2e::run_and_wait(0, 3), 0);
    EXPECT_EQ(e2e::step_findings(e2e::diag_log(), "wan_status"), error(WAN0 + "[v4] dhcp service error"));
    for (const std::string &line : zqlab::journal()) EXPECT_EQ(line.find("ping"), std::string::npos) << line;
    EXPECT_FALSE(zqlab::file_exists("/tmp/pwned"));
}

} // namespace
