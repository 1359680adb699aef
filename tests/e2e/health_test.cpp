// The gateway's health end to end, one scenario per case: a whole diagnosis
// through the control block, the findings of the steps that open and close
// it (port_status, dhcp_config, sys_status) and their records, then a
// repair and what it changed on the gateway.
#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "zq_diag.h"

namespace {

using e2e::only_record;
using e2e::pid_of;
using e2e::records;
using e2e::run_and_wait;
using e2e::step_findings;

constexpr const char *PORTS_OF_HEALTHY =
    "[normal ]Port[1] up\n[warn   ]Port[2] down\n[warn   ]Port[3] down\n[warn   ]Port[4] down\n";
constexpr const char *LAN_NORMAL = "[normal ]The lan configuration diagnosis is normal\n";
constexpr const char *SYS_NORMAL = "[normal ]The system status diagnosis is normal\n";
constexpr const char *BOA_DROPPED = "[error  ]The boa process dropped --Repairable\n";
constexpr const char *CWMP_DROPPED = "[error  ]The cwmpClient process dropped --Repairable\n";
constexpr const char *MULTI_LAN = "[error  ]Multi lan process exist --Repairable\n";
constexpr const char *REPAIR_ONLY_ENDS = "(no such step)";

struct Diagnosis {
    std::string log;
    std::string ports;
    std::string lan;
    std::string sys;
};

Diagnosis diagnose(const std::string &scenario) {
    if (!scenario.empty()) zqlab::scenario(scenario);
    // The WAN steps ping; their verdicts are not under test here.
    zqlab::set("ping.interval", "0.2");
    EXPECT_EQ(run_and_wait(0, 0), 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    const std::string log = e2e::diag_log();
    return {log, step_findings(log, "port_status"), step_findings(log, "dhcp_config"),
            step_findings(log, "sys_status")};
}

// Runs the repair; returns the findings of its sys_status step. The log of
// a repair follows the diagnosis's and ends with its "end" step.
std::string repair() {
    zqlab::clear_journal();
    EXPECT_EQ(run_and_wait(1, 0), 0);
    const std::string log = e2e::diag_log();
    EXPECT_NE(log.find("\n>>>> end fix <<<<\n"), std::string::npos) << log;
    EXPECT_EQ(is_diag_permit_holding(), 0);
    return step_findings(log, "sys_status", "fix");
}

// A daemon restarted by a repair detaches in the background; its process
// list settles within moments.
size_t running(const char *name) {
    for (int i = 0; i < 200 && zqlab::pids(name).empty(); ++i) usleep(5000);
    return zqlab::pids(name).size();
}

zqSD_sys_diag sys_record() { return only_record<zqSD_sys_diag>(SYS_DIAG_DATA); }
zqSD_dhcp_diag lan_record() { return only_record<zqSD_dhcp_diag>(DHCP_DIAG_DATA); }

TEST(Health, FailedRestartIsReportedAndTheRepairGoesOn) {
    diagnose("restart-fails");
    EXPECT_EQ(step_findings(e2e::diag_log(), "sys_status"), std::string(BOA_DROPPED) + CWMP_DROPPED);
    EXPECT_EQ(sys_record().fault_flags, 3u);
    EXPECT_EQ(repair(), "[error  ]Failed to restart and repair the boa process\n"
                        "[success]The cwmpClient process succeeded in being fixed\n");
    EXPECT_TRUE(zqlab::pids("boa").empty());
    EXPECT_EQ(running("cwmpClient"), 1u);
}

TEST(Health, DuplicateLanDhcpServersBecomeOne) {
    for (const char *count : {"2", "3"}) {
        zqlab::scenario("dhcp-duplicate");
        zqlab::set("udhcpd.count", count);
        Diagnosis d = diagnose("");
        EXPECT_EQ(d.sys, MULTI_LAN) << count;
        EXPECT_EQ(d.lan, LAN_NORMAL);
        EXPECT_EQ(sys_record().fault_flags, 64u);
        EXPECT_EQ(is_zq_fix_available(), 1);
        EXPECT_EQ(repair(), "[normal ]'Multi lan' problem solve\n");
        EXPECT_EQ(zqlab::journal("udhcpd"), std::vector<std::string>{"udhcpd -S /var/udhcpd/udhcpd.conf"});
        EXPECT_EQ(running("udhcpd"), 1u);
        d = diagnose("");
        EXPECT_EQ(d.sys, SYS_NORMAL);
    }
}

TEST(Health, EponWithoutItsOamDaemonAsksForARestartOfTheDevice) {
    const Diagnosis d = diagnose("epon-oam-down");
    EXPECT_EQ(step_findings(d.log, "pon_status"), "[error  ]OAM process down , please restart the ONU \n");
    EXPECT_EQ(d.sys, "[error  ]The eponoamd process dropped --Repairable\n");
    EXPECT_EQ(sys_record().fault_flags, 8u);
    EXPECT_EQ(repair(), "[warn   ]The OAM process cannot be repaired,please restart the ONU\n");
    EXPECT_TRUE(zqlab::pids("eponoamd").empty());
}

TEST(Health, OddButSoundConfigurationIsReadAsItStands) {
    const Diagnosis d = diagnose("dhcp-conf-quirks");
    EXPECT_EQ(d.lan, LAN_NORMAL);
    const zqSD_dhcp_diag lan = lan_record();
    EXPECT_STREQ(lan.interface, "br0.lan-bridge-");
    EXPECT_STREQ(lan.dns, "192.168.1.1");
    EXPECT_STREQ(lan.secondary_dns, "2001:db8:1234:5");
    EXPECT_NE(d.log.find("dhcp_config_struct.dns = 192.168.1.1\n"
                         "dhcp_config_struct.secondary_dns = 2001:db8:1234:5\n"),
              std::string::npos);
}

// The WAN records come from wan_status; without it the LAN side is normal.
TEST(Health, RoutedWanSwitchesLanDhcpOff) {
    const Diagnosis d = diagnose("lan-dhcp-disabled");
    if (!zq_search_diag_record(WAN_DIAG_DATA)) {
        EXPECT_EQ(d.lan, LAN_NORMAL);
        GTEST_SKIP() << "no WAN records: wan_status is not in this build";
    }
    EXPECT_EQ(d.lan, "[warn   ][1_TR069_INTERNET_R_VID_100] disable LAN DHCP:\n"
                     "[warn   ]\tLAN2 is disable\n"
                     "[warn   ]\tLAN4 is disable\n"
                     "[warn   ]\tWLAN(AP0_5G) is disable\n"
                     "[warn   ]\tWLAN(AP1_2.4G) is disable\n");
    const zqSD_dhcp_diag lan = lan_record();
    EXPECT_EQ(lan.lan_dhcp_disabled, 0x41au);
    EXPECT_EQ(lan.fault_flags, 0u);
}

} // namespace
