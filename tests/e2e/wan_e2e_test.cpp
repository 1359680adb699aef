// The WAN steps of whole diagnoses, through the shipped library's C ABI, one
// lab scenario per case: which steps the path takes, their exact findings
// and every byte of the WAN records.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
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
    zqlab::scenario(scenario);
    zqlab::set("ping.interval", "0.2"); // the verdicts, not the seconds they take, are under test
    EXPECT_EQ(e2e::run_and_wait(0, 0), 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    const std::string log = e2e::diag_log();
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

} // namespace
