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

TEST_F(RunControl, UnknownActionIsRefused) {
    g_diag_exec.action = 2;
    int rc = 0;
    std::string out = call(&rc);
    EXPECT_EQ(rc, -1);
    EXPECT_NE(out.find("invalid action"), std::string::npos) << out;
    EXPECT_EQ(g_diag_exec.worker, 0ul);
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

} // namespace
