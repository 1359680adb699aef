#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "engine/engine.h"
#include "records/records.h"
#include "tests/engine/address_space.hpp"

using namespace zq;

namespace {

class RunControl : public ::testing::Test {
  protected:
    void SetUp() override { g_diag_exec = {}; }

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

// A worker thread that cannot be started (no room for its stack): -1, the
// block as it was, so that the next request is not refused as busy.
TEST_F(RunControl, WorkerThatCannotStartLeavesTheBlockAsItWas) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' allocators abort where libc's fail";
#endif
    constexpr int NO_LIMIT_HERE = 30;
    const pid_t child = fork();
    if (child == 0) {
        g_diag_exec.state = EXEC_DONE;
        if (!cap_address_space()) _exit(NO_LIMIT_HERE); // room for the request, not for a thread's stack
        const int rc = diagnose_set();
        _exit(rc == -1 && g_diag_exec.state == EXEC_DONE && g_diag_exec.worker == 0 ? 0 : 20);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    if (WEXITSTATUS(status) == NO_LIMIT_HERE) GTEST_SKIP() << "the address space cannot be capped here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace
