// The simulated gateway as the library sees it: run inside a fresh lab
// started with the healthy-gpon scenario.
#include "zqlab.hpp"

#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sstream>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/vfs.h>

namespace {

std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    std::string w;
    while (in >> w) out.push_back(w);
    return out;
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string l;
    while (std::getline(in, l)) out.push_back(l);
    return out;
}

int count_of(const std::string &text, const std::string &needle) {
    int n = 0;
    for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) n++;
    return n;
}

uint32_t read_alarm_word() {
    key_t key = ftok("/tmp", 955000);
    EXPECT_NE(key, -1);
    int id = shmget(key, 4, 0);
    EXPECT_NE(id, -1) << "no alarm word segment";
    if (id == -1) return 0xdeadbeef;
    void *addr = shmat(id, nullptr, SHM_RDONLY);
    EXPECT_NE(addr, reinterpret_cast<void *>(-1));
    if (addr == reinterpret_cast<void *>(-1)) return 0xdeadbeef;
    uint32_t v = *static_cast<volatile uint32_t *>(addr);
    shmdt(addr);
    return v;
}

int session_of(int pid) {
    std::string stat = zqlab::read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    if (paren == std::string::npos) return -1;
    std::vector<std::string> f = words(stat.substr(paren + 1));
    return f.size() > 3 ? std::atoi(f[3].c_str()) : -1; // state ppid pgrp session
}

std::string manager_pid_text() { return zqlab::read_file("/var/run/diagM.pid"); }

} // namespace

TEST(Lab, RunsInAFreshLabWithOnlyLoopback) {
    ASSERT_TRUE(zqlab::inside());
    EXPECT_TRUE(zqlab::journal().empty()) << "the lab's own start-up is not journaled";
    EXPECT_EQ(zqlab::read_file("/proc/1/comm"), "init\n");

    std::string dev = zqlab::read_file("/proc/net/dev");
    std::vector<std::string> ifaces;
    for (const std::string &l : lines(dev))
        if (l.find(':') != std::string::npos) ifaces.push_back(words(l.substr(0, l.find(':')))[0]);
    EXPECT_EQ(ifaces, std::vector<std::string>{"lo"});
    EXPECT_NE(zqlab::run("ip link show lo").find("UP"), std::string::npos);
}

TEST(Lab, TmpRunAndShmArePrivateTmpfs) {
    const long tmpfs_magic = 0x01021994;
    for (const char *dir : {"/tmp", "/run", "/dev/shm"}) {
        struct statfs fs;
        ASSERT_EQ(statfs(dir, &fs), 0) << dir;
        EXPECT_EQ(static_cast<long>(fs.f_type), tmpfs_magic) << dir;
    }
    // The library's permit lives here; a fresh lab never has it.
    EXPECT_FALSE(zqlab::file_exists("/dev/shm/sem.diag_permit"));
    sem_t *s = sem_open("diag_permit", O_CREAT, 0644, 1);
    ASSERT_NE(s, SEM_FAILED);
    EXPECT_TRUE(zqlab::file_exists("/dev/shm/sem.diag_permit"));
    sem_close(s);
}

TEST(Lab, ShellIsDashWithBusyboxUserland) {
    // /bin/sh stays dash so that the firmware shims on PATH win over
    // busybox's built-in applets.
    EXPECT_EQ(zqlab::run("readlink /bin/sh"), "dash\n");
    for (const char *tool : {"ps", "route", "ifconfig", "arp", "ping", "nslookup", "tar", "grep", "sed",
                             "xargs", "kill", "ls", "mv", "rm", "mkdir", "cp", "sleep"}) {
        EXPECT_EQ(zqlab::run(std::string("readlink /bin/") + tool), "/usr/bin/busybox\n") << tool;
    }
}

// --- diagM ------------------------------------------------------------------

TEST(DiagMTool, AnswersFromTheScenario) {
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_mode"), "GPON\n");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NORMAL\n");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_tx_power"), "2.35\n");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_rx_power"), "-18.52\n");

    // WAN and port values are printed bare: the library copies them as is.
    EXPECT_EQ(zqlab::run("diagM get wan_info wan_num"), "1");
    EXPECT_EQ(zqlab::run("diagM get wan_info wan_name 0"), "1_TR069_INTERNET_R_VID_100");
    EXPECT_EQ(zqlab::run("diagM get wan_info type 0"), "route-dhcp");
    EXPECT_EQ(zqlab::run("diagM get wan_info protocol 0"), "IPv4");
    EXPECT_EQ(zqlab::run("diagM get wan_info v4_gateway 0"), "192.0.2.1");
    EXPECT_EQ(zqlab::run("diagM get wan_info v6_ip 0"), "");
    EXPECT_EQ(zqlab::run("diagM get wan_info v4_ip 1"), "") << "no second WAN";
    EXPECT_EQ(zqlab::run("diagM get port_info port_num"), "4");
    EXPECT_EQ(zqlab::run("diagM get port_info status 0"), "Up");
    EXPECT_EQ(zqlab::run("diagM get port_info status 1"), "Down");
    EXPECT_EQ(zqlab::run("diagM get port_info speed 0"), "1000");

    EXPECT_EQ(zqlab::run("diagM get diag_state"), "enable\n");
    EXPECT_EQ(zqlab::run("diagM get iperf_test_enable"), "disable\n");
    EXPECT_EQ(zqlab::run("diagM get available_wlan"), "2.4G 5G\n");
    EXPECT_EQ(zqlab::run("diagM get tr069_enable"), "1\n");
    EXPECT_EQ(zqlab::run("diagM wan_route add 203.0.113.7 0"), "0\n");
    EXPECT_EQ(zqlab::run("diagM wan_route del 203.0.113.7 -1"), "0\n");
    EXPECT_EQ(zqlab::run_status("diagM restart_wan"), 0);
}

TEST(DiagMTool, FollowsChangedKeys) {
    zqlab::set("pon.state", "NOT_REGISTERED");
    zqlab::set("wan.0.v4_gateway", "");
    zqlab::set("diagm.wan_route", "-1");
    zqlab::set("diagm.available_wlan", "5G");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NOT_REGISTERED\n");
    EXPECT_EQ(zqlab::run("diagM get wan_info v4_gateway 0"), "");
    EXPECT_EQ(zqlab::run("diagM wan_route add 203.0.113.7 0"), "-1\n");
    EXPECT_EQ(zqlab::run("diagM get available_wlan"), "5G\n");

    zqlab::set("diagm.answers", "no");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_mode"), "") << "a manager that does not answer";
}

TEST(DiagMTool, RejectsMalformedCommands) {
    EXPECT_NE(zqlab::run_status("diagM get 2>/dev/null"), 0);
    EXPECT_NE(zqlab::run_status("diagM get wan_info v4_ip 2>/dev/null"), 0);
    EXPECT_NE(zqlab::run_status("diagM wan_route flip 1.2.3.4 0 2>/dev/null"), 0);
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_nothing"), "");
}

// --- PON tools --------------------------------------------------------------

TEST(PonTools, FlashGetAndSetPonDetect) {
    EXPECT_EQ(zqlab::run("flash get PON_DETECT"), "PON_DETECT=1\n");
    zqlab::set("pon.detect", "0");
    EXPECT_EQ(zqlab::run("flash get PON_DETECT"), "PON_DETECT=0\n");
    EXPECT_EQ(zqlab::run("flash set PON_DETECT 1"), "PON_DETECT=1\n");
    EXPECT_EQ(zqlab::get("pon.detect"), "1");
    EXPECT_EQ(zqlab::run("flash get PON_DETECT"), "PON_DETECT=1\n");

    zqlab::set("pon.detect", "0");
    zqlab::set("flash.readonly", "yes");
    EXPECT_EQ(zqlab::run("flash set PON_DETECT 1"), "") << "a store that refuses the write";
    EXPECT_EQ(zqlab::run("flash get PON_DETECT"), "PON_DETECT=0\n");
}

TEST(PonTools, DebugSwitchesLeaveTheirStateInTheStatusFile) {
    EXPECT_EQ(zqlab::read_file("/tmp/pon_debug_status"), "0\n");

    zqlab::run("omcicli set log dbg dbg; omcicli set logfile 6 0xffffffff; omcicli get log");
    EXPECT_NE(std::atoi(zqlab::read_file("/tmp/pon_debug_status").c_str()), 0);
    EXPECT_TRUE(zqlab::file_exists("/tmp/omcilog.par"));

    zqlab::run("omcicli set log off off; omcicli set logfile 0 0; omcicli get log");
    EXPECT_EQ(zqlab::read_file("/tmp/pon_debug_status"), "0\n");

    zqlab::run("oamcli set dbgflag 0xffffffff; oamcli get dbgflag");
    EXPECT_NE(std::atoi(zqlab::read_file("/tmp/pon_debug_status").c_str()), 0);
    zqlab::run("oamcli set dbgflag 0x00000000; oamcli get dbgflag");
    EXPECT_EQ(zqlab::read_file("/tmp/pon_debug_status"), "0\n");

    // The status file is only rewritten by a "get".
    zqlab::run("omcicli set log dbg dbg");
    EXPECT_EQ(zqlab::read_file("/tmp/pon_debug_status"), "0\n");
}

TEST(PonTools, PondetectPresenceFollowsTheKey) {
    EXPECT_EQ(zqlab::run("ls /bin | grep pondetect"), "");
    zqlab::set("pondetect", "yes");
    EXPECT_EQ(zqlab::run("ls /bin | grep pondetect"), "pondetect\n");
    EXPECT_EQ(zqlab::run_status("pondetect"), 0);
    zqlab::set("pondetect", "no");
    EXPECT_EQ(zqlab::run("ls /bin | grep pondetect"), "");
}

// --- scenarios --------------------------------------------------------------

TEST(Scenarios, ShippedScenariosSetTheirState) {
    zqlab::scenario("pon-unregistered");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NOT_REGISTERED\n");
    EXPECT_EQ(zqlab::run("flash get PON_DETECT"), "PON_DETECT=0\n");
    EXPECT_EQ(zqlab::run("ls /bin | grep pondetect"), "pondetect\n");

    zqlab::scenario("pon-no-link");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NO_LINKED\n");
    EXPECT_EQ(zqlab::run("ls /bin | grep pondetect"), "") << "reset to the scenario, not layered on the last";

    zqlab::scenario("epon-oam-down");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_mode"), "EPON\n");
    EXPECT_TRUE(zqlab::pids("eponoamd").empty());
    EXPECT_TRUE(zqlab::pids("omci_app").empty());
    EXPECT_EQ(zqlab::pids("boa").size(), 1u);

    zqlab::scenario("loaded-system");
    EXPECT_EQ(read_alarm_word(), 0x18u);
    EXPECT_TRUE(zqlab::pids("boa").empty());
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 2u);
    EXPECT_EQ(count_of(zqlab::run("ps | grep udhcpd"), "/bin/udhcpd"), 2);

    zqlab::scenario("healthy-gpon");
    EXPECT_EQ(read_alarm_word(), 0u);
    EXPECT_EQ(zqlab::pids("boa").size(), 1u);
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 1u);
}

TEST(Scenarios, FileFormat) {
    zqlab::write_file("/tmp/custom.scn", "# a comment\n"
                                         "include healthy-gpon\n"
                                         "  pon.state   =   NO_LINKED  \n"
                                         "custname = \"  spaced  \"\n"
                                         "wan.0.v4_ip =\n"
                                         "unset time.synced\n"
                                         "/etc/extra.conf <<EOF\n"
                                         "  kept indented\n"
                                         "a = b << c\n"
                                         "EOF\n"
                                         "ebtables <<END\n"
                                         "Bridge table: filter\n"
                                         "\n"
                                         "Bridge chain: dhcps_disable, entries: 1, policy: RETURN\n"
                                         "-p IPv4 -i eth0.3 --ip-proto udp --ip-dport 67 -j DROP\n"
                                         "END\n"
                                         "version = V9 << not a block\n");
    zqlab::scenario("/tmp/custom.scn");
    EXPECT_EQ(zqlab::get("pon.state"), "NO_LINKED");
    EXPECT_EQ(zqlab::get("custname"), "  spaced  ");
    EXPECT_EQ(zqlab::read_file("/etc/custname"), "  spaced  \n");
    EXPECT_TRUE(zqlab::has("wan.0.v4_ip"));
    EXPECT_EQ(zqlab::get("wan.0.v4_ip"), "");
    EXPECT_FALSE(zqlab::has("time.synced"));
    EXPECT_FALSE(zqlab::file_exists("/tmp/timeStatus"));
    EXPECT_EQ(zqlab::read_file("/etc/extra.conf"), "  kept indented\na = b << c\n");
    EXPECT_EQ(zqlab::get("version"), "V9 << not a block");
    EXPECT_EQ(zqlab::run("ebtables -L dhcps_disable | grep dhcps_disable -A20"),
              "Bridge chain: dhcps_disable, entries: 1, policy: RETURN\n"
              "-p IPv4 -i eth0.3 --ip-proto udp --ip-dport 67 -j DROP\n");
    EXPECT_EQ(zqlab::run("diagM get wan_info wan_name 0"), "1_TR069_INTERNET_R_VID_100") << "included";

    // Re-applying a scenario removes what the previous one wrote.
    zqlab::scenario("healthy-gpon");
    EXPECT_FALSE(zqlab::file_exists("/etc/extra.conf"));
    EXPECT_EQ(zqlab::read_file("/tmp/timeStatus"), "2");
}

TEST(Scenarios, BrokenScenariosAreRefused) {
    zqlab::write_file("/tmp/bad1.scn", "pon.state NORMAL\n");
    zqlab::write_file("/tmp/bad2.scn", "ebtables <<END\nno end marker\n");
    zqlab::write_file("/tmp/bad3.scn", "pon state = x\n");
    EXPECT_NE(zqlab::run_status("zqlab scenario nosuch 2>/dev/null"), 0);
    EXPECT_NE(zqlab::run_status("zqlab scenario /tmp/bad1.scn 2>/dev/null"), 0);
    EXPECT_NE(zqlab::run_status("zqlab scenario /tmp/bad2.scn 2>/dev/null"), 0);
    EXPECT_NE(zqlab::run_status("zqlab scenario /tmp/bad3.scn 2>/dev/null"), 0);
    EXPECT_NE(zqlab::run_status("zqlab set 'bad key' x 2>/dev/null"), 0);
}

TEST(Scenarios, DumpRoundTrips) {
    zqlab::set("custname", " lead");
    zqlab::set("/tmp/omcilog.par", "line one\nline two\n");
    zqlab::write_file("/tmp/dump.scn", zqlab::run("zqlab dump"));
    zqlab::scenario("pon-no-link");
    zqlab::scenario("/tmp/dump.scn");
    EXPECT_EQ(zqlab::get("custname"), " lead");
    EXPECT_EQ(zqlab::get("pon.state"), "NORMAL");
    EXPECT_EQ(zqlab::read_file("/tmp/omcilog.par"), "line one\nline two\n");
    EXPECT_EQ(zqlab::get("ebtables"), zqlab::run("ebtables -L"));
}

// --- files of the gateway -----------------------------------------------------

TEST(GatewayFiles, FixedFilesExist) {
    for (const char *path :
         {"/etc/version", "/etc/custname", "/var/dnsmasq.conf", "/var/udhcpd/udhcpd.conf", "/bin/boa",
          "/bin/cwmpClient", "/bin/udhcpd", "/etc/runomci.sh", "/tmp/timeStatus",
          "/tmp/max_size_of_tcpdump_file", "/tmp/pon_debug_status", "/tmp/omcilog.par"}) {
        EXPECT_TRUE(zqlab::file_exists(path)) << path;
    }
    EXPECT_EQ(zqlab::run("cat /etc/version"), "V2.1.0R5\n");
    EXPECT_EQ(zqlab::run("cat /etc/custname"), "GENERIC\n");
    EXPECT_EQ(zqlab::read_file("/tmp/timeStatus"), "2");
    EXPECT_EQ(zqlab::read_file("/tmp/max_size_of_tcpdump_file"), "3");
    EXPECT_EQ(zqlab::run("cat /var/dnsmasq.conf | grep server=[0-9] | sed s/server=// | sed s/@.*//"),
              "198.51.100.53\n198.51.100.54\n");
    EXPECT_NE(zqlab::read_file("/var/udhcpd/udhcpd.conf").find("opt router 192.168.1.1\n"),
              std::string::npos);
}

TEST(GatewayFiles, KeysRewriteTheirFiles) {
    zqlab::set("version", "V3");
    zqlab::set("custname", "CUST_lock");
    zqlab::set("tcpdump.max_size", "0");
    zqlab::set("/var/udhcpd/udhcpd.conf", "server 0.0.0.0\n");
    EXPECT_EQ(zqlab::read_file("/etc/version"), "V3\n");
    EXPECT_EQ(zqlab::read_file("/etc/custname"), "CUST_lock\n");
    EXPECT_EQ(zqlab::read_file("/tmp/max_size_of_tcpdump_file"), "0");
    EXPECT_EQ(zqlab::read_file("/var/udhcpd/udhcpd.conf"), "server 0.0.0.0\n");
    EXPECT_EQ(zqlab::get("/var/udhcpd/udhcpd.conf"), "server 0.0.0.0\n");

    zqlab::unset("time.synced");
    zqlab::unset("tcpdump.max_size");
    zqlab::unset("/var/dnsmasq.conf");
    EXPECT_FALSE(zqlab::file_exists("/tmp/timeStatus"));
    EXPECT_FALSE(zqlab::file_exists("/tmp/max_size_of_tcpdump_file"));
    EXPECT_FALSE(zqlab::file_exists("/var/dnsmasq.conf"));
}

TEST(GatewayFiles, PackageListings) {
    std::string eb = zqlab::run("ebtables -L");
    EXPECT_NE(eb.find("Bridge table: filter"), std::string::npos);
    EXPECT_NE(eb.find("Bridge chain: dhcps_disable"), std::string::npos);
    std::string chain = zqlab::run("ebtables -L dhcps_disable");
    EXPECT_EQ(chain, "Bridge table: filter\n\nBridge chain: dhcps_disable, entries: 0, policy: RETURN\n");
    EXPECT_EQ(zqlab::run("ebtables -L dhcps_disable | grep dhcps_disable -A20").find("-i"),
              std::string::npos);
    EXPECT_NE(zqlab::run_status("ebtables -L nosuch 2>/dev/null"), 0);

    EXPECT_NE(zqlab::run("iptables -nvL").find("Chain INPUT"), std::string::npos);
    EXPECT_EQ(zqlab::run("cat /proc/mtd").rfind("dev:    size   erasesize  name\n", 0), 0u);
    EXPECT_NE(zqlab::run("nv getenv").find("bootdelay=1\n"), std::string::npos);
    EXPECT_EQ(zqlab::run("nv getenv baudrate"), "baudrate=115200\n");
    EXPECT_NE(zqlab::run("mib all cs").find("LAN_IP_ADDR=192.168.1.1\n"), std::string::npos);
    EXPECT_NE(zqlab::run("mib all hs").find("HW_SERIAL_NO="), std::string::npos);
    EXPECT_NE(zqlab::run("ifconfig").find("lo"), std::string::npos);
    EXPECT_EQ(zqlab::run_status("arp -nv >/dev/null 2>&1; route -n >/dev/null"), 0);
}

// --- shims ------------------------------------------------------------------

TEST(Shims, TimeoutTakesTheFirmwareSyntax) {
    EXPECT_EQ(zqlab::run_status("timeout -t 5 true"), 0);
    EXPECT_EQ(zqlab::run_status("timeout 5 true"), 0);
    EXPECT_EQ(zqlab::run("timeout -t 5 echo hello"), "hello\n");
    EXPECT_NE(zqlab::run_status("timeout -t 1 sleep 30"), 0);
    EXPECT_NE(zqlab::run_status("timeout -t 5 false"), 0);
}

TEST(Shims, PgrepListsMatchingNamesOnePerLine) {
    zqlab::start("udhcpd");
    std::vector<int> ids = zqlab::pids("udhcpd");
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(zqlab::run("pgrep udhcpd"), std::to_string(ids[0]) + "\n" + std::to_string(ids[1]) + "\n");
    EXPECT_EQ(zqlab::run("pgrep cwmp"), std::to_string(zqlab::pids("cwmpClient").at(0)) + "\n") << "pattern";
    EXPECT_EQ(zqlab::run("pgrep nosuchdaemon"), "");
    EXPECT_EQ(zqlab::run_status("pgrep nosuchdaemon"), 1);
    EXPECT_EQ(zqlab::run("pgrep -x cwmp"), "");
}

TEST(Shims, FreeShowsTheScenarioMemory) {
    std::vector<std::string> mem = words(zqlab::run("free | grep Mem"));
    ASSERT_GE(mem.size(), 3u);
    EXPECT_EQ(mem[0], "Mem:");
    EXPECT_EQ(mem[1], "253476");
    EXPECT_EQ(mem[2], "121040");
    zqlab::set("mem.used", "250000");
    EXPECT_EQ(words(zqlab::run("free | grep Mem")).at(2), "250000");
}

TEST(Shims, DateShowsTheScenarioClock) {
    EXPECT_EQ(zqlab::run("date"), "Mon Nov 16 16:21:23 UTC 2026\n");
    zqlab::set("clock.date", "Thu Jan  1 00:05:09 GMT 2026");
    EXPECT_EQ(zqlab::run("date"), "Thu Jan  1 00:05:09 GMT 2026\n");
    zqlab::unset("clock.date");
    EXPECT_NE(zqlab::run("date"), "Thu Jan  1 00:05:09 GMT 2026\n");
}

// --- daemons ----------------------------------------------------------------

TEST(Daemons, RunUnderTheGatewaysNames) {
    for (const char *name : {"boa", "cwmpClient", "omci_app", "udhcpd", "dnsmasq"})
        EXPECT_EQ(zqlab::pids(name).size(), 1u) << name;
    EXPECT_TRUE(zqlab::pids("eponoamd").empty());

    std::string ps = zqlab::run("ps");
    EXPECT_NE(ps.find("/bin/udhcpd -S /var/udhcpd/udhcpd.conf"), std::string::npos);
    EXPECT_NE(ps.find("/bin/boa"), std::string::npos);
    EXPECT_EQ(count_of(zqlab::run("ps | grep udhcpd"), "/bin/udhcpd"), 1);
    EXPECT_EQ(zqlab::run("pgrep udhcpd"), std::to_string(zqlab::pids("udhcpd").at(0)) + "\n");
}

TEST(Daemons, DaemonsKeyStartsAndStops) {
    zqlab::set("daemons", "cwmpClient omci_app eponoamd udhcpd");
    EXPECT_TRUE(zqlab::pids("boa").empty());
    EXPECT_TRUE(zqlab::pids("dnsmasq").empty());
    EXPECT_EQ(zqlab::pids("eponoamd").size(), 1u);
    EXPECT_EQ(zqlab::run("pgrep boa"), "");

    zqlab::set("udhcpd.count", "3");
    EXPECT_EQ(count_of(zqlab::run("ps | grep udhcpd"), "/bin/udhcpd"), 3);
    zqlab::set("udhcpd.count", "1");
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 1u);

    zqlab::set("daemons", "boa mystery_d");
    EXPECT_EQ(zqlab::pids("boa").size(), 1u);
    EXPECT_EQ(zqlab::pids("mystery_d").size(), 1u) << "any name runs as an idle daemon";
    EXPECT_TRUE(zqlab::pids("udhcpd").empty());
    zqlab::set("daemons", "boa");
    EXPECT_TRUE(zqlab::pids("mystery_d").empty());
}

TEST(Daemons, RestartCommandsBringThemBack) {
    zqlab::stop("boa");
    zqlab::stop("cwmpClient");
    zqlab::stop("omci_app");
    ASSERT_TRUE(zqlab::pids("boa").empty());
    // The repair runs these through popen: they must return, and the daemon
    // must be visible right away.
    EXPECT_EQ(zqlab::run("/bin/boa &"), "");
    EXPECT_NE(zqlab::run("pgrep boa"), "");
    EXPECT_EQ(zqlab::run("/bin/cwmpClient &"), "");
    EXPECT_NE(zqlab::run("pgrep cwmpClient"), "");
    EXPECT_EQ(zqlab::run("/etc/runomci.sh &"), "");
    EXPECT_EQ(zqlab::pids("omci_app").size(), 1u);

    // A second instance cannot take the first one's place...
    EXPECT_NE(zqlab::run_status("/bin/boa 2>/dev/null"), 0);
    EXPECT_EQ(zqlab::pids("boa").size(), 1u);
    // ...but udhcpd servers can be doubled.
    EXPECT_EQ(zqlab::run_status("/bin/udhcpd -S /var/udhcpd/udhcpd.conf"), 0);
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 2u);
}

TEST(Daemons, DuplicateDhcpServerRepair) {
    zqlab::scenario("loaded-system");
    ASSERT_EQ(count_of(zqlab::run("ps | grep udhcpd"), "/bin/udhcpd"), 2);
    std::vector<int> old = zqlab::pids("udhcpd");
    zqlab::run_status("pgrep udhcpd | xargs kill -s KILL");
    zqlab::run_status("/bin/udhcpd -S /var/udhcpd/udhcpd.conf&");
    // The killed servers die and are reaped by the lab's init, and the new
    // one comes up in the background: wait for both (a daemon that is set up
    // leads a session of its own).
    auto settled = [&] {
        for (int pid : old)
            if (zqlab::file_exists("/proc/" + std::to_string(pid))) return false;
        std::vector<int> now = zqlab::pids("udhcpd");
        return now.size() == 1 && session_of(now[0]) == now[0];
    };
    for (int i = 0; i < 5000 && !settled(); i++) usleep(1000);
    ASSERT_TRUE(settled());
    EXPECT_EQ(count_of(zqlab::run("ps | grep udhcpd"), "/bin/udhcpd"), 1);
}

TEST(Daemons, BrokenDaemonsFailToStart) {
    zqlab::set("daemons.broken", "boa");
    zqlab::stop("boa");
    EXPECT_NE(zqlab::run_status("/bin/boa 2>/dev/null"), 0);
    zqlab::run("/bin/boa 2>/dev/null &");
    EXPECT_TRUE(zqlab::pids("boa").empty());
    EXPECT_EQ(zqlab::journal("boa"), (std::vector<std::string>{"boa", "boa"})) << "the attempts are recorded";
}

TEST(Daemons, StoppedDaemonsLeaveNoZombie) {
    int pid = zqlab::pids("dnsmasq").at(0);
    zqlab::stop("dnsmasq");
    EXPECT_FALSE(zqlab::file_exists("/proc/" + std::to_string(pid)));
}

// --- diagnosis manager --------------------------------------------------------

TEST(DiagManager, PidFileNamesALiveManager) {
    int pid = std::atoi(manager_pid_text().c_str());
    ASSERT_GT(pid, 1);
    EXPECT_EQ(manager_pid_text(), std::to_string(pid) + "\n");
    EXPECT_EQ(kill(pid, 0), 0);
    EXPECT_EQ(zqlab::read_file("/proc/" + std::to_string(pid) + "/comm"), "diagM\n");
}

TEST(DiagManager, SurvivesAndCountsSigusr2) {
    int pid = std::atoi(manager_pid_text().c_str());
    ASSERT_GT(pid, 1);
    EXPECT_EQ(zqlab::sigusr2_count(), 0);
    ASSERT_EQ(kill(pid, SIGUSR2), 0);
    EXPECT_EQ(zqlab::sigusr2_count(), 1);
    ASSERT_EQ(kill(pid, SIGUSR2), 0);
    EXPECT_EQ(zqlab::sigusr2_count(), 2);
    EXPECT_EQ(kill(pid, 0), 0);
    EXPECT_EQ(zqlab::read_file("/run/zqlab/diagm/sigusr2"), "2\n");
}

TEST(DiagManager, RunningKeyControlsProcessAndPidFile) {
    int pid = std::atoi(manager_pid_text().c_str());
    zqlab::set("diagm.running", "no");
    EXPECT_FALSE(zqlab::file_exists("/var/run/diagM.pid"));
    EXPECT_FALSE(zqlab::file_exists("/proc/" + std::to_string(pid)));
    EXPECT_EQ(zqlab::sigusr2_count(), -1);
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_mode"), "GPON\n") << "the command line still answers";

    zqlab::set("diagm.running", "yes");
    int again = std::atoi(manager_pid_text().c_str());
    EXPECT_GT(again, 1);
    EXPECT_EQ(kill(again, 0), 0);
    EXPECT_EQ(zqlab::sigusr2_count(), 0);

    // A manager that died leaves its stale pid file behind.
    zqlab::stop("diagM");
    EXPECT_EQ(manager_pid_text(), std::to_string(again) + "\n");
    EXPECT_EQ(zqlab::sigusr2_count(), -1);
}

// --- alarm word ---------------------------------------------------------------

TEST(AlarmWord, ReadableWithTheGatewaysKey) {
    EXPECT_EQ(read_alarm_word(), 0u);
    zqlab::set("alarm", "0x18");
    EXPECT_EQ(read_alarm_word(), 0x18u);
    EXPECT_EQ(zqlab::alarm_word(), 0x18u);
    zqlab::set("alarm", "8");
    EXPECT_EQ(read_alarm_word(), 8u);
    EXPECT_NE(zqlab::run_status("zqlab set alarm nonsense 2>/dev/null"), 0);
}

// --- journal ----------------------------------------------------------------

TEST(Journal, RecordsToolCallsInOrder) {
    zqlab::run("diagM get pon_info pon_state; flash get PON_DETECT; pgrep boa; "
               "timeout -t 5 diagM get diag_state; ebtables -L dhcps_disable | grep x; "
               "omcicli get log; oamcli get dbgflag; mib all cs; nv getenv; iptables -nvL; free; "
               "/bin/udhcpd -S /var/udhcpd/udhcpd.conf");
    std::vector<std::string> expected = {"diagM get pon_info pon_state",
                                         "flash get PON_DETECT",
                                         "pgrep boa",
                                         "timeout -t 5 diagM get diag_state",
                                         "diagM get diag_state",
                                         "ebtables -L dhcps_disable",
                                         "omcicli get log",
                                         "oamcli get dbgflag",
                                         "mib all cs",
                                         "nv getenv",
                                         "iptables -nvL",
                                         "free",
                                         "udhcpd -S /var/udhcpd/udhcpd.conf"};
    EXPECT_EQ(zqlab::journal(), expected);
    EXPECT_EQ(zqlab::journal("diagM"),
              (std::vector<std::string>{"diagM get pon_info pon_state", "diagM get diag_state"}));

    double last = 0;
    for (const std::string &line : zqlab::journal_lines()) {
        double t = std::atof(line.c_str());
        EXPECT_GE(t, last) << line;
        last = t;
    }
    zqlab::clear_journal();
    EXPECT_TRUE(zqlab::journal().empty());
}

TEST(Journal, LabControlIsNotJournaled) {
    zqlab::set("pon.state", "NO_LINKED");
    zqlab::scenario("healthy-gpon");
    zqlab::start("eponoamd");
    (void)zqlab::sigusr2_count();
    EXPECT_TRUE(zqlab::journal().empty());
}
