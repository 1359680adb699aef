#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "tests/methods/method_support.hpp"

using namespace zq;

namespace {

using method_test::records;
using method_test::run_step;

// ---- The method in the lab ---------------------------------------------------------

class SysStatus : public ::testing::Test {
  protected:
    void SetUp() override { clear_diag_chain(); }

    static zqSD_sys_diag record() { return method_test::only_record<zqSD_sys_diag>(); }
    static uint64_t pid_of(const char *name) {
        const auto ids = zqlab::pids(name);
        return ids.empty() ? 0 : static_cast<uint64_t>(ids.front());
    }
    static void store_faults(uint32_t faults) {
        zqSD_sys_diag sys{};
        sys.fault_flags = faults;
        ASSERT_EQ(zq_diag_record(SYS_DIAG_DATA, &sys, sizeof(sys)), 0);
    }
    // A process list whose udhcpd lines never change.
    static void fake_ps(const std::string &listing) {
        zqlab::write_file("/bin/ps", "#!/bin/sh\ncat <<'EOF'\n" + listing + "EOF\n");
        ASSERT_EQ(zqlab::run_status("chmod +x /bin/ps"), 0);
    }
};

// Through the dispatcher, as the exported getter: 424 bytes, not one more.
TEST_F(SysStatus, StructGetterFillsTheStatusBlock) {
    zqlab::write_file("/var/dnsmasq.conf", "server=1.1.1.1\nno-resolv\nserver=9.9.9.9@nas0_1\n");
    zqlab::set("version", "V3.0.1\nbuild 7");
    zqSD_sys_diag block{};
    block.fault_flags = 0xdeadbeef;
    ASSERT_EQ(zq_get_sys_diag("sys_status", ACTION_STRUCT, zq_args(nullptr, 0, &block, 424)), 0);
    EXPECT_EQ(block.sys_mem_total, 253476u);
    EXPECT_EQ(block.sys_mem_free, 253476u - 121040u);
    EXPECT_EQ(block.sys_mem_usage, 47u);
    EXPECT_EQ(block.sys_cpu_usage, 12u);
    EXPECT_EQ(block.pid_boa, pid_of("boa"));
    EXPECT_EQ(block.pid_cwmpClient, pid_of("cwmpClient"));
    EXPECT_EQ(block.pid_omci_oam, pid_of("omci_app"));
    EXPECT_NE(block.pid_boa, 0u);
    EXPECT_STREQ(block.software_version, "V3.0.1 [GENERIC]");
    EXPECT_STREQ(block.dnsmasq, "1.1.1.1/9.9.9.9/");
    EXPECT_EQ(block.fault_flags, 0xdeadbeefu);
    EXPECT_EQ(zq_get_sys_status_struct(zq_args(nullptr, 0, nullptr, 424)), -1);
}

// A listing the shell could not make says nothing about the servers.
TEST_F(SysStatus, UnusableProcessListIsNoDuplicate) {
    fake_ps("ps: /bin/udhcpd: not found\n/bin/udhcpd -S /var/udhcpd/udhcpd.conf\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(if_multi_udhcpd_exist(), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("need 'pgrep' util support"), std::string::npos);
}

TEST_F(SysStatus, RepairWithoutRecordOrFaultDoesNothing) {
    zqlab::clear_journal();
    auto step = run_step("sys_status", ACTION_FIX);
    EXPECT_EQ(step.rc, 0);
    EXPECT_EQ(step.findings, "");
    store_faults(0);
    step = run_step("sys_status", ACTION_FIX);
    EXPECT_EQ(step.findings, "[normal ]The system status diagnosis is normal and no repair is required\n");
    store_faults(16 | 32);
    EXPECT_EQ(run_step("sys_status", ACTION_FIX).findings, "") << "load is not repaired";
    EXPECT_TRUE(zqlab::journal().empty());
}

// Servers that the kill does not reach: the repair says so.
TEST_F(SysStatus, DuplicateServersThatOutliveTheRepair) {
    store_faults(64);
    fake_ps("/bin/udhcpd -S /var/udhcpd/udhcpd.conf\n/bin/udhcpd -S /var/udhcpd/udhcpd.conf\n");
    EXPECT_EQ(run_step("sys_status", ACTION_FIX).findings,
              "[warn   ]'Multi lan' problem can't solve properly, is better to reboot device\n");
}

// Without /proc/stat the load cannot be known: the process ends, status 0.
TEST_F(SysStatus, UnreadableProcStatEndsTheProcess) {
    zqlab::set("cpu.unreadable", "yes");
    zqSD_sys_diag block{};
    EXPECT_EXIT(zq_get_sys_status_struct(zq_args(nullptr, 0, &block, 424)), ::testing::ExitedWithCode(0),
                "^fopen:: No such device or address\n$");
}

} // namespace
