// The gateway's health end to end, one scenario per case: a whole diagnosis, the findings of pon_status,
// dhcp_config and sys_status and their records, then a repair and what it changed.
#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "zq_diag.h"

namespace {

using e2e::diagnose;
using e2e::step_findings;

constexpr const char *LAN_NORMAL = "[normal ]The lan configuration diagnosis is normal\n";

// Runs a repair of `mode`; its log follows the diagnosis's and ends with its "end" step.
std::string repair(uint32_t mode = 0) {
    zqlab::clear_journal();
    EXPECT_EQ(e2e::run_and_wait(1, mode), 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    const std::string log = e2e::diag_log();
    const std::vector<std::string> steps = e2e::step_names(log, "fix");
    EXPECT_TRUE(!steps.empty() && steps.back() == "end") << log;
    return log;
}

// A daemon restarted by a repair detaches in the background; its process list settles within moments.
size_t running(const char *name) {
    e2e::wait_until([name] { return !zqlab::pids(name).empty(); }, 1);
    return zqlab::pids(name).size();
}

zqSD_sys_diag sys_record() { return e2e::only_record<zqSD_sys_diag>(SYS_DIAG_DATA); }
zqSD_dhcp_diag lan_record() { return e2e::only_record<zqSD_dhcp_diag>(DHCP_DIAG_DATA); }

// A management process runs diagnoses for as long as the gateway is up: none may leave a descriptor open.
TEST(Health, DiagnosesAndRepairsLeaveNoDescriptorOpen) {
    const auto open_fds = [] { return zqlab::run("ls /proc/" + std::to_string(getpid()) + "/fd"); };
    diagnose("");
    const std::string before = open_fds();
    diagnose("");
    repair(5);
    // The worker says it is done a moment before its last close: a leak stays, a late close does not.
    e2e::wait_until([&] { return open_fds() == before; }, 3);
    EXPECT_EQ(open_fds(), before);
}

TEST(Health, RepairAfterDiagnosisTurnsPonDetectionOn) {
    diagnose("");
    const std::string log = repair(5);
    EXPECT_EQ(e2e::step_names(log, "fix"), (std::vector<std::string>{"pon_status", "end"}));
    EXPECT_EQ(step_findings(log, "pon_status", "fix"),
              "[normal ]Pon auto detect was turn on. Please reboot device to take effect!\n");
    EXPECT_NE(zqlab::run("flash get PON_DETECT").find("=1"), std::string::npos);
    EXPECT_NE(zq_search_diag_record(PON_DIAG_DATA), nullptr) << "the repair keeps the diagnosis records";
}

TEST(Health, FailedRestartIsReportedAndTheRepairGoesOn) {
    EXPECT_EQ(step_findings(diagnose("restart-fails"), "sys_status"),
              "[error  ]The boa process dropped --Repairable\n"
              "[error  ]The cwmpClient process dropped --Repairable\n");
    EXPECT_EQ(sys_record().fault_flags, 3u);
    EXPECT_EQ(step_findings(repair(), "sys_status", "fix"),
              "[error  ]Failed to restart and repair the boa process\n"
              "[success]The cwmpClient process succeeded in being fixed\n");
    EXPECT_EQ(running("cwmpClient"), 1u);
}

// Two servers, the fewest that are a fault (three, repaired: tests/cli CliRepair.RestartsDaemons...).
TEST(Health, DuplicateLanDhcpServersBecomeOne) {
    const std::string log = diagnose("dhcp-duplicate");
    EXPECT_EQ(step_findings(log, "sys_status"), "[error  ]Multi lan process exist --Repairable\n");
    EXPECT_EQ(step_findings(log, "dhcp_config"), LAN_NORMAL);
    EXPECT_EQ(sys_record().fault_flags, 64u);
    EXPECT_EQ(is_zq_fix_available(), 1);
    EXPECT_EQ(step_findings(repair(), "sys_status", "fix"), "[normal ]'Multi lan' problem solve\n");
    EXPECT_EQ(zqlab::journal("udhcpd"), std::vector<std::string>{"udhcpd -S /var/udhcpd/udhcpd.conf"});
    EXPECT_EQ(running("udhcpd"), 1u);
    EXPECT_EQ(step_findings(diagnose(""), "sys_status"), "[normal ]The system status diagnosis is normal\n");
}

TEST(Health, EponWithoutItsOamDaemonAsksForARestartOfTheDevice) {
    const std::string log = diagnose("epon-oam-down");
    EXPECT_EQ(step_findings(log, "pon_status"), "[error  ]OAM process down , please restart the ONU \n");
    EXPECT_EQ(step_findings(log, "sys_status"), "[error  ]The eponoamd process dropped --Repairable\n");
    EXPECT_EQ(sys_record().fault_flags, 8u);
    EXPECT_EQ(step_findings(repair(), "sys_status", "fix"),
              "[warn   ]The OAM process cannot be repaired,please restart the ONU\n");
    EXPECT_TRUE(zqlab::pids("eponoamd").empty());
}

TEST(Health, OddButSoundConfigurationIsReadAsItStands) {
    const std::string log = diagnose("dhcp-conf-quirks");
    EXPECT_EQ(step_findings(log, "dhcp_config"), LAN_NORMAL);
    const zqSD_dhcp_diag lan = lan_record();
    EXPECT_STREQ(lan.interface, "br0.lan-bridge-");
    EXPECT_STREQ(lan.dns, "192.168.1.1");
    EXPECT_STREQ(lan.secondary_dns, "2001:db8:1234:5");
    EXPECT_NE(log.find("dhcp_config_struct.dns = 192.168.1.1\n"
                       "dhcp_config_struct.secondary_dns = 2001:db8:1234:5\n"),
              std::string::npos);
}

TEST(Health, RoutedWanSwitchesLanDhcpOff) {
    EXPECT_EQ(step_findings(diagnose("lan-dhcp-disabled"), "dhcp_config"),
              "[warn   ][1_TR069_INTERNET_R_VID_100] disable LAN DHCP:\n"
              "[warn   ]\tLAN2 is disable\n"
              "[warn   ]\tLAN4 is disable\n"
              "[warn   ]\tWLAN(AP0_5G) is disable\n"
              "[warn   ]\tWLAN(AP1_2.4G) is disable\n");
    const zqSD_dhcp_diag lan = lan_record();
    EXPECT_EQ(lan.lan_dhcp_disabled, 0x41au);
    EXPECT_EQ(lan.fault_flags, 0u);
}

} // namespace
