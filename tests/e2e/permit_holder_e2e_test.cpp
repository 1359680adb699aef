// The permit has no owner. Another process between an event and the library's next release point frees the
// permit, a third takes it (and may run a tcpdump): the library must leave both alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lab/zqlab.hpp"
#include "tests/e2e/capture_support.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "zq_diag.h"

namespace {

using e2e::wait_until;

// `fn`'s result in another process (of another management process of the gateway).
int in_other_process(int (*fn)()) {
    const pid_t child = fork();
    if (child == 0) _exit(fn());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -100;
    return WEXITSTATUS(status);
}
int take_permit() { return get_diag_permit() == 0 ? 0 : 1; }

// One process frees the permit (as a tool that saw the holder die does), a third takes it and keeps it.
void permit_passes_to_another_process() {
    ASSERT_EQ(in_other_process([] { return release_diag_permit(); }), 0);
    ASSERT_EQ(in_other_process(take_permit), 0); // a try: it was free
    ASSERT_EQ(is_diag_permit_holding(), 1);
}

std::vector<int> tcpdumps() { return zqlab::pids("tcpdump"); }
int stop_capture() {
    g_cap_exec.action = 0;
    return capture_set();
}

// A process named tcpdump that is not this library's capture, a child that only waits (and dies with the
// test); `immune` outlives the default signal of "pgrep tcpdump | xargs kill".
void start_other_tcpdump(bool immune) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The library's threads may be reading pipes: this copy must not hold their write ends open.
        if (close_range(3, ~0U, 0) != 0)
            for (int fd = 3; fd < 1024; ++fd) close(fd);
        prctl(PR_SET_NAME, "tcpdump");
        if (immune) signal(SIGTERM, SIG_IGN);
        for (;;) pause();
    }
    ASSERT_GT(child, 0);
    ASSERT_TRUE(wait_until([child] { return std::ranges::count(tcpdumps(), child) == 1; }));
}

// A single capture whose tcpdump ended by itself: 6000 echo packets are more than the 5000 it counts.
void single_capture_ends_by_itself() {
    ASSERT_EQ(e2e::start_capture(0), 0);
    zqlab::run("ping -A -q -c 3000 127.0.0.1 >/dev/null 2>&1");
    ASSERT_TRUE(wait_until([] { return tcpdumps().empty(); })) << "tcpdump did not end after its count";
}

// Rotate mode running, its first upload done.
void start_rotate_mode() {
    ASSERT_EQ(e2e::start_capture(1), 0);
    ASSERT_TRUE(wait_until([] { return zqlab::file_exists("/run/zqlab/isp/ftp/upload/transport_test"); }));
}
// Rotate mode's watcher ends at a closed file without ".pcap"; its end leaves the `other` tcpdumps and the
// permit that another process holds.
void end_rotate_mode_leaving(const std::vector<int> &other) {
    zqlab::write_file("/tmp/capture_file/note", "x");
    ASSERT_TRUE(wait_until(e2e::rotate_chain_ended)) << "rotate mode did not end";
    EXPECT_EQ(is_diag_permit_holding(), 1) << "rotate mode's end freed the next holder's permit";
    EXPECT_EQ(tcpdumps(), other) << "rotate mode's end stopped another's tcpdump";
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE) << "the end of rotate mode leaves the block idle";
}

// A stop after the single capture ended by itself packs it and gives its permit back, as any stop; when
// another process's capture runs by now with the permit, it leaves both.
TEST(PermitHolder, StopAfterTheCaptureEnded) {
    single_capture_ends_by_itself();
    EXPECT_EQ(stop_capture(), 0); // its state: Capture.StartAndStopThroughTheBlock
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

// Rotate mode stopped by the user; then another process takes the permit, its capture survived the stop.
TEST(PermitHolder, RotateEndAfterTheUserStopLeavesTheNextHolder) {
    start_rotate_mode();
    start_other_tcpdump(true);
    ASSERT_EQ(tcpdumps().size(), 2u);
    EXPECT_EQ(stop_capture(), 0);
    EXPECT_EQ(g_cap_exec.state, EXEC_IDLE);
    ASSERT_EQ(is_diag_permit_holding(), 0) << "the stop gives the permit back";
    ASSERT_EQ(in_other_process(take_permit), 0);
    const std::vector<int> other = tcpdumps();
    ASSERT_EQ(other.size(), 1u);
    end_rotate_mode_leaving(other);
}

// Rotate mode's tcpdump dies, its permit passes to another process that runs a tcpdump: not rotate mode's.
TEST(PermitHolder, RotateEndAfterTcpdumpDiedLeavesTheNextHolder) {
    start_rotate_mode();
    const std::vector<int> own = tcpdumps();
    ASSERT_EQ(own.size(), 1u);
    start_other_tcpdump(false);
    kill(own.front(), SIGKILL);
    ASSERT_TRUE(wait_until([] { return tcpdumps().size() == 1; }));
    const std::vector<int> other = tcpdumps();
    permit_passes_to_another_process();
    end_rotate_mode_leaving(other);
}

// A diagnosis's permit freed mid-run by its own process (as zqdiag on its timeout), then taken by another:
// the run's "end" step leaves it.
TEST(PermitHolder, DiagnosisEndAfterItsPermitWasFreedLeavesTheNextHolder) {
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
