#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "engine/engine.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace {

using Steps = std::vector<std::string>;

void store_pon(uint32_t reg_state) {
    zqSD_pon_diag pon{};
    pon.reg_state = reg_state;
    ASSERT_EQ(zq_diag_record(PON_DIAG_DATA, &pon, sizeof(pon)), 0);
}

zqSD_wan_diag make_wan(const char *type, const char *protocol, const char *service, uint32_t v4_state,
                       const char *gateway) {
    zqSD_wan_diag w{};
    strcpy(w.type, type);
    strcpy(w.protocol, protocol);
    strcpy(w.service_type, service);
    strcpy(w.v4_gateway, gateway);
    w.v4_conn_state = v4_state;
    w.v6_conn_state = 2;
    return w;
}

void store_wan(const zqSD_wan_diag &w) { ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, sizeof(w)), 0); }

// Drives a diagnosis path as the run control does, except that instead of
// running a step the test stores what that step would have stored.
Steps walk_diag(uint32_t mode, const std::function<void(const std::string &)> &step_stores) {
    init_diag_path(mode);
    zq_diag_step step{};
    Steps steps;
    while (zq_diag_path_search(&step) == 1) {
        EXPECT_EQ(step.action, ACTION_DIAG);
        EXPECT_EQ(step.result, 0u);
        steps.push_back(step.method);
        EXPECT_STREQ(zq_running_method, step.method);
        if (step_stores) step_stores(step.method);
        if (steps.back() == "end") zq_get_sys_diag("end", step.action, {});
        if (steps.size() > 20) break;
    }
    return steps;
}

Steps walk_fix(uint32_t mode) {
    init_diag_path(mode);
    zq_diag_step step{};
    Steps steps;
    while (zq_fix_path_search(&step) == 1 && steps.size() < 10) {
        EXPECT_EQ(step.action, ACTION_FIX);
        steps.push_back(step.method);
        if (steps.back() == "end") zq_get_sys_diag("end", ACTION_FIX, {});
    }
    return steps;
}

auto registered_with(std::vector<zqSD_wan_diag> wans, uint32_t reg_state = 0) {
    return [=](const std::string &method) {
        if (method == "pon_status") store_pon(reg_state);
        if (method == "wan_status")
            for (const auto &w : wans) store_wan(w);
    };
}

TEST(DiagnosisPath, UnregisteredOrUnlinkedPonSkipsEveryWanStep) {
    auto wan = make_wan("route-ppp", "IPv4", "INTERNET", 4, "10.0.0.1");
    for (uint32_t reg_state : {1u, 2u}) {
        EXPECT_EQ(walk_diag(0, registered_with({wan}, reg_state)),
                  (Steps{"port_status", "pon_status", "dhcp_config", "sys_status", "end"}))
            << reg_state;
        EXPECT_EQ(is_diag_permit_holding(), 0);
        EXPECT_STREQ(zq_running_method, "end");
    }
}

TEST(DiagnosisPath, NoPonRecordSkipsEveryWanStep) {
    EXPECT_EQ(walk_diag(0, nullptr),
              (Steps{"port_status", "pon_status", "dhcp_config", "sys_status", "end"}));
}

TEST(DiagnosisPath, DownPppWanTakesItsSteps) {
    auto ppp = make_wan("route-ppp", "IPv4", "INTERNET", 4, "10.0.0.1");
    EXPECT_EQ(walk_diag(0, registered_with({ppp})),
              (Steps{"port_status", "pon_status", "wan_status", "route_status", "pppoe_status", "wan_params",
                     "dhcp_config", "sys_status", "end"}));
}

TEST(DiagnosisPath, ProtocolTestsDifferBetweenDnsAndParams) {
    auto dhcp = make_wan("route-dhcp", "v4", "TR069_INTERNET", 1, "");
    EXPECT_EQ(
        walk_diag(0, registered_with({dhcp})),
        (Steps{"port_status", "pon_status", "wan_status", "dns_status", "dhcp_config", "sys_status", "end"}));
}

TEST(DiagnosisPath, DownDhcpWanIsChecked) {
    auto dhcp = make_wan("route-dhcp", "IPv4_IPv6", "INTERNET", 3, "");
    EXPECT_EQ(walk_diag(0, registered_with({dhcp})),
              (Steps{"port_status", "pon_status", "wan_status", "dhcp_status", "wan_params", "dhcp_config",
                     "sys_status", "end"}));
}

TEST(DiagnosisPath, ModesNarrowThePath) {
    EXPECT_EQ(walk_diag(2, registered_with({})), (Steps{"pon_status", "end"}));
    auto wan = make_wan("route-dhcp", "IPv4", "INTERNET", 0, "10.0.0.1");
    EXPECT_EQ(walk_diag(6, registered_with({wan})), (Steps{"pon_status", "wan_status", "dns_status", "end"}));
    EXPECT_EQ(walk_diag(9, registered_with({wan})),
              (Steps{"pon_status", "wan_status", "route_status", "end"}));
    EXPECT_EQ(walk_diag(4, nullptr), (Steps{"sys_status", "end"}));
    EXPECT_EQ(walk_diag(10, registered_with({wan})),
              (Steps{"port_status", "pon_status", "wan_status", "end"}));
    EXPECT_EQ(walk_diag(77, nullptr),
              (Steps{"port_status", "pon_status", "dhcp_config", "sys_status", "end"}));
    EXPECT_EQ(custom_path_list[0][0], '\0') << "the end step clears the filter list";
}

TEST(DiagnosisPath, ASkippedEntryStaysDecided) {
    // wan_status is skipped (no PON record yet); storing a registered PON
    // record afterwards does not bring it back.
    EXPECT_EQ(walk_diag(0,
                        [](const std::string &method) {
                            if (method == "dhcp_config") store_pon(0);
                        }),
              (Steps{"port_status", "pon_status", "dhcp_config", "sys_status", "end"}));
}

TEST(DiagnosisPath, AfterTheEndNothingMoves) {
    walk_diag(2, nullptr);
    zq_diag_step step{};
    strcpy(step.method, "end");
    step.action = ACTION_DIAG;
    EXPECT_EQ(zq_diag_path_search(&step), 0);
    EXPECT_STREQ(step.method, "end");
    EXPECT_EQ(is_diag_permit_holding(), 0);
}

TEST(DiagnosisPath, EachRunStartsWithAnEmptyChain) {
    store_pon(0);
    zq_diag_step step{};
    ASSERT_EQ(zq_diag_path_search(&step), 1);
    EXPECT_EQ(zq_search_diag_record(PON_DIAG_DATA), nullptr);
    EXPECT_EQ(is_diag_permit_holding(), 1);
    zq_get_sys_diag("end", 0, {});
}

TEST(DiagnosisPath, PermitHeldElsewhereStopsAtOnce) {
    pid_t pid = fork();
    if (pid == 0) _exit(get_diag_permit() == 0 ? 0 : 1);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_EQ(WEXITSTATUS(status), 0);
    store_pon(0);
    zq_diag_step step{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(zq_diag_path_search(&step), 0);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("get diag permit fail"), std::string::npos) << log;
    EXPECT_NE(zq_search_diag_record(PON_DIAG_DATA), nullptr) << "the previous records stay";
    EXPECT_EQ(step.method[0], '\0');
}

TEST(DiagnosisPath, EndRemovesTheDecodedCapture) {
    ASSERT_EQ(make_dir("/tmp/capture_file"), 0);
    zqlab::write_file("/tmp/capture_file/capture_parse", "decoded\n");
    walk_diag(2, nullptr);
    struct stat st;
    EXPECT_NE(stat("/tmp/capture_file/capture_parse", &st), 0);
}

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

TEST_F(FixPath, RepairsWhatTheRecordsShow) {
    store_sys(1);
    store_pon(0);
    EXPECT_EQ(walk_fix(0), (Steps{"sys_status", "end"}));
    EXPECT_EQ(is_diag_permit_holding(), 0);
    store_pon(2);
    EXPECT_EQ(walk_fix(0), (Steps{"sys_status", "pon_status", "end"}));
    EXPECT_EQ(walk_fix(2), (Steps{"pon_status", "end"}));
}

TEST_F(FixPath, LoadedSystemIsNotRepaired) {
    store_sys(17);
    EXPECT_EQ(walk_fix(0), (Steps{"end"}));
    store_sys(33);
    EXPECT_EQ(walk_fix(0), (Steps{"end"}));
}

TEST_F(FixPath, EmptyChainRunsOnlyTheEnd) {
    EXPECT_EQ(walk_fix(0), (Steps{"end"}));
    EXPECT_EQ(is_diag_permit_holding(), 0);
}

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

TEST_F(FixPath, RefusedPermitRunsNothing) {
    ASSERT_EQ(get_diag_permit(), 0);
    zq_diag_step step{};
    EXPECT_EQ(zq_fix_path_search(&step), 0);
    release_diag_permit();
}

} // namespace
