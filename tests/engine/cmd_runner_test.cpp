#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "engine/engine.h"
#include "lab/zqlab.hpp"
#include "tests/engine/address_space.hpp"

using namespace zq;

namespace {

// Runs `cmd` into a buffer of `size` bytes pre-filled with `fill`.
std::vector<char> run(const std::string &cmd, size_t size, char fill = 'X') {
    std::vector<char> out(size, fill);
    EXPECT_EQ(zq_get_cmd_raw_data(zq_args(cmd.c_str(), cmd.size() + 1, out.data(), size)), 0);
    return out;
}

// The ring is put in order through a scratch copy at the end of every
// wrapped run; a gateway runs such commands for as long as it is up.
TEST(CommandRunner, WrappedOutputLeavesNoHeapBehind) {
    const std::string cmd = "yes | head -c 20000";
    run(cmd, 64); // the first run's allocations of libc itself
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 20; ++i) run(cmd, 64);
    EXPECT_EQ(mallinfo2().uordblks, before);
}

TEST(CommandRunner, OutputOfExactlyTheBufferSizeIsTerminated) {
    EXPECT_EQ(std::string(run("printf " + std::string(63, 'a') + "b", 64).data()), std::string(63, 'a'));
}

// The runner's scratch allocation fails (the address space is capped just
// above what the child process uses): "arrange data fail" under the
// runner's name, -1, the ring terminated at its last byte, no command log.
TEST(CommandRunner, RingThatCannotBeArrangedIsTerminatedAndNotLogged) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers' allocators do not return null";
#endif
    ASSERT_EQ(mkdir("/tmp/diag_file", 0755), 0);
    constexpr size_t SIZE = 8u << 20;
    constexpr int NO_LIMIT_HERE = 30;
    const std::string log_path = "/tmp/runner_stdout";
    pid_t child = fork();
    if (child == 0) {
        char *out = static_cast<char *>(
            mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (out == MAP_FAILED) _exit(10);
        memset(out, 'X', SIZE);
        const int fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) _exit(11);
        mallopt(M_MMAP_THRESHOLD, 64 * 1024); // large blocks always come from mmap
        if (!cap_address_space()) _exit(NO_LIMIT_HERE);
        const char *cmd = "yes | head -c 8388708";
        const int rc = zq_get_cmd_raw_data(zq_args(cmd, strlen(cmd) + 1, out, SIZE));
        fflush(stdout);
        if (rc != -1) _exit(20);
        if (out[SIZE - 1] != '\0') _exit(21);
        _exit(0);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    if (WEXITSTATUS(status) == NO_LIMIT_HERE)
        GTEST_SKIP() << "the address space cannot be capped here (an emulator)";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string log = zqlab::read_file(log_path);
    EXPECT_NE(log.find("![zq_get_cmd_raw_data "), std::string::npos) << log;
    EXPECT_NE(log.find("] arrange data fail\n"), std::string::npos) << log;
    struct stat st;
    EXPECT_NE(stat(ZQ_CMD_LOG_PATH, &st), 0) << "no command log entry for a failed run";
}

TEST(CommandRunner, WrappersGuardTheirInput) {
    char out[64];
    memset(out, 'X', sizeof(out));
    EXPECT_EQ(zq_get_cmd_buff(nullptr, out, sizeof(out)), -1);
    EXPECT_EQ(zq_get_cmd_buff("w", out, sizeof(out)), 0); // refused by the validator
    EXPECT_EQ(out[0], 'X');
    EXPECT_EQ(zq_get_cmd_buff("echo x", out, 63), 0); // buffer too small for the validator
    EXPECT_EQ(out[0], 'X');
    EXPECT_STREQ(zq_get_cmd_result(nullptr), "");
    memset(out, 0, sizeof(out)); // cleared, as the contract asks: the output is then terminated
    EXPECT_EQ(zq_get_cmd_buff("id", out, sizeof(out)), 0); // the shortest command the rules take
    EXPECT_EQ(std::string(out).rfind("uid=", 0), 0u) << out;
}

} // namespace
