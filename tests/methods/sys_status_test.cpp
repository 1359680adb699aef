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

// ---- Parsers and arithmetic, no gateway needed ----------------------------------

zqSD_sys_diag mem_of(const char *line) {
    zqSD_sys_diag block{};
    block.sys_mem_total = 7;
    block.sys_mem_free = 7;
    block.sys_mem_usage = 7;
    parse_mem_line(line, block);
    return block;
}

TEST(SysStatusParsers, FreeLineGivesTotalFreeAndUsage) {
    zqSD_sys_diag b = mem_of("Mem:   1000   850   150   0   0   150\n");
    EXPECT_EQ(b.sys_mem_total, 1000u);
    EXPECT_EQ(b.sys_mem_free, 150u);
    EXPECT_EQ(b.sys_mem_usage, 85u);
    b = mem_of("Mem: 1000");
    EXPECT_EQ(b.sys_mem_free, 1000u) << "a missing figure counts as 0";
    b = mem_of("Mem:");
    EXPECT_EQ(b.sys_mem_total, 0u);
    EXPECT_EQ(b.sys_mem_usage, 0u) << "no total, no usage";
    b = mem_of("   ");
    EXPECT_EQ(b.sys_mem_total, 7u) << "no label: the fields stay as they were";
    // Only spaces separate: a tab belongs to the label.
    EXPECT_EQ(mem_of("Mem:\t1000 850").sys_mem_total, 850u);
    EXPECT_EQ(mem_of("Mem: 99999999999 1").sys_mem_total, UINT32_MAX);
    // More used than total: the free figure wraps, the percentage keeps 8 bits.
    b = mem_of("Mem: 100 300");
    EXPECT_EQ(b.sys_mem_free, static_cast<uint32_t>(100u - 300u));
    EXPECT_EQ(b.sys_mem_usage, static_cast<uint8_t>(300));
}

TEST(SysStatusParsers, ProcStatLineAsScanfReadsIt) {
    cpu_stat_sample s{};
    parse_cpu_stat_line("cpu  1 2 3 4 5 6 7 8 9 10\n", s);
    EXPECT_STREQ(s.name, "cpu");
    EXPECT_EQ((std::vector<uint32_t>{s.user, s.nice, s.system, s.idle, s.iowait, s.irq, s.softirq}),
              (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7}));

    s = {};
    parse_cpu_stat_line("cpuABCDEFGHIJKLMNOPQRSTUVWXYZ 11 12", s);
    EXPECT_STREQ(s.name, "cpuABCDEFGHIJKLMNOP") << "the name is cut at 19 characters";
    EXPECT_EQ(s.user, 11u);
    EXPECT_EQ(s.nice, 12u);
    EXPECT_EQ(s.system, 0u) << "missing counters stay as they were";

    s = {};
    parse_cpu_stat_line("cpu 5 x 6", s);
    EXPECT_EQ(s.user, 5u);
    EXPECT_EQ(s.system, 0u) << "scanning stops at the first non-number";

    // %u: counters wrap at 32 bits, a sign negates, beyond 64 bits all ones.
    s = {};
    parse_cpu_stat_line("cpu 4294967297 -1 +3 99999999999999999999999", s);
    EXPECT_EQ(s.user, 1u);
    EXPECT_EQ(s.nice, UINT32_MAX);
    EXPECT_EQ(s.system, 3u);
    EXPECT_EQ(s.idle, UINT32_MAX);
}

TEST(SysStatusParsers, CpuUsageFromTwoSamples) {
    cpu_stat_sample a{};
    cpu_stat_sample b{};
    a.user = 100;
    a.idle = 100;
    b = a;
    EXPECT_EQ(calc_cpu_usage(a, b), 0.0) << "equal totals";
    b.user = 175;
    b.idle = 125;
    EXPECT_DOUBLE_EQ(calc_cpu_usage(a, b), 75.0);
    b.user = 100;
    b.iowait = 75;
    EXPECT_DOUBLE_EQ(calc_cpu_usage(a, b), 75.0) << "waiting for I/O counts as busy";
    // Totals are summed in 32 bits and wrap.
    a = {};
    a.user = UINT32_MAX - 9;
    a.idle = 10;
    b = a;
    b.idle = 20;
    EXPECT_DOUBLE_EQ(calc_cpu_usage(a, b), 0.0);
}

TEST(SysStatusParsers, CountSubstrCountsOverlappingMatches) {
    EXPECT_EQ(count_substr("aaaa", "aa"), 3);
    EXPECT_EQ(count_substr("/bin/udhcpd -S x\n/bin/udhcpd -S y\ngrep udhcpd\n", "/bin/udhcpd"), 2);
    EXPECT_EQ(count_substr("abc", ""), 0);
    EXPECT_EQ(count_substr(nullptr, "a"), 0);
    EXPECT_EQ(count_substr("a", nullptr), 0);
}

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

TEST_F(SysStatus, HealthyGatewayIsNormal) {
    const auto step = run_step("sys_status", ACTION_DIAG);
    EXPECT_EQ(step.rc, 0);
    EXPECT_EQ(step.result, 0u);
    EXPECT_EQ(step.findings, "[normal ]The system status diagnosis is normal\n");
    EXPECT_EQ(record().fault_flags, 0u);
    // The word is not cleared first: what it held stays, and is no finding.
    const auto again = run_step("sys_status", ACTION_DIAG, 0x100);
    EXPECT_EQ(again.result, 0x100u);
    EXPECT_EQ(again.findings, "");
    EXPECT_EQ(record().fault_flags, 0x100u) << "the second record replaced the first";
}

TEST_F(SysStatus, LoadAboveEightyPercentIsWarned) {
    zqlab::set("cpu.usage", "80");
    zqlab::set("mem.total", "1000");
    zqlab::set("mem.used", "800");
    auto step = run_step("sys_status", ACTION_DIAG);
    EXPECT_EQ(step.result, 0u) << step.findings;
    EXPECT_EQ(record().sys_cpu_usage, 80u);

    zqlab::set("cpu.usage", "81");
    zqlab::set("mem.used", "850");
    step = run_step("sys_status", ACTION_DIAG);
    EXPECT_EQ(step.result, 48u);
    EXPECT_EQ(step.findings,
              "[warn   ]System memory usage exceeded 80%\n[warn   ]System CPU usage exceeded 80%\n");
    const zqSD_sys_diag sys = record();
    EXPECT_EQ(sys.sys_cpu_usage, 81u);
    EXPECT_EQ(sys.sys_mem_usage, 85u);
    EXPECT_EQ(sys.sys_mem_free, 150u);
}

TEST_F(SysStatus, KernelLoadWithoutTheLabsFigure) {
    zqlab::unset("cpu.usage");
    const double usage = get_cpu_usage();
    EXPECT_GE(usage, 0.0);
    EXPECT_LE(usage, 100.0);
}

TEST_F(SysStatus, DroppedDaemonsAreRepairableFindings) {
    zqlab::set("daemons", "dnsmasq udhcpd");
    zqlab::clear_journal();
    const auto step = run_step("sys_status", ACTION_DIAG);
    EXPECT_EQ(step.result, 7u);
    EXPECT_EQ(step.findings, "[error  ]The boa process dropped --Repairable\n"
                             "[error  ]The cwmpClient process dropped --Repairable\n"
                             "[error  ]The omci_app process dropped --Repairable\n");
    EXPECT_EQ(zqlab::journal("diagM"),
              (std::vector<std::string>{"diagM get pon_info pon_mode", "diagM get tr069_enable",
                                        "diagM get pon_info pon_mode"}));

    // With TR-069 off, a missing cwmpClient is no fault; with it running the
    // manager is not even asked.
    zqlab::set("diagm.tr069_enable", "0");
    EXPECT_EQ(run_step("sys_status", ACTION_DIAG).result, 5u);
    zqlab::set("daemons", "boa cwmpClient omci_app dnsmasq udhcpd");
    zqlab::clear_journal();
    EXPECT_EQ(run_step("sys_status", ACTION_DIAG).result, 0u);
    for (const std::string &line : zqlab::journal("diagM")) EXPECT_EQ(line.find("tr069"), std::string::npos);
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

// The GPON daemon is restarted through its start script.
TEST_F(SysStatus, RepairStartsOmciThroughItsScript) {
    zqlab::set("daemons", "boa cwmpClient udhcpd");
    store_faults(4);
    zqlab::clear_journal();
    EXPECT_EQ(run_step("sys_status", ACTION_FIX).findings,
              "[success]The omci_app process succeeded in being fixed\n");
    EXPECT_EQ(zqlab::journal("runomci.sh").size(), 1u);
    EXPECT_EQ(zqlab::pids("omci_app").size(), 1u);
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
