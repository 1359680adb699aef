// The engine's small parts: the dispatcher's open validators, the message
// buffer, the permit and the manager's settings, and the system queries.
#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

#include "engine/engine.h"
#include "engine/outside_text.h"
#include "lab/zqlab.hpp"

using namespace zq;

namespace {

std::string logged(int (*fn)(), int *rc) {
    testing::internal::CaptureStdout();
    *rc = fn();
    return testing::internal::GetCapturedStdout();
}

TEST(Dispatcher, OpenValidatorsAcceptAnyBlock) {
    for (const char *name : {"dns_status", "dhcp_status"})
        for (uint32_t action : {ACTION_RAW_DATA, ACTION_STRUCT, ACTION_FIX})
            EXPECT_EQ(zq_get_sys_diag(name, action, zq_args(nullptr, 12345, nullptr, 1)), -2)
                << name << action;
}

TEST(MessageLog, UnknownLevelIsDropped) {
    zq_diag_msg_reset();
    testing::internal::CaptureStdout();
    zq_diag_msg_printf(7, "bad");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("invalid message level 7"), std::string::npos);
    EXPECT_STREQ(zq_diag_msg, "");
    EXPECT_EQ(zq_diag_msg_offset, 0u);
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

TEST(ManagerQueries, SettingsAreReadFromDiagM) {
    const struct {
        const char *key, *value;
        int (*query)();
        int expected;
    } rows[] = {{"diagm.available_wlan", "2.4G,5G", is_ap_detect_available, 3},
                {"diagm.available_wlan", "5G", is_ap_detect_available, 2},
                {"diagm.available_wlan", "", is_ap_detect_available, 0},
                {"diagm.diag_state", "enable", is_self_diagnose_enable, 1},
                {"diagm.diag_state", "off", is_self_diagnose_enable, 0},
                {"diagm.iperf_test_enable", "enable", is_iperf_test_enable, 1}};
    for (const auto &row : rows) {
        zqlab::set(row.key, row.value);
        EXPECT_EQ(row.query(), row.expected) << row.key << " = " << row.value;
    }
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

// Safety never costs a user a valid name: every letter and digit passes.
TEST(SystemQueries, InterfaceNamesTakeEveryLetterAndDigit) {
    for (const char *range : {"az", "AZ", "09"})
        for (char c = range[0]; c <= range[1]; ++c)
            EXPECT_TRUE(is_interface_name(std::string("nas_") + c)) << c;
}

} // namespace
