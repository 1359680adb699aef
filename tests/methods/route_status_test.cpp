// route_status: busybox route -n read from the lab gateway's kernel table,
// compared with WAN records stored by hand.
#include "tests/methods/wan_fixture.hpp"

#include "methods/methods.h"

using namespace zq;

namespace {

const char *const TITLE = "Kernel IP routing table\n"
                          "Destination     Gateway         Genmask         Flags Metric Ref    Use Iface\n";

class RouteStatus : public WanMethod {
  protected:
    static uint32_t diagnose(uint32_t result = 0) {
        EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_DIAG, zq_args(nullptr, 0, &result, 4)), 0);
        return result;
    }
    static void route(const std::string &args) {
        ASSERT_EQ(zqlab::run_status("ip route " + args), 0) << args;
    }
};

TEST_F(RouteStatus, StructGetterNeedsRoomForTheTable) {
    route_table table{};
    ASSERT_EQ(zq_get_sys_diag("route_status", ACTION_STRUCT, zq_args(nullptr, 0, &table, sizeof(table))), 0);
    ASSERT_EQ(table.count, 2);
    EXPECT_STREQ(table.destinations[0], "0.0.0.0");
    EXPECT_STREQ(table.destinations[1], "192.0.2.0");
    EXPECT_STREQ(table.masks[1], "255.255.255.0");
    // The validator lets any struct request pass; the getter refuses a
    // block that cannot hold the table.
    char small[16];
    memset(small, 'x', sizeof(small));
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_STRUCT, zq_args(nullptr, 0, small, sizeof(small))), -5);
    EXPECT_EQ(small[0], 'x');
    uint32_t word = 0;
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_DIAG, zq_args(nullptr, 0, &word, 8)), -4);
}

} // namespace
