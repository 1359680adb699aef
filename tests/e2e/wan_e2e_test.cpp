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

} // namespace
