#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

#include "engine/engine.h"
#include "engine/outside_text.h"
#include "lab/zqlab.hpp"

using namespace zq;

namespace {

TEST(SystemQueries, MakeDir) {
    EXPECT_EQ(make_dir("/tmp"), 0);
    EXPECT_EQ(make_dir("/tmp/capture_file/"), 0);
    struct stat st;
    EXPECT_EQ(stat("/tmp/capture_file", &st), 0);
    EXPECT_EQ(make_dir("/proc/cannot_exist_here"), -1);
    EXPECT_EQ(make_dir("/tmp/two words"), -1);
    EXPECT_NE(stat("/tmp/two", &st), 0);
}

// Safety never costs a user a valid name: every letter and digit passes.
TEST(SystemQueries, InterfaceNamesTakeEveryLetterAndDigit) {
    for (const char *range : {"az", "AZ", "09"})
        for (char c = range[0]; c <= range[1]; ++c)
            EXPECT_TRUE(is_interface_name(std::string("nas_") + c)) << c;
}

} // namespace
