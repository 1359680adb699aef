#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "records/records.h"

using namespace zq;

namespace {

class RecordChain : public ::testing::Test {
  protected:
    void SetUp() override { clear_diag_chain(); }
    void TearDown() override { clear_diag_chain(); }
};

TEST_F(RecordChain, MismatchedStoresChangeNothing) {
    zqSD_wan_diag w{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, 307), -1);
    EXPECT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, 0), -1);
    EXPECT_EQ(zq_diag_record(0, &w, 308), -1);
    EXPECT_EQ(zq_diag_record(WAN_DIAG_DATA, nullptr, 308), -1);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("type[1]"), std::string::npos) << log;
    EXPECT_EQ(zq_diag_data_chain.next, nullptr);
}

TEST_F(RecordChain, ReadingPatternRefusesAReaderOfAnotherLayout) {
    zqSD_wan_diag w{};
    strcpy(w.type, "a");
    ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, sizeof(w)), 0);
    testing::internal::CaptureStdout();
    diag_data_node *head =
        list_record_head("old_reader", WAN_DIAG_DATA, "zqSD_wan_diag", "WAN_DIAG_DATA", 300);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(head, nullptr);
    EXPECT_NE(log.find("![old_reader "), std::string::npos) << log;
    EXPECT_NE(log.find(" sizeof(zqSD_wan_diag) = 300"), std::string::npos) << log;
    EXPECT_NE(log.find(" get_diag_data_size(WAN_DIAG_DATA) = 308"), std::string::npos) << log;
    EXPECT_NE(log.find("list record fail"), std::string::npos) << log;
}

} // namespace
