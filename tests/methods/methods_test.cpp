// The methods one by one in the lab: each case starts with an empty record
// chain and message buffer; the WAN ones ping and look up real lab peers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "tests/methods/method_support.hpp"

using namespace zq;

namespace {

using method_test::only_record;
using method_test::run_step;
using method_test::Step;

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// Runs `fn` and returns what it wrote to the technical log.
template <class Fn> std::string log_of(Fn &&fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

class Method : public ::testing::Test {
  protected:
    void SetUp() override {
        zqlab::set("ping.interval", "0.2");    // the statistics, not the time they take, are under test
        zqlab::run("mkdir -p /tmp/diag_file"); // the command log's directory, as a diagnosis run makes it
        reset();
    }
    static void reset() {
        clear_diag_chain();
        zq_diag_msg_reset();
        zqlab::clear_journal();
    }
};

// ---- pon_status ------------------------------------------------------------------------------------

using PonStatus = Method;

TEST_F(PonStatus, UnregisteredPonAutoDetectionAndLockedVersion) {
    zqlab::scenario("pon-unregistered");
    const Step s = run_step("pon_status", ACTION_DIAG, 77);
    EXPECT_EQ(s.result, 2u);
    EXPECT_EQ(only_record<zqSD_pon_diag>().reg_state, 2u);
    // The state as diagM prints it, its line end kept.
    EXPECT_TRUE(has(s.findings, "[error  ]Pon is NOT_REGISTERED\n\n")) << s.findings;
    EXPECT_TRUE(has(s.findings, "[warn   ]Pon auto detect did not open! --Repairable\n")) << s.findings;
    zqlab::set("pon.detect", "1");
    EXPECT_TRUE(has(run_step("pon_status", ACTION_DIAG).findings, "[normal ]Pon auto detect has opened\n"));
    zqlab::set("pondetect", "no");
    EXPECT_FALSE(has(run_step("pon_status", ACTION_DIAG).findings, "auto detect"));

    zqlab::set("custname", "CMCC_lockver\n");
    EXPECT_TRUE(has(run_step("pon_status", ACTION_DIAG).findings, "[warn   ]Software version is lockver!\n"));
    zqlab::set("custname", "CMCC_unlock\n");
    EXPECT_FALSE(has(run_step("pon_status", ACTION_DIAG).findings, "lockver"));
}

TEST_F(PonStatus, NoLinkSaysOnlyThat) {
    zqlab::scenario("pon-no-link");
    const Step s = run_step("pon_status", ACTION_DIAG, 77);
    EXPECT_EQ(s.result, 1u);
    EXPECT_TRUE(has(s.findings, "[error  ]Pon not linked\n")) << s.findings;
    EXPECT_FALSE(has(s.findings, "auto detect")) << s.findings;
}

TEST_F(PonStatus, DebugSwitchesFollowThePonMode) {
    zqlab::write_file("/tmp/omcilog.par", "log");
    set_pon_debug_flag(1);
    EXPECT_EQ(zqlab::journal("omcicli").size(), 2u);
    const int flag = get_pon_debug_flag(); // asks omcicli, which refreshes the state file
    EXPECT_EQ(flag, std::stoi(zqlab::read_file("/tmp/pon_debug_status")));
    EXPECT_NE(flag, 0);
    set_pon_debug_flag(0);
    EXPECT_FALSE(zqlab::file_exists("/tmp/omcilog.par"))
        << "switching GPON debugging off removes the OMCI log";
    zqlab::scenario("epon-oam-down");
    zqlab::clear_journal();
    set_pon_debug_flag(1);
    EXPECT_EQ(zqlab::journal("oamcli"), std::vector<std::string>{"oamcli set dbgflag 0xffffffff"});
}

TEST_F(PonStatus, AuthenticationNormalOnlyWhenRegistered) {
    EXPECT_EQ(is_pon_auth_normal(), 1);
    zqlab::scenario("pon-unregistered");
    EXPECT_EQ(is_pon_auth_normal(), 0);
}

// ---- sys_status ------------------------------------------------------------------------------------

class SysStatus : public Method {
  protected:
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
    EXPECT_EQ(block.pid_boa, static_cast<uint64_t>(zqlab::pids("boa").at(0)));
    EXPECT_EQ(block.pid_cwmpClient, static_cast<uint64_t>(zqlab::pids("cwmpClient").at(0)));
    EXPECT_EQ(block.pid_omci_oam, static_cast<uint64_t>(zqlab::pids("omci_app").at(0)));
    EXPECT_STREQ(block.software_version, "V3.0.1 [GENERIC]");
    EXPECT_STREQ(block.dnsmasq, "1.1.1.1/9.9.9.9/");
    EXPECT_EQ(block.fault_flags, 0xdeadbeefu);
    EXPECT_EQ(zq_get_sys_status_struct(zq_args(nullptr, 0, nullptr, 424)), -1);
}

// A listing the shell could not make says nothing about the servers.
// 80 % is the last load that is no finding, for memory and CPU alike.
TEST_F(SysStatus, LoadAboveEightyPercentIsWarned) {
    zqlab::set("cpu.usage", "80");
    zqlab::set("mem.total", "1000");
    zqlab::set("mem.used", "800");
    EXPECT_EQ(run_step("sys_status", ACTION_DIAG).result, 0u);
    zqlab::set("cpu.usage", "81");
    zqlab::set("mem.used", "810");
    const Step step = run_step("sys_status", ACTION_DIAG);
    EXPECT_EQ(step.result, 48u);
    EXPECT_EQ(step.findings,
              "[warn   ]System memory usage exceeded 80%\n[warn   ]System CPU usage exceeded 80%\n");
}

TEST_F(SysStatus, UnusableProcessListIsNoDuplicate) {
    fake_ps("ps: /bin/udhcpd: not found\n/bin/udhcpd -S /var/udhcpd/udhcpd.conf\n");
    EXPECT_TRUE(has(log_of([] { EXPECT_EQ(if_multi_udhcpd_exist(), 0); }), "need 'pgrep' util support"));
}

TEST_F(SysStatus, RepairWithoutRecordOrFaultDoesNothing) {
    Step step = run_step("sys_status", ACTION_FIX);
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

// ---- dhcp_config -----------------------------------------------------------------------------------

using DhcpConfig = Method;
constexpr const char *LAN_NORMAL = "[normal ]The lan configuration diagnosis is normal\n";

TEST_F(DhcpConfig, HealthyServer) {
    zqSD_dhcp_diag block{};
    ASSERT_EQ(zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, &block, 130)), 0);
    EXPECT_EQ(block.server_running, 1u);
    EXPECT_STREQ(block.interface, "br0");
    EXPECT_STREQ(block.secondary_dns, "");
    EXPECT_EQ(run_step("dhcp_config", ACTION_DIAG).findings, LAN_NORMAL);
    const zqSD_dhcp_diag r = only_record<zqSD_dhcp_diag>();
    EXPECT_EQ(r.fault_flags, 0u);
    EXPECT_EQ(r.lan_dhcp_disabled, 0u);
    EXPECT_STREQ(r.pool_addr_end, "192.168.1.254");
    EXPECT_EQ(run_step("dhcp_config", ACTION_FIX).rc, 0) << "nothing to repair in a configuration";
}

// A running server whose configuration cannot be read: nothing to judge.
TEST_F(DhcpConfig, MissingConfigurationFile) {
    zqlab::run("rm -f /var/udhcpd/udhcpd.conf");
    zqSD_dhcp_diag block{};
    const std::string log = log_of([&] {
        EXPECT_EQ(zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, &block, 130)), -5);
    });
    EXPECT_TRUE(has(log, "] create fd fail!")) << log;
    EXPECT_EQ(block.server_running, 1u);
    EXPECT_EQ(run_step("dhcp_config", ACTION_DIAG).findings, LAN_NORMAL);
}

// ---- ping, dns_status, route_status ----------------------------------------------------------------

class Ping : public Method {
  protected:
    static ping_request request(const char *host, const char *source = "192.0.2.10") {
        ping_request r{};
        r.family = 4;
        strncpy(r.host, host, sizeof(r.host) - 1);
        strncpy(r.source, source, sizeof(r.source) - 1);
        return r;
    }
    static uint32_t verdict(const ping_request &req) {
        uint32_t v = 99;
        EXPECT_EQ(zq_get_sys_diag("ping", ACTION_DIAG, zq_args(&req, sizeof(req), &v, sizeof(v))), 0);
        return v;
    }
};

// An empty host runs nothing; so does a host that is no plain address or
// name. A bad source is left out. Nothing of either reaches a shell.
TEST_F(Ping, EmptyOrMalformedValuesNeverReachTheShell) {
    char text[256];
    memset(text, 'x', sizeof(text));
    const ping_request empty = request("");
    ASSERT_EQ(zq_get_sys_diag("ping", ACTION_RAW_DATA, zq_args(&empty, sizeof(empty), text, sizeof(text))),
              0);
    EXPECT_EQ(text[0], 'x') << "the output is left untouched";
    EXPECT_EQ(verdict(empty), PING_NO_STATS);

    for (const char *p : {"192.0.2.1; touch /tmp/pwned", "$(touch /tmp/pwned)", "`touch /tmp/pwned`", "-f",
                          "192.0.2.1|touch /tmp/pwned", "a b", "192.0.2.1\ntouch /tmp/pwned"}) {
        std::string log = log_of([&] { EXPECT_EQ(verdict(request(p)), PING_NO_STATS) << p; });
        EXPECT_TRUE(has(log, "is no address or host name: not pinged")) << p << "\n" << log;
    }
    EXPECT_TRUE(zqlab::journal("timeout").empty());

    std::string log = log_of([&] { verdict(request("192.0.2.1", "$(touch /tmp/pwned)")); });
    EXPECT_TRUE(has(log, "source [$(touch /tmp/pwned)] is no address or interface: pinged without it"))
        << log;
    EXPECT_EQ(zqlab::journal("timeout"),
              std::vector<std::string>{"timeout -t 10 ping -4 -c 5 -W 1 192.0.2.1"});
    EXPECT_FALSE(zqlab::file_exists("/tmp/pwned"));
}

// The exported probes, as another process of the gateway calls them.
TEST_F(Method, DnsStatusExportedProbes) {
    zqSD_wan_diag w{};
    zq::copy(w.v4_ip, "192.0.2.10");
    EXPECT_EQ(v4_ping_preset_dns(reinterpret_cast<char *>(&w)), 0);
    EXPECT_EQ(v4_ping_preset_dns(nullptr), -1);
    EXPECT_EQ(if_dns_avaliable(nullptr), 1) << "the record is not read";
    EXPECT_EQ(std::string(zq_diag_msg), "[normal ]DNS is available\n");

    // A source that is no address is left out of the command.
    reset();
    memset(w.v4_ip, ';', sizeof(w.v4_ip)); // no terminator either
    EXPECT_EQ(v4_ping_preset_dns(reinterpret_cast<char *>(&w)), 0);
    EXPECT_EQ(zqlab::journal("timeout"),
              std::vector<std::string>{"timeout -t 10 ping -4 -c 5 -W 1 192.5.5.241"});
}

// The validator lets any struct request pass; the getter refuses a block that cannot hold the table.
TEST_F(Method, RouteStatusStructGetterNeedsRoomForTheTable) {
    route_table table{};
    ASSERT_EQ(zq_get_sys_diag("route_status", ACTION_STRUCT, zq_args(nullptr, 0, &table, sizeof(table))), 0);
    ASSERT_EQ(table.count, 2);
    EXPECT_STREQ(table.destinations[0], "0.0.0.0");
    EXPECT_STREQ(table.destinations[1], "192.0.2.0");
    EXPECT_STREQ(table.masks[1], "255.255.255.0");
    char small[16];
    memset(small, 'x', sizeof(small));
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_STRUCT, zq_args(nullptr, 0, small, sizeof(small))), -5);
    EXPECT_EQ(small[0], 'x');
    uint32_t word = 0;
    EXPECT_EQ(zq_get_sys_diag("route_status", ACTION_DIAG, zq_args(nullptr, 0, &word, 8)), -4);
}

// ping's statistics as busybox and iputils print them, and the verdict rules at their bounds.
TEST(PingParser, StatisticsOfBothPingsAndTheVerdictRules) {
    constexpr uint32_t U = 77; // untouched
    const std::string all = "5 packets transmitted, 5 packets received, 0% packet loss\n",
                      rtt = all + "round-trip min/avg/max = ";
    const std::tuple<std::string, uint8_t, uint8_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>
        cases[] = {
            {"", 100, 1, U, U, U, U, PING_NO_STATS},
            {"5 packets transmitted, 0 packets received, 100% packet loss\n", 100, 0, U, U, U, U,
             PING_UNREACHABLE},
            {rtt + "0.101/0.220/0.415 ms\n", 0, 0, 0, 0, 0, 0, PING_NORMAL}, // fractions are cut
            {rtt + "10.1/50.5/80.9 ms\n", 0, 0, 50, 10, 80, 70, PING_JITTER},
            {rtt + "1.0/5.0/11.0 ms\n", 0, 0, 5, 1, 11, 10, PING_NORMAL}, // a jitter of exactly 10 is none
            {rtt + "190.0/200.9/200.0 ms\n", 0, 0, 200, 190, 200, 10, PING_NORMAL}, // 200 ms is not slow
            {rtt + "195.0/201.0/205.0 ms\n", 0, 0, 201, 195, 205, 10, PING_SLOW},
            {"3 packets transmitted, 2 received, 33.3% packet loss, time 2003ms\n", 33, 0, 0, 0, 0, 0,
             PING_LOSS},
            {"5 packets transmitted, 5 received, 0% packet loss, time 4005ms\nrtt min/avg/max/mdev = "
             "1.1/2.2/3.3/0.4 ms\n",
             0, 0, 2, 1, 3, 2, PING_NORMAL}, // iputils: mdev after max
            {all + "round-trip min/avg/max 1/2/3 ms\n", 0, 0, 0, 0, 0, 0,
             PING_NORMAL},                                            // no '=': nothing is read
            {rtt + "1/2/3", 0, 0, 2, 1, 0, 4294967295u, PING_JITTER}, // jitter = max - min, unsigned
            {rtt + "1234567890123456789012345678901234567890/2/3 ms\n", 0, 0, 2, 0, 3, 3, PING_NORMAL},
            {rtt + std::string(31, '1') + "/2/3 ms\n", 0, 0, 2, 2147483647u, 3, 2147483652u,
             PING_JITTER}, // longest read
        };
    for (const auto &[text, loss, no_stats, avg, min, max, jitter, verdict] : cases) {
        ping_result r{};
        r.avg = r.min = r.max = r.jitter = U;
        parse_ping_output(text, r);
        EXPECT_EQ(std::tuple(r.loss, r.no_stats, r.avg, r.min, r.max, r.jitter, ping_verdict(r)),
                  std::tuple(loss, no_stats, avg, min, max, jitter, verdict))
            << text;
    }
}

} // namespace
