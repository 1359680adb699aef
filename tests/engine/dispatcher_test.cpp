#include <gtest/gtest.h>

#include <string>

#include "engine/engine.h"

using namespace zq;

namespace {

std::string dispatch_log(const char *method, uint32_t action, zq_diag_args args, int *rc) {
    testing::internal::CaptureStdout();
    *rc = zq_get_sys_diag(method, action, args);
    return testing::internal::GetCapturedStdout();
}

TEST(Dispatcher, EndGivesThePermitBackWhateverTheBlock) {
    ASSERT_EQ(get_diag_permit(), 0);
    EXPECT_EQ(is_diag_permit_holding(), 1);
    EXPECT_EQ(zq_get_sys_diag("end", 99, zq_args(nullptr, 7, nullptr, 0)), 0);
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_EQ(zq_get_sys_diag("end", 0, {}), 0); // nothing held: still 0
    EXPECT_EQ(is_diag_permit_holding(), 0);
}

TEST(Dispatcher, UnknownNamesAreNotFound) {
    int rc = 0;
    std::string log = dispatch_log("nosuch", 0, {}, &rc);
    EXPECT_EQ(rc, -1);
    EXPECT_NE(log.find("![zq_get_sys_diag "), std::string::npos) << log;
    EXPECT_NE(log.find("can't find the method nosuch"), std::string::npos) << log;
    EXPECT_EQ(zq_get_sys_diag("", 0, {}), -1);
    EXPECT_EQ(zq_get_sys_diag(nullptr, 0, {}), -1);
    EXPECT_EQ(zq_get_sys_diag("pon_status_and_then_some_more_chars", ACTION_DIAG, {}), -1);
    EXPECT_EQ(zq_get_sys_diag("PON_STATUS", ACTION_DIAG, {}), -1); // case-sensitive
    uint64_t index = 99;
    EXPECT_EQ(find_method_index("dhcp_status", &index), 0);
    EXPECT_EQ(index, 11u);
}

TEST(Dispatcher, ActionsBeyondTheSlotsAreMissing) {
    for (const zq::method_descriptor *m : zq::registry.table) {
        const zq_diag_method &entry = m->entry;
        int rc = 0;
        std::string log = dispatch_log(entry.name, 4, {}, &rc);
        EXPECT_EQ(rc, -2) << entry.name;
        EXPECT_NE(log.find(std::string("can't find the action of ") + entry.name), std::string::npos) << log;
        EXPECT_NE(log.find("![call_action_of_method "), std::string::npos) << log;
    }
    char out[64];
    EXPECT_EQ(zq_get_sys_diag("cmd", ACTION_STRUCT, zq_args("echo", 5, out, sizeof(out))), -2);
}

TEST(Dispatcher, ValidatorRunsBeforeTheSlotLookup) {
    char table[1025];
    // route_status has no raw-data action, but its validator still vets one.
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_RAW_DATA, zq_args(nullptr, 0, table, 1025)), -2);
    int rc = 0;
    std::string log = dispatch_log("route_status", ACTION_RAW_DATA, zq_args(nullptr, 0, table, 1024), &rc);
    EXPECT_EQ(rc, -4);
    EXPECT_NE(log.find("route_status[0] envoy is illegal"), std::string::npos) << log;
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_RAW_DATA, zq_args(nullptr, 0, nullptr, 1025)), -4);
}

TEST(Dispatcher, ValidatorsHoldTheirSizes) {
    ping_request req{};
    uint32_t word = 0;
    char text[256] = {};
    EXPECT_EQ(zq_get_sys_diag("ping", ACTION_DIAG, zq_args(&req, 92, &word, 4)), -4);
    EXPECT_EQ(zq_get_sys_diag("ping", ACTION_DIAG, zq_args(nullptr, 93, &word, 4)), -4);
    EXPECT_EQ(zq_get_sys_diag("ping", ACTION_RAW_DATA, zq_args(&req, 93, text, 255)), -4);
    EXPECT_EQ(zq_get_sys_diag("cmd", ACTION_RAW_DATA, zq_args("l", 2, text, 64)), -4);
    EXPECT_EQ(zq_get_sys_diag("cmd", ACTION_RAW_DATA, zq_args("ls", 3, text, 63)), -4);
    EXPECT_EQ(zq_get_sys_diag("cmd", ACTION_RAW_DATA, zq_args("ls", 3, nullptr, 64)), -4);
    zqSD_pon_diag pon{};
    EXPECT_EQ(zq_get_sys_diag("pon_status", ACTION_STRUCT, zq_args(nullptr, 0, &pon, 67)), -4);
    EXPECT_EQ(zq_get_sys_diag("pon_status", ACTION_DIAG, zq_args(nullptr, 0, &word, 8)), -4);
    uint32_t index = 0;
    zqSD_port_diag port{};
    EXPECT_EQ(zq_get_sys_diag("port_status", ACTION_STRUCT, zq_args(&index, 4, &port, 41)), -4);
    EXPECT_EQ(zq_get_sys_diag("sys_status", ACTION_STRUCT, zq_args(nullptr, 0, text, 256)), -4);
    EXPECT_EQ(zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, text, 129)), -4);
    EXPECT_EQ(zq_get_sys_diag("wan_status", ACTION_STRUCT, zq_args(&index, 4, text, 256)), -4);
    EXPECT_EQ(zq_get_sys_diag("pppoe_status", ACTION_DIAG, zq_args(nullptr, 0, nullptr, 4)), -4);
    EXPECT_EQ(zq_get_sys_diag("wan_params", ACTION_DIAG, zq_args(nullptr, 0, &word, 3)), -4);
}

TEST(Dispatcher, OpenValidatorsAcceptAnyBlock) {
    for (const char *name : {"dns_status", "dhcp_status"})
        for (uint32_t action : {ACTION_RAW_DATA, ACTION_STRUCT, ACTION_FIX})
            EXPECT_EQ(zq_get_sys_diag(name, action, zq_args(nullptr, 12345, nullptr, 1)), -2)
                << name << action;
}

TEST(Dispatcher, RunsTheCommandMethod) {
    char out[64] = {};
    EXPECT_EQ(zq_get_sys_diag("cmd", ACTION_RAW_DATA, zq_args("echo hello", 11, out, sizeof(out))), 0);
    EXPECT_STREQ(out, "hello\n");
}

} // namespace
