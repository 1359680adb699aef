#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

#include "engine/engine.h"
#include "lab/zqlab.hpp"

using namespace zq;

namespace {

uint64_t first_pid(const std::string &pgrep_output) {
    return std::stoull(pgrep_output.substr(0, pgrep_output.find('\n')));
}

TEST(SystemQueries, PidOfAProcess) {
    EXPECT_EQ(zq_get_pid("boa"), first_pid(zqlab::run("pgrep boa")));
    EXPECT_EQ(zq_get_pid("no_such_daemon"), 0u);
    EXPECT_EQ(zq_get_pid(nullptr), 0u);
    EXPECT_EQ(zq_get_pid("boa; echo 123"), 0u) << "names never reach the shell as commands";
}

TEST(SystemQueries, FirstOfSeveralMatches) {
    zqlab::set("udhcpd.count", "2");
    std::string listed = zqlab::run("pgrep udhcpd");
    ASSERT_NE(listed.find('\n'), listed.rfind('\n')) << listed;
    EXPECT_EQ(zq_get_pid("udhcpd"), first_pid(listed));
}

TEST(SystemQueries, PonInfoIsTheManagersAnswerUnchanged) {
    std::string expected = zqlab::run("diagM get pon_info pon_state");
    zqlab::clear_journal();
    EXPECT_EQ(std::string(get_pon_info("pon_state")), expected);
    auto journal = zqlab::journal();
    ASSERT_EQ(journal.size(), 1u);
    EXPECT_NE(journal[0].find("diagM get pon_info pon_state"), std::string::npos) << journal[0];
}

TEST(SystemQueries, MakeDir) {
    EXPECT_EQ(make_dir("/tmp"), 0);
    EXPECT_EQ(make_dir("/tmp/capture_file/"), 0);
    struct stat st;
    EXPECT_EQ(stat("/tmp/capture_file", &st), 0);
    EXPECT_EQ(make_dir("/proc/cannot_exist_here"), -1);
    EXPECT_EQ(make_dir("/tmp/two words"), -1);
    EXPECT_NE(stat("/tmp/two", &st), 0);
}

} // namespace
