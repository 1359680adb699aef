// The permit has no owner: whoever posts the semaphore frees it. These cases put a second process between an
// event and the library's next release point: the capture's tcpdump dies (or the user stops it), some other
// process frees the permit and a third takes it (and may start a tcpdump of its own). At its next step the
// library must leave that permit, and that tcpdump, alone. (A dead capture seen by the watchdog:
// faults_test.Faults.TcpdumpDiesMidCapture.)
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "lab/zqlab.hpp"
#include "tests/e2e/capture_support.hpp"
#include "zq_diag.h"

namespace {

bool wait_until(const std::function<bool()> &done) {
    for (int i = 0; i < 3000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return done();
}

// Runs `fn` in a process of its own, another management process of the gateway: its exit status.
int in_other_process(int (*fn)()) {
    const pid_t child = fork();
    if (child == 0) _exit(fn());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -100;
    return WEXITSTATUS(status);
}
int take_permit() { return get_diag_permit() == 0 ? 0 : 1; }

// Another process frees the permit (as a tool that saw the holder die does) and a third takes it and keeps
// it (it ends without giving it back).
void permit_passes_to_another_process() {
    ASSERT_EQ(in_other_process([] { return release_diag_permit(); }), 0);
    ASSERT_EQ(is_diag_permit_holding(), 0);
    ASSERT_EQ(in_other_process(take_permit), 0);
    ASSERT_EQ(is_diag_permit_holding(), 1);
}

std::vector<int> tcpdumps() { return zqlab::pids("tcpdump"); }

// A process named tcpdump that is not this library's capture: a child of this test that only waits (a
// shell loop would show a second "tcpdump" each time it forks). `immune` makes it outlive the default
// signal of "pgrep tcpdump | xargs kill".
pid_t other_tcpdump = 0;
void start_other_tcpdump(bool immune) {
    const pid_t child = fork();
    if (child == 0) {
        // The library's threads may be reading pipes now: this copy must not hold their write ends open.
        if (close_range(3, ~0U, 0) != 0)
            for (int fd = 3; fd < 1024; ++fd) close(fd);
        prctl(PR_SET_NAME, "tcpdump");
        if (immune) signal(SIGTERM, SIG_IGN);
        for (;;) pause();
    }
    ASSERT_GT(child, 0);
    other_tcpdump = child;
    ASSERT_TRUE(wait_until([child] { return std::ranges::count(tcpdumps(), child) == 1; }));
}

int stop_capture() {
    g_cap_exec.action = 0;
    return capture_set();
}

// A single capture whose tcpdump ended by itself: 3000 echo requests and replies on the loopback are more
// than the 5000 packets it counts.
void single_capture_ends_by_itself() {
    ASSERT_EQ(e2e::start_capture(0), 0);
    zqlab::run("ping -A -q -c 3000 127.0.0.1 >/dev/null 2>&1");
    ASSERT_TRUE(wait_until([] { return tcpdumps().empty(); })) << "tcpdump did not end after its count";
}

// Rotate mode running, its first upload done; its watcher ends at a closed file without ".pcap".
void start_rotate_mode() {
    ASSERT_EQ(e2e::start_capture(1), 0);
    ASSERT_TRUE(wait_until([] { return zqlab::file_exists("/run/zqlab/isp/ftp/upload/transport_test"); }));
}
void end_rotate_mode() {
    zqlab::write_file("/tmp/capture_file/note", "x");
    ASSERT_TRUE(wait_until(e2e::rotate_chain_ended)) << "rotate mode did not end";
}

class PermitHolder : public ::testing::Test {
  protected:
    void TearDown() override {
        if (other_tcpdump <= 0) return;
        kill(other_tcpdump, SIGKILL);
        waitpid(other_tcpdump, nullptr, 0);
    }
};

// A stop request for a single capture that ended by itself. With nobody in between, the stop packs it and
// gives its permit back, as any stop; when another process's capture runs by now with the permit, the stop
// leaves both.
TEST_F(PermitHolder, StopAfterTheCaptureEnded) {
    single_capture_ends_by_itself();
    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_EQ(zqlab::run("tar -tf /tmp/capture_file/capture.tar"), "capture.pcap\n");

    single_capture_ends_by_itself();
    permit_passes_to_another_process();
    start_other_tcpdump(false);
    const std::vector<int> other = tcpdumps();
    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    EXPECT_EQ(is_diag_permit_holding(), 1) << "the other process's permit was freed";
    EXPECT_EQ(tcpdumps(), other) << "the other process's tcpdump was stopped";
}

// Rotate mode, stopped by the user: the stop gives the permit back, another process takes it and runs a
// capture that the stop's signal did not end. Rotate mode's end must not stop that capture nor free its
// permit.
TEST_F(PermitHolder, RotateEndAfterTheUserStopLeavesTheNextHolder) {
    start_rotate_mode();
    start_other_tcpdump(true);
    ASSERT_EQ(tcpdumps().size(), 2u);
    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE);
    ASSERT_EQ(is_diag_permit_holding(), 0) << "the stop gives the permit back";
    ASSERT_EQ(in_other_process(take_permit), 0);
    const std::vector<int> other = tcpdumps();
    ASSERT_EQ(other.size(), 1u);

    end_rotate_mode();
    EXPECT_EQ(is_diag_permit_holding(), 1) << "rotate mode's end freed the next holder's permit";
    EXPECT_EQ(tcpdumps(), other);
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE);
}

// Rotate mode whose tcpdump dies by itself; its permit passes to another process, which runs its own
// tcpdump. Rotate mode's end finds a tcpdump, but not its own: it stops nothing and frees nothing.
TEST_F(PermitHolder, RotateEndAfterTcpdumpDiedLeavesTheNextHolder) {
    start_rotate_mode();
    const std::vector<int> own = tcpdumps();
    ASSERT_EQ(own.size(), 1u);
    start_other_tcpdump(false);
    kill(own.front(), SIGKILL);
    ASSERT_TRUE(wait_until([] { return tcpdumps().size() == 1; }));
    const std::vector<int> other = tcpdumps();
    permit_passes_to_another_process();

    end_rotate_mode();
    EXPECT_EQ(is_diag_permit_holding(), 1) << "rotate mode's end freed the next holder's permit";
    EXPECT_EQ(tcpdumps(), other) << "rotate mode's end stopped another's tcpdump";
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE) << "the end of rotate mode leaves the block idle";
}

// A diagnosis whose permit was freed mid-run by the process that runs it (as zqdiag gives up on a run that
// outlasts its timeout) and then taken by another process: the run's own "end" step leaves that permit.
TEST_F(PermitHolder, DiagnosisEndAfterItsPermitWasFreedLeavesTheNextHolder) {
    zq_diag_step step{};
    ASSERT_EQ(zq_diag_path_search(&step), 1);
    ASSERT_EQ(is_diag_permit_holding(), 1);
    ASSERT_EQ(release_diag_permit(), 0);
    ASSERT_EQ(in_other_process(take_permit), 0);
    while (zq_diag_path_search(&step) == 1) zq_intact_diag_run(&step);
    EXPECT_STREQ(step.method, "end");
    EXPECT_EQ(is_diag_permit_holding(), 1) << "the end step freed the next holder's permit";
}

} // namespace
