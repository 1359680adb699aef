// The simulated gateway as the library sees it: run inside a fresh lab
// started with the healthy-gpon scenario.
#include "zqlab.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/vfs.h>

TEST(Lab, RunsInAFreshLab) {
    ASSERT_TRUE(zqlab::inside());
    EXPECT_TRUE(zqlab::journal().empty()) << "the lab's own start-up is not journaled";
    EXPECT_EQ(zqlab::read_file("/proc/1/comm"), "init\n");
    EXPECT_NE(zqlab::run("ip link show lo").find("UP"), std::string::npos);
    // /bin/sh stays dash so that the firmware shims on PATH win over busybox's built-in applets.
    EXPECT_EQ(zqlab::run("readlink /bin/sh"), "dash\n");
}

TEST(Lab, TmpRunAndShmArePrivateTmpfs) {
    const long tmpfs_magic = 0x01021994;
    for (const char *dir : {"/tmp", "/run", "/dev/shm"}) {
        struct statfs fs;
        ASSERT_EQ(statfs(dir, &fs), 0) << dir;
        EXPECT_EQ(static_cast<long>(fs.f_type), tmpfs_magic) << dir;
    }
    // The library's permit lives here; a fresh lab never has it.
    EXPECT_FALSE(zqlab::file_exists("/dev/shm/sem.diag_permit"));
    sem_t *s = sem_open("diag_permit", O_CREAT, 0644, 1);
    ASSERT_NE(s, SEM_FAILED);
    EXPECT_TRUE(zqlab::file_exists("/dev/shm/sem.diag_permit"));
    sem_close(s);
}

// The alarm word's key is the gateway's: engine Permit.CpuAlarmRefusesAndMemoryAlarmOnlyWarns.
TEST(Scenarios, EachResetsTheWholeGateway) {
    zqlab::scenario("pon-unregistered");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NOT_REGISTERED\n");
    EXPECT_EQ(zqlab::run("flash get PON_DETECT"), "PON_DETECT=0\n");
    EXPECT_EQ(zqlab::run_status("pondetect"), 0);

    zqlab::scenario("pon-no-link");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NO_LINKED\n");
    EXPECT_EQ(zqlab::run("ls /bin | grep pondetect"), "") << "reset to the scenario, not layered on the last";

    zqlab::scenario("loaded-system");
    EXPECT_EQ(zqlab::alarm_word(), 0x18u);
    EXPECT_TRUE(zqlab::pids("boa").empty());
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 2u);

    zqlab::scenario("healthy-gpon");
    EXPECT_EQ(zqlab::alarm_word(), 0u);
    EXPECT_EQ(zqlab::pids("boa").size(), 1u);
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 1u);
}
