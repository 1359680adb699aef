#include <gtest/gtest.h>

#include <string>

#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "tests/methods/method_support.hpp"

using namespace zq;

namespace {

using method_test::records;
using method_test::run_step;
using method_test::store_wan;

// ---- The method in the lab ---------------------------------------------------------

constexpr const char *CONF_PATH = "/var/udhcpd/udhcpd.conf";
constexpr const char *NORMAL = "[normal ]The lan configuration diagnosis is normal\n";

class DhcpConfig : public ::testing::Test {
  protected:
    void SetUp() override { clear_diag_chain(); }

    static zqSD_dhcp_diag record() { return method_test::only_record<zqSD_dhcp_diag>(); }
    static std::string diagnose() { return run_step("dhcp_config", ACTION_DIAG).findings; }
    static void conf(const std::string &server, const std::string &pool, const std::string &router) {
        zqlab::write_file(CONF_PATH, "interface br0\nserver " + server + "\nstart " + pool + ".2\nend " +
                                         pool + ".254\nopt subnet 255.255.255.0\nopt router " + router +
                                         "\n");
    }
    static void dhcps_disable(const std::string &rules) {
        zqlab::set("ebtables",
                   "Bridge table: filter\n\nBridge chain: dhcps_disable, entries: 2, policy: RETURN\n" +
                       rules + "\n");
    }
};

TEST_F(DhcpConfig, HealthyServer) {
    zqSD_dhcp_diag block{};
    ASSERT_EQ(zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, &block, 130)), 0);
    EXPECT_EQ(block.server_running, 1u);
    EXPECT_STREQ(block.interface, "br0");
    EXPECT_STREQ(block.secondary_dns, "");
    EXPECT_EQ(diagnose(), NORMAL);
    const zqSD_dhcp_diag r = record();
    EXPECT_EQ(r.fault_flags, 0u);
    EXPECT_EQ(r.lan_dhcp_disabled, 0u);
    EXPECT_STREQ(r.pool_addr_end, "192.168.1.254");
    EXPECT_EQ(run_step("dhcp_config", ACTION_FIX).rc, 0) << "nothing to repair in a configuration";
}

// A running server whose configuration cannot be read: nothing to judge.
TEST_F(DhcpConfig, MissingConfigurationFile) {
    zqlab::run("rm -f /var/udhcpd/udhcpd.conf");
    zqSD_dhcp_diag block{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, &block, 130)), -5);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("] create fd fail!"), std::string::npos);
    EXPECT_EQ(block.server_running, 1u);
    EXPECT_EQ(diagnose(), NORMAL);
}

} // namespace
