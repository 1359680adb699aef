#include <gtest/gtest.h>

#include <string>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "zq_diag.h"

namespace {

using e2e::golden;
using e2e::run_and_wait;

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

} // namespace
