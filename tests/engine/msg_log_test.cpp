#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "engine/engine.h"

using namespace zq;

namespace {

class MessageLog : public ::testing::Test {
  protected:
    void SetUp() override { zq_diag_msg_reset(); }
};

TEST_F(MessageLog, UnknownLevelIsDropped) {
    testing::internal::CaptureStdout();
    zq_diag_msg_printf(7, "bad");
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_STREQ(zq_diag_msg, "");
    EXPECT_EQ(zq_diag_msg_offset, 0u);
    EXPECT_NE(log.find("invalid message level 7"), std::string::npos);
}

} // namespace
