#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <semaphore.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "engine/engine.h"
#include "lab/zqlab.hpp"

using namespace zq;

namespace {

int permit_value() {
    sem_t *sem = sem_open("diag_permit", 0);
    if (sem == SEM_FAILED) return -1;
    int value = -1;
    sem_getvalue(sem, &value);
    return value;
}

std::string logged(int (*fn)(), int *rc) {
    testing::internal::CaptureStdout();
    *rc = fn();
    return testing::internal::GetCapturedStdout();
}

// Runs `fn` in a child process and returns its result.
int in_child(int (*fn)()) {
    pid_t pid = fork();
    if (pid == 0) _exit(fn() & 0xff);
    int status = 0;
    waitpid(pid, &status, 0);
    return static_cast<signed char>(WEXITSTATUS(status));
}

TEST(Permit, NoDiagnosisManagerMeansNoPermit) {
    zqlab::set("diagm.running", "no");
    int rc = 0;
    std::string log = logged(get_diag_permit, &rc);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(log, "");
    struct stat st;
    EXPECT_NE(stat("/dev/shm/sem.diag_permit", &st), 0) << "the semaphore must not be touched";
}

TEST(Permit, TakenOnceUntilGivenBack) {
    EXPECT_EQ(get_diag_permit(), 0);
    EXPECT_EQ(get_diag_permit(), -1);
    EXPECT_EQ(is_diag_permit_holding(), 1);
    EXPECT_EQ(is_diag_avaliable(), 0);
    EXPECT_EQ(release_diag_permit(), 0);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_EQ(is_diag_avaliable(), 1);
    EXPECT_EQ(get_diag_permit(), 0);
}

TEST(Permit, ReleaseNeverRaisesTheValueAboveOne) {
    EXPECT_EQ(release_diag_permit(), 0);
    EXPECT_EQ(release_diag_permit(), 0);
    EXPECT_EQ(permit_value(), 1);
    ASSERT_EQ(get_diag_permit(), 0);
    EXPECT_EQ(permit_value(), 0);
    release_diag_permit();
    release_diag_permit();
    EXPECT_EQ(permit_value(), 1);
}

TEST(Permit, SharedAcrossProcesses) {
    EXPECT_EQ(in_child(get_diag_permit), 0);
    EXPECT_EQ(in_child(get_diag_permit), -1);
    EXPECT_EQ(is_diag_permit_holding(), 1);
    EXPECT_EQ(in_child(release_diag_permit), 0);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_EQ(get_diag_permit(), 0);
}

TEST(Permit, CpuAlarmRefusesAndMemoryAlarmOnlyWarns) {
    zqlab::set("alarm", "0x18");
    EXPECT_EQ(get_diag_alarm_value(), 0x18u);
    int rc = 0;
    std::string log = logged(get_diag_permit, &rc);
    EXPECT_EQ(rc, -1);
    EXPECT_NE(log.find("system busy [high cpu usage]"), std::string::npos) << log;
    EXPECT_EQ(log.find("memory"), std::string::npos) << log;

    zqlab::set("alarm", "0x08");
    log = logged(get_diag_permit, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_NE(log.find("system busy [high memory usage], disable tcpdump"), std::string::npos) << log;
    release_diag_permit();
    EXPECT_EQ(is_diag_avaliable(), 0);
    EXPECT_EQ(check_diag_alarm_value(ALARM_HIGH_MEMORY), 1);
    EXPECT_EQ(check_diag_alarm_value(ALARM_HIGH_CPU), 0);

    zqlab::set("alarm", "0");
    EXPECT_EQ(is_diag_avaliable(), 1);
}

TEST(Permit, GrantSignalsTheDiagnosisManager) {
    int before = zqlab::sigusr2_count();
    ASSERT_EQ(get_diag_permit(), 0);
    int after = before;
    for (int i = 0; i < 200 && after == before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        after = zqlab::sigusr2_count();
    }
    EXPECT_EQ(after, before + 1);
}

TEST(Permit, PidFileIsReadAsALeadingNumber) {
    std::string pid = zqlab::read_file("/var/run/diagM.pid");
    zqlab::write_file("/var/run/diagM.pid", std::to_string(std::stoi(pid)) + std::string(60, ' ') + "tail");
    EXPECT_GT(read_diag_manager_pid(), 0);
    zqlab::write_file("/var/run/diagM.pid", std::string(40, '7'));
    EXPECT_GE(read_diag_manager_pid(), 0); // out of range: no crash, no wrap to a negative pid
    zqlab::write_file("/var/run/diagM.pid", "garbage");
    EXPECT_EQ(read_diag_manager_pid(), 0);
    zqlab::write_file("/var/run/diagM.pid", "-1");
    EXPECT_EQ(read_diag_manager_pid(), -1);
}

// Only a pid of 0 means no manager. A negative pid still lets the permit be
// granted, and nothing is signalled: kill(-1, SIGUSR2) would end this very
// process, and the lab's manager counts no signal.
TEST(Permit, NegativePidIsAManagerThatIsNeverSignalled) {
    const int before = zqlab::sigusr2_count();
    const std::string pid_file = zqlab::read_file("/var/run/diagM.pid");
    zqlab::write_file("/var/run/diagM.pid", "-1\n");
    EXPECT_EQ(get_diag_permit(), 0);
    EXPECT_EQ(is_diag_permit_holding(), 1);
    notify_diag_manager();
    EXPECT_EQ(release_diag_permit(), 0);
    zqlab::write_file("/var/run/diagM.pid", pid_file); // the lab finds its manager by it
    EXPECT_EQ(zqlab::sigusr2_count(), before);
}

TEST(ManagerQueries, SettingsAreReadFromDiagM) {
    zqlab::set("diagm.available_wlan", "2.4G,5G");
    EXPECT_EQ(is_ap_detect_available(), 3);
    zqlab::set("diagm.available_wlan", "5G");
    EXPECT_EQ(is_ap_detect_available(), 2);
    zqlab::set("diagm.available_wlan", "");
    EXPECT_EQ(is_ap_detect_available(), 0);
    zqlab::set("diagm.diag_state", "enable");
    EXPECT_EQ(is_self_diagnose_enable(), 1);
    zqlab::set("diagm.diag_state", "off");
    EXPECT_EQ(is_self_diagnose_enable(), 0);
    zqlab::set("diagm.iperf_test_enable", "enable");
    EXPECT_EQ(is_iperf_test_enable(), 1);
}

} // namespace
