#include <gtest/gtest.h>

#include <string>

#include "engine/engine.h"
#include "records/records.h"

using namespace zq;

namespace {

TEST(FilterList, CustomPathChecksItsInput) {
    char names[2][32] = {"pon_status", "wan_status"};
    testing::internal::CaptureStdout();
    EXPECT_EQ(custom_path(nullptr, 1), -1);
    EXPECT_EQ(custom_path(names[0], 0), -1);
    EXPECT_EQ(custom_path(names[0], 33), -1);
    char empty[32] = {};
    EXPECT_EQ(custom_path(empty, 1), -1);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("invalid input"), std::string::npos);
    EXPECT_EQ(is_in_custom_path("sys_status"), 1) << "an empty list lets everything pass";
    EXPECT_EQ(custom_path(names[0], 2), 0);
    EXPECT_EQ(is_in_custom_path("wan_status"), 1);
    EXPECT_EQ(is_in_custom_path("wan_statu"), 0);
    EXPECT_EQ(is_in_custom_path("sys_status"), 0);
    init_diag_path(0);
    EXPECT_EQ(is_in_custom_path("sys_status"), 1);
}

void store_pon(uint32_t reg_state) {
    zqSD_pon_diag pon{};
    pon.reg_state = reg_state;
    ASSERT_EQ(zq_diag_record(PON_DIAG_DATA, &pon, sizeof(pon)), 0);
}

class FixPath : public ::testing::Test {
  protected:
    void SetUp() override { clear_diag_chain(); }
    static void store_sys(uint32_t flags) {
        zqSD_sys_diag s{};
        s.fault_flags = flags;
        ASSERT_EQ(zq_diag_record(SYS_DIAG_DATA, &s, sizeof(s)), 0);
    }
    static void store_dhcp(uint32_t flags) {
        zqSD_dhcp_diag d{};
        d.fault_flags = flags;
        ASSERT_EQ(zq_diag_record(DHCP_DIAG_DATA, &d, sizeof(d)), 0);
    }
};

TEST_F(FixPath, AvailabilityLooksAtDhcpAndSystemOnly) {
    store_pon(2);
    EXPECT_EQ(is_zq_fix_available(), 0);
    store_dhcp(3);
    EXPECT_EQ(is_zq_fix_available(), 0);
    store_dhcp(4);
    EXPECT_EQ(is_zq_fix_available(), 1);
    store_dhcp(0);
    store_sys(64);
    EXPECT_EQ(is_zq_fix_available(), 1);
    store_sys(80);
    EXPECT_EQ(is_zq_fix_available(), 0);
}

} // namespace
