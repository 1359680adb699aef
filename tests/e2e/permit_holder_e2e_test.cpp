// The permit has no owner: whoever posts the semaphore frees it. These
// cases put a second process between an event and the library's next
// release point: the capture's tcpdump dies (or the user stops it), some
// other process frees the permit and a third takes it (and may start a
// tcpdump of its own). At its next step the library must leave that
// permit, and that tcpdump, alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
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

constexpr const char *FTP_DIR = "/run/zqlab/isp/ftp/upload/";

bool wait_until(const std::function<bool()> &done, int seconds = 60) {
    for (int i = 0; i < seconds * 50; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
}

// Runs `fn` in a process of its own: another management process of the
// gateway. Its exit status is what `fn` returned.
int in_other_process(int (*fn)()) {
    const pid_t child = fork();
    if (child == 0) _exit(fn());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -100;
    return WEXITSTATUS(status);
}

// Another process frees the permit (as a tool that saw the holder die does)
// and a third takes it and keeps it (it ends without giving it back).
void permit_passes_to_another_process() {
    ASSERT_EQ(in_other_process([] { return release_diag_permit(); }), 0);
    ASSERT_EQ(is_diag_permit_holding(), 0);
    ASSERT_EQ(in_other_process([] { return get_diag_permit() == 0 ? 0 : 1; }), 0);
    ASSERT_EQ(is_diag_permit_holding(), 1);
}

// A process named tcpdump that is not this library's capture: a child of
// this test that only waits (a shell loop would show a second "tcpdump"
// for a moment each time it forks). `immune` makes it outlive the default
// signal of "pgrep tcpdump | xargs kill".
pid_t other_tcpdump = 0;

void start_other_tcpdump(bool immune) {
    const pid_t child = fork();
    if (child == 0) {
        // The library's threads may be reading pipes at this moment: the
        // write ends this fork copied must not hold their end of file back.
        if (close_range(3, ~0U, 0) != 0)
            for (int fd = 3; fd < 1024; ++fd) close(fd);
        prctl(PR_SET_NAME, "tcpdump");
        if (immune) signal(SIGTERM, SIG_IGN);
        for (;;) pause();
    }
    ASSERT_GT(child, 0);
    other_tcpdump = child;
    ASSERT_TRUE(wait_until([child] {
        const std::vector<int> named = zqlab::pids("tcpdump");
        return std::find(named.begin(), named.end(), child) != named.end();
    }));
}

std::vector<int> tcpdumps() { return zqlab::pids("tcpdump"); }

int stop_capture() {
    g_cap_exec.action = 0;
    return capture_set();
}

// 3000 echo requests and replies on the loopback: more than the 5000
// packets a single capture counts, so its tcpdump ends by itself.
void fill_single_capture() {
    zqlab::run("ping -A -q -c 3000 127.0.0.1 >/dev/null 2>&1");
    ASSERT_TRUE(wait_until([] { return tcpdumps().empty(); })) << "tcpdump did not end after its count";
}

// A closed file without ".pcap" in the capture directory ends the watcher.
void end_rotate_watcher() { zqlab::write_file("/tmp/capture_file/note", "x"); }

class PermitHolder : public ::testing::Test {
  protected:
    void TearDown() override {
        if (other_tcpdump <= 0) return;
        kill(other_tcpdump, SIGKILL);
        waitpid(other_tcpdump, nullptr, 0);
        other_tcpdump = 0;
    }
};

// The watchdog only records the dead capture: it neither packs its file nor
// frees the permit, which by now belongs to another process; a stop request
// after it does nothing.
TEST_F(PermitHolder, DeadSingleCaptureIsOnlyRecorded) {
    ASSERT_EQ(e2e::start_capture(0), 0);
    fill_single_capture();
    permit_passes_to_another_process();

    EXPECT_EQ(capture_abnormal_get(), -1);
    EXPECT_EQ(g_cap_exec.action, 0u);
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    EXPECT_EQ(is_diag_permit_holding(), 1) << "the other process's permit was freed";
    EXPECT_GT(zq_get_file_size("/tmp/capture_file/capture.pcap"), 0) << "the capture was packed";
    EXPECT_FALSE(zqlab::file_exists("/tmp/capture_file/capture.tar"));
    EXPECT_EQ(capture_abnormal_get(), 0) << "reported once";

    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    EXPECT_EQ(is_diag_permit_holding(), 1);
}

// No watchdog ran before the stop request: the capture's tcpdump is gone
// and another process's capture runs with the permit. The stop leaves both.
TEST_F(PermitHolder, StopAfterTheCaptureDiedLeavesTheNextCaptureAlone) {
    ASSERT_EQ(e2e::start_capture(0), 0);
    fill_single_capture();
    permit_passes_to_another_process();
    start_other_tcpdump(false);
    const std::vector<int> other = tcpdumps();

    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    EXPECT_EQ(is_diag_permit_holding(), 1) << "the other process's permit was freed";
    EXPECT_EQ(tcpdumps(), other) << "the other process's tcpdump was stopped";
}

// A single capture that ended by itself and was stopped with nobody in
// between: the stop packs it and gives its permit back, as for any stop.
TEST_F(PermitHolder, StopAfterTheCaptureEndedGivesItsOwnPermitBack) {
    ASSERT_EQ(e2e::start_capture(0), 0);
    fill_single_capture();
    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_DONE);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_EQ(zqlab::run("tar -tf /tmp/capture_file/capture.tar"), "capture.pcap\n");
}

// Rotate mode, stopped by the user: the stop gives the permit back, another
// process takes it and runs a capture that the stop's signal did not end.
// When the watcher ends, rotate mode's end must not stop that capture nor
// free its permit.
TEST_F(PermitHolder, RotateEndAfterTheUserStopLeavesTheNextHolder) {
    ASSERT_EQ(e2e::start_capture(1), 0);
    ASSERT_TRUE(wait_until([] { return zqlab::file_exists(std::string(FTP_DIR) + "transport_test"); }));
    start_other_tcpdump(true);
    ASSERT_EQ(tcpdumps().size(), 2u);

    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE);
    ASSERT_EQ(is_diag_permit_holding(), 0) << "the stop gives the permit back";
    ASSERT_EQ(in_other_process([] { return get_diag_permit() == 0 ? 0 : 1; }), 0);
    const std::vector<int> other = tcpdumps();
    ASSERT_EQ(other.size(), 1u);

    end_rotate_watcher();
    ASSERT_TRUE(wait_until(e2e::rotate_chain_ended)) << "rotate mode did not end";
    EXPECT_EQ(is_diag_permit_holding(), 1) << "rotate mode's end freed the next holder's permit";
    EXPECT_EQ(tcpdumps(), other);
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE);
}

// Rotate mode whose tcpdump dies by itself: the permit it took is freed by
// another process and taken by a third, which runs its own tcpdump. Rotate
// mode's end finds a tcpdump, but not its own: it stops nothing and frees
// nothing.
TEST_F(PermitHolder, RotateEndAfterTcpdumpDiedLeavesTheNextHolder) {
    ASSERT_EQ(e2e::start_capture(1), 0);
    ASSERT_TRUE(wait_until([] { return zqlab::file_exists(std::string(FTP_DIR) + "transport_test"); }));
    const std::vector<int> own = tcpdumps();
    ASSERT_EQ(own.size(), 1u);
    start_other_tcpdump(false);
    kill(own.front(), SIGKILL);
    ASSERT_TRUE(wait_until([] { return tcpdumps().size() == 1; }));
    const std::vector<int> other = tcpdumps();
    permit_passes_to_another_process();

    end_rotate_watcher();
    ASSERT_TRUE(wait_until(e2e::rotate_chain_ended)) << "rotate mode did not end";
    EXPECT_EQ(is_diag_permit_holding(), 1) << "rotate mode's end freed the next holder's permit";
    EXPECT_EQ(tcpdumps(), other) << "rotate mode's end stopped another's tcpdump";
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE) << "the end of rotate mode leaves the block idle";
}

// The "end" step gives back only a permit this process took: dispatched by
// a process that took none, it leaves another's permit taken.
TEST_F(PermitHolder, EndStepFreesOnlyAPermitTakenHere) {
    ASSERT_EQ(in_other_process([] { return get_diag_permit() == 0 ? 0 : 1; }), 0);
    zq_diag_step end{};
    snprintf(end.method, sizeof(end.method), "end");
    end.action = ACTION_DIAG;
    zq_intact_diag_run(&end);
    EXPECT_EQ(is_diag_permit_holding(), 1);

    ASSERT_EQ(release_diag_permit(), 0);
    ASSERT_EQ(get_diag_permit(), 0);
    zq_intact_diag_run(&end);
    EXPECT_EQ(is_diag_permit_holding(), 0);
}

// A diagnosis whose permit was freed mid-run by the process that runs it
// (as zqdiag gives up on a run that outlasts its timeout) and then taken by
// another process: the run's own "end" step leaves that permit taken.
TEST_F(PermitHolder, DiagnosisEndAfterItsPermitWasFreedLeavesTheNextHolder) {
    zq_diag_step step{};
    ASSERT_EQ(zq_diag_path_search(&step), 1);
    ASSERT_EQ(is_diag_permit_holding(), 1);
    ASSERT_EQ(release_diag_permit(), 0);
    ASSERT_EQ(in_other_process([] { return get_diag_permit() == 0 ? 0 : 1; }), 0);
    while (zq_diag_path_search(&step) == 1) zq_intact_diag_run(&step);
    EXPECT_STREQ(step.method, "end");
    EXPECT_EQ(is_diag_permit_holding(), 1) << "the end step freed the next holder's permit";
}

} // namespace
