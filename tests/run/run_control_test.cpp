#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "engine/engine.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace {

class RunControl : public ::testing::Test {
  protected:
    void SetUp() override { memset(&g_diag_exec, 0, sizeof(g_diag_exec)); }

    // Waits for the worker to end; gives up after a generous bound.
    static void wait_worker() {
        for (int i = 0; i < 3000 && __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_EQ(g_diag_exec.worker, 0ul) << "worker did not end";
    }

    static std::string call(int *rc) {
        testing::internal::CaptureStdout();
        *rc = diagnose_set();
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(RunControl, BusyWorkerStartsNothing) {
    for (uint32_t action : {0u, 1u, 2u}) {
        g_diag_exec.worker = 1;
        g_diag_exec.action = action;
        int rc = -7;
        std::string out = call(&rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(out, "diagnose execution is busy\n");
        EXPECT_EQ(g_diag_exec.state, 0u);
    }
    g_diag_exec.worker = 0;
}

TEST_F(RunControl, UnavailableBeforeAnyAction) {
    ASSERT_EQ(get_diag_permit(), 0);
    for (uint32_t action : {0u, 1u}) {
        g_diag_exec.action = action;
        int rc = 0;
        std::string out = call(&rc);
        EXPECT_EQ(rc, -1);
        EXPECT_NE(out.find("!Diagnose is unavaliable"), std::string::npos) << out;
    }
    release_diag_permit();
    zqlab::set("alarm", "0x08");
    g_diag_exec.action = 0;
    int rc = 0;
    call(&rc);
    EXPECT_EQ(rc, -1);
}

TEST_F(RunControl, UnknownActionIsRefused) {
    g_diag_exec.action = 2;
    int rc = 0;
    std::string out = call(&rc);
    EXPECT_EQ(rc, -1);
    EXPECT_NE(out.find("invalid action"), std::string::npos) << out;
    EXPECT_EQ(g_diag_exec.worker, 0ul);
}

TEST_F(RunControl, DiagnosisRunsToTheEnd) {
    g_diag_exec.mode = 2;
    int rc = 0;
    call(&rc);
    ASSERT_EQ(rc, 0);
    wait_worker();
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    EXPECT_STREQ(zq_running_method, "end");
    EXPECT_EQ(is_diag_permit_holding(), 0);
    std::string log = zqlab::read_file(ZQ_DIAG_LOG_PATH);
    EXPECT_NE(log.find(">>>> pon_status diag <<<<"), std::string::npos) << log;
    EXPECT_NE(log.find(">>>> end diag <<<<"), std::string::npos) << log;
    EXPECT_EQ(log.find("port_status"), std::string::npos) << log;
}

TEST_F(RunControl, RepairIgnoresTheMode) {
    zqSD_pon_diag pon{};
    pon.reg_state = 2;
    ASSERT_EQ(zq_diag_record(PON_DIAG_DATA, &pon, sizeof(pon)), 0);
    zqSD_sys_diag sys{};
    sys.fault_flags = 1;
    ASSERT_EQ(zq_diag_record(SYS_DIAG_DATA, &sys, sizeof(sys)), 0);
    ASSERT_EQ(make_dir("/tmp/diag_file"), 0);
    g_diag_exec.kind = 1;
    g_diag_exec.mode = 2; // would admit only pon_status
    int rc = 0;
    call(&rc);
    ASSERT_EQ(rc, 0);
    wait_worker();
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    std::string log = zqlab::read_file(ZQ_DIAG_LOG_PATH);
    EXPECT_NE(log.find(">>>> sys_status fix <<<<"), std::string::npos) << log;
    EXPECT_NE(log.find(">>>> pon_status fix <<<<"), std::string::npos) << log;
    EXPECT_NE(log.find(">>>> end fix <<<<"), std::string::npos) << log;
}

TEST_F(RunControl, UnknownKindEndsIdle) {
    g_diag_exec.kind = 5;
    g_diag_exec.state = EXEC_DONE;
    testing::internal::CaptureStdout();
    int rc = diagnose_set();
    wait_worker();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_IDLE);
    EXPECT_NE(out.find("Invalid input"), std::string::npos) << out;
    EXPECT_NE(out.find("Diagnose may already exist in system."), std::string::npos) << out;
}

TEST_F(RunControl, PermitRefusedInTheWorkerStillEndsDone) {
    // No diagnosis manager: the availability check passes, the permit does not.
    zqlab::set("diagm.running", "no");
    int rc = 0;
    call(&rc);
    ASSERT_EQ(rc, 0);
    wait_worker();
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
}

TEST_F(RunControl, StepOfAnUnknownMethodIsStillLogged) {
    ASSERT_EQ(make_dir("/tmp/diag_file"), 0);
    zq_diag_step step{};
    strcpy(step.method, "nosuch");
    step.action = ACTION_DIAG;
    testing::internal::CaptureStdout();
    EXPECT_EQ(zq_intact_diag_run(&step), -1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("can't find the method nosuch"), std::string::npos);
    EXPECT_STREQ(zq_diag_msg, "[error  ]nosuch processing fail\n");
    EXPECT_EQ(zqlab::read_file(ZQ_DIAG_LOG_PATH),
              "\n>>>> nosuch diag <<<<\n[error  ]nosuch processing fail\n");
}

TEST_F(RunControl, StepNameFillingAllBytesIsHandledSafely) {
    zq_diag_step step;
    memset(&step, 'a', sizeof(step));
    step.action = ACTION_DIAG;
    EXPECT_EQ(zq_intact_diag_run(&step), -1);
    EXPECT_NE(std::string(zq_diag_msg).find("processing fail"), std::string::npos);
}

} // namespace
