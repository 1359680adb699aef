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

TEST_F(MessageLog, EntryIsPrefixTextNewline) {
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "Pon registered");
    EXPECT_STREQ(zq_diag_msg, "[normal ]Pon registered\n");
    EXPECT_EQ(zq_diag_msg_offset, 24u);
    zq_diag_msg_printf(DIAG_MSG_SUCCESS, "a");
    zq_diag_msg_printf(DIAG_MSG_WARN, "System memory usage exceeded 80%%");
    zq_diag_msg_printf(DIAG_MSG_ERROR, "%s[%d] %.2f", "x", 3, 1.5);
    EXPECT_STREQ(zq_diag_msg, "[normal ]Pon registered\n[success]a\n"
                              "[warn   ]System memory usage exceeded 80%\n[error  ]x[3] 1.50\n");
}

TEST_F(MessageLog, EmptyTextLeavesThePrefixWithoutNewline) {
    zq_diag_msg_printf(DIAG_MSG_ERROR, "%s", "");
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "next");
    EXPECT_STREQ(zq_diag_msg, "[error  ][normal ]next\n");
}

TEST_F(MessageLog, FullBufferKeepsTheFirst4095Characters) {
    std::string chunk(100, 'x');
    for (int i = 0; i < 50; ++i) zq_diag_msg_printf(DIAG_MSG_WARN, "%s", chunk.c_str());
    EXPECT_EQ(strlen(zq_diag_msg), 4095u);
    EXPECT_GT(zq_diag_msg_offset, 4095u);
    EXPECT_EQ(std::string(zq_diag_msg, 10), "[warn   ]x");
    char before[4096];
    memcpy(before, zq_diag_msg, sizeof(before));
    uint64_t offset = zq_diag_msg_offset;
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "dropped");
    EXPECT_EQ(memcmp(before, zq_diag_msg, sizeof(before)), 0);
    EXPECT_EQ(zq_diag_msg_offset, offset);
    zq_diag_msg_reset();
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "again");
    EXPECT_STREQ(zq_diag_msg, "[normal ]again\n");
}

TEST_F(MessageLog, PrefixCutAtTheEnd) {
    // Fill up to offset 4090, then one more entry.
    std::string fill(4090 - 9 - 1, 'y');
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "%s", fill.c_str());
    ASSERT_EQ(zq_diag_msg_offset, 4090u);
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "lost text");
    EXPECT_EQ(std::string(zq_diag_msg + 4090), "[norm");
    EXPECT_EQ(zq_diag_msg_offset, 4099u);
}

TEST_F(MessageLog, UnknownLevelIsDropped) {
    testing::internal::CaptureStdout();
    zq_diag_msg_printf(7, "bad");
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_STREQ(zq_diag_msg, "");
    EXPECT_EQ(zq_diag_msg_offset, 0u);
    EXPECT_NE(log.find("invalid message level 7"), std::string::npos);
}

} // namespace
