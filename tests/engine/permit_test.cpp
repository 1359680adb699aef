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

std::string logged(int (*fn)(), int *rc) {
    testing::internal::CaptureStdout();
    *rc = fn();
    return testing::internal::GetCapturedStdout();
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
