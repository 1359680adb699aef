#include <gtest/gtest.h>

#include <string>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "zq_diag.h"

namespace {

using e2e::golden;
using e2e::run_and_wait;

std::string members(const std::string &archive) { return zqlab::run("tar -tf " + archive); }

TEST(EndToEnd, DiagnosisOfAnUnregisteredGateway) {
    ASSERT_EQ(run_and_wait(0, 0), 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    EXPECT_STREQ(zq_running_method, "end");
    EXPECT_EQ(is_diag_permit_holding(), 0);
    const std::string log = e2e::masked_pids(e2e::diag_log());
    EXPECT_EQ(log, golden("pon-unregistered.diag_log", log));

    const diag_data_node *pon = zq_search_diag_record(PON_DIAG_DATA);
    ASSERT_NE(pon, nullptr);
    EXPECT_EQ(pon->size, get_diag_data_size(PON_DIAG_DATA));
    EXPECT_EQ(static_cast<const zqSD_pon_diag *>(pon->data)->reg_state, 2u);
    EXPECT_EQ(zq_search_diag_record(WAN_DIAG_DATA), nullptr);
}

TEST(EndToEnd, RepairAfterDiagnosisTurnsDetectionOn) {
    ASSERT_EQ(run_and_wait(0, 0), 0);
    zqlab::clear_journal();
    ASSERT_EQ(run_and_wait(1, 5), 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    std::string log = zqlab::read_file("/tmp/diag_file/diag_log");
    EXPECT_NE(
        log.find("\n>>>> pon_status fix <<<<\n[normal ]Pon auto detect was turn on. Please reboot device to "
                 "take effect!\n\n>>>> end fix <<<<\n"),
        std::string::npos)
        << log;
    EXPECT_NE(zqlab::run("flash get PON_DETECT").find("=1"), std::string::npos);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    // The repair kept the diagnosis records.
    EXPECT_NE(zq_search_diag_record(PON_DIAG_DATA), nullptr);
}

TEST(EndToEnd, PackageHoldsTheEvidenceInOrder) {
    ASSERT_EQ(run_and_wait(0, 0), 0);
    ASSERT_EQ(zq_packet_diag_file(), 0);
    EXPECT_EQ(members("/tmp/diag_file/diag_log.tar"), "diag_log\ncmd_log\nfirewall_stat\nconfig_stat\n");
    EXPECT_NE(zq_clear_diag_file(), 0) << "no capture was there to remove";
    EXPECT_NE(zqlab::run("ls /tmp/diag_file").find("diag_log"), std::string::npos);
    EXPECT_EQ(zqlab::run("ls /tmp/diag_file/diag_log.tar 2>/dev/null"), "");
}

TEST(EndToEnd, SwitchedOffLogsLeaveNoFiles) {
    do_not_generate_log = 1;
    ASSERT_EQ(run_and_wait(0, 2), 0);
    do_not_generate_log = 0;
    EXPECT_EQ(zqlab::run("ls /tmp/diag_file 2>/dev/null"), "");
}

} // namespace
