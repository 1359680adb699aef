// The diagnosis log, the record dump, the package and the clean-up, in a
// simulated gateway (every case gets a fresh one when run through CTest).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "engine/engine.h"
#include "engine/util.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace {

const std::string DIAG_LOG = "/tmp/diag_file/diag_log";
const std::string PACKAGE = "/tmp/diag_file/diag_log.tar";

class DiagFile : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(zqlab::inside()) << "these cases write the gateway's paths; run them in the lab";
        // Cases may also run one after another in one lab.
        zqlab::scenario("healthy-gpon");
        zqlab::clear_journal();
        do_not_generate_log = 0;
        clear_diag_chain();
        zq_diag_msg_reset();
        zqlab::run("rm -rf /tmp/diag_file /tmp/capture_file");
    }
    void TearDown() override {
        do_not_generate_log = 0;
        clear_diag_chain();
    }

    template <class T> static void store(uint32_t type, const T &record) {
        ASSERT_EQ(zq_diag_record(type, &record, sizeof(record)), 0);
    }
    static zq_diag_step step(const char *method, uint32_t action) {
        zq_diag_step s{};
        zq::copy(s.method, method);
        s.action = action;
        return s;
    }
    static std::string log() { return zqlab::read_file(DIAG_LOG); }
    static std::string members() { return zqlab::run("tar -tf " + PACKAGE); }
    // A fresh, empty diagnosis directory, as the first step of a path leaves it.
    static void start_diagnosis() {
        diag_file_init();
        ASSERT_TRUE(zqlab::file_exists("/tmp/diag_file"));
    }
};

zqSD_port_diag port(const char *status, const char *speed, const char *duplex) {
    zqSD_port_diag p{};
    zq::copy(p.status, status);
    zq::copy(p.speed, speed);
    zq::copy(p.duplex, duplex);
    return p;
}

zqSD_dhcp_diag lan_dhcp(const char *secondary_dns) {
    zqSD_dhcp_diag d{};
    zq::copy(d.ip_addr, "192.168.1.1");
    zq::copy(d.pool_addr_start, "192.168.1.2");
    zq::copy(d.pool_addr_end, "192.168.1.254");
    zq::copy(d.subnet, "255.255.255.0");
    zq::copy(d.gateway, "192.168.1.1");
    zq::copy(d.dns, "192.168.1.1");
    zq::copy(d.secondary_dns, secondary_dns);
    return d;
}

// ---- Record dump -----------------------------------------------------------

TEST_F(DiagFile, FullDumpFollowsTheSectionOrderNotTheChainOrder) {
    start_diagnosis();
    zqSD_sys_diag sys{};
    sys.sys_mem_total = 4000000000u; // beyond the int range
    sys.sys_mem_free = 123456;
    sys.sys_mem_usage = 85;
    sys.sys_cpu_usage = 100;
    sys.pid_boa = 4294967396ull; // beyond 32 bits
    sys.pid_cwmpClient = 0;
    sys.pid_omci_oam = 123;
    zq::copy(sys.software_version, "V2.1.0R5 [GENERIC]");
    zq::copy(sys.dnsmasq, "198.51.100.53/198.51.100.54");
    zqSD_wan_diag routed{};
    zq::copy(routed.wan_name, "1_TR069_INTERNET_R_VID_100");
    zq::copy(routed.type, "route-dhcp");
    zq::copy(routed.protocol, "IPv4");
    routed.nat_enable = 1;
    zq::copy(routed.v4_ip, "192.0.2.10");
    zq::copy(routed.v4_gateway, "192.0.2.1");
    zq::copy(routed.v4_master_dns, "198.51.100.53");
    zq::copy(routed.v4_slave_dns, "198.51.100.54");
    zqSD_wan_diag bridged{};
    zq::copy(bridged.wan_name, "2_OTHER_B_VID_200");
    zq::copy(bridged.type, "br");
    zq::copy(bridged.protocol, "IPv4_IPv6");
    zq::copy(bridged.v6_ip, "2001:db8::10");
    zq::copy(bridged.v6_gateway, "2001:db8::1");
    zqSD_pon_diag pon{};
    zq::copy(pon.pon_mode, "GPON");
    pon.rx_power = -18.52f;
    pon.tx_power = 2.35f;
    // Stored in another order than the dump's.
    store(SYS_DIAG_DATA, sys);
    store(DHCP_DIAG_DATA, lan_dhcp("192.168.1.3"));
    store(WAN_DIAG_DATA, routed);
    store(PON_DIAG_DATA, pon);
    store(WAN_DIAG_DATA, bridged);
    store(PORT_DIAG_DATA, port("Up", "1000", "Full"));
    store(PORT_DIAG_DATA, port("Down", "0", "Half"));
    load_chain_data_in_log();
    EXPECT_EQ(log(), "\n>>>>>>> DIAG DATA <<<<<<<\n"
                     "====== PORT_DIAG_DATA ======\n"
                     ">> port 1\n"
                     "port_status.status = Up\n"
                     "port_status.speed = 1000\n"
                     "port_status.duplex = Full\n"
                     ">> port 2\n"
                     "port_status.status = Down\n"
                     "port_status.speed = 0\n"
                     "port_status.duplex = Half\n"
                     "\n"
                     "====== PON_DIAG_DATA ======\n"
                     "pon_status.pon_mode = GPON\n"
                     "pon_status.rx_power = -18.52 dBm\n"
                     "pon_status.tx_power = 2.35 dBm\n"
                     "\n"
                     "====== WAN_DIAG_DATA ======\n"
                     "wan_status.wan_name = 1_TR069_INTERNET_R_VID_100\n"
                     "wan_status.type = route-dhcp\n"
                     "wan_status.protocol = IPv4\n"
                     "wan_status.nat_enable = 1\n"
                     "wan_status.v4_ip = 192.0.2.10\n"
                     "wan_status.v4_gateway = 192.0.2.1\n"
                     "wan_status.v4_master_dns = 198.51.100.53\n"
                     "wan_status.v4_slave_dns = 198.51.100.54\n"
                     "wan_status.v6_ip = \n"
                     "wan_status.v6_gateway = \n"
                     "\n"
                     "wan_status.wan_name = 2_OTHER_B_VID_200\n"
                     "wan_status.type = br\n"
                     "wan_status.protocol = IPv4_IPv6\n"
                     "wan_status.nat_enable = 0\n"
                     "wan_status.v4_ip = \n"
                     "wan_status.v4_gateway = \n"
                     "wan_status.v4_master_dns = \n"
                     "wan_status.v4_slave_dns = \n"
                     "wan_status.v6_ip = 2001:db8::10\n"
                     "wan_status.v6_gateway = 2001:db8::1\n"
                     "\n"
                     "==== DHCP_DIAG_DATA(server) ====\n"
                     "dhcp_config_struct.ip_addr = 192.168.1.1\n"
                     "dhcp_config_struct.pool_addr_start = 192.168.1.2\n"
                     "dhcp_config_struct.pool_addr_end = 192.168.1.254\n"
                     "dhcp_config_struct.subnet = 255.255.255.0\n"
                     "dhcp_config_struct.gateway = 192.168.1.1\n"
                     "dhcp_config_struct.dns = 192.168.1.1\n"
                     "dhcp_config_struct.secondary_dns = 192.168.1.3\n"
                     "\n"
                     "====== SYS_DIAG_DATA ======\n"
                     "sys_status.sys_mem_total = 4000000000 KByte\n"
                     "sys_status.sys_mem_free = 123456 KByte\n"
                     "sys_status.sys_mem_usage = 85 %\n"
                     "sys_status.sys_cpu_usage = 100 %\n"
                     "sys_status.pid_boa = 4294967396\n"
                     "sys_status.pid_cwmpClient = 0\n"
                     "sys_status.pid_omci_oam = 123\n"
                     "sys_status.software_version = V2.1.0R5 [GENERIC]\n"
                     "sys_status.dnsmasq = 198.51.100.53/198.51.100.54\n"
                     "\n");
}

TEST_F(DiagFile, DhcpServerWithoutSecondaryDnsPrintsSixLines) {
    start_diagnosis();
    store(DHCP_DIAG_DATA, lan_dhcp(""));
    load_chain_data_in_log();
    EXPECT_NE(log().find("==== DHCP_DIAG_DATA(server) ====\n"
                         "dhcp_config_struct.ip_addr = 192.168.1.1\n"
                         "dhcp_config_struct.pool_addr_start = 192.168.1.2\n"
                         "dhcp_config_struct.pool_addr_end = 192.168.1.254\n"
                         "dhcp_config_struct.subnet = 255.255.255.0\n"
                         "dhcp_config_struct.gateway = 192.168.1.1\n"
                         "dhcp_config_struct.dns = 192.168.1.1\n"
                         "\n"
                         "====== SYS_DIAG_DATA ======\n"),
              std::string::npos)
        << log();
}

TEST_F(DiagFile, TextFieldThatFillsItsArrayStopsAtTheArrayEnd) {
    start_diagnosis();
    zqSD_port_diag p = port("", "100", "Full");
    memcpy(p.status, "UpUpUpUp", sizeof(p.status)); // no terminator
    store(PORT_DIAG_DATA, p);
    load_chain_data_in_log();
    EXPECT_NE(log().find("port_status.status = UpUpUpUp\nport_status.speed = 100\n"), std::string::npos)
        << log();
}

// ---- Step blocks -------------------------------------------------------------

TEST_F(DiagFile, StepBlocksCarryTheActionWordAndTheFindings) {
    start_diagnosis();
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "Pon registered");
    zq_diag_msg_printf(DIAG_MSG_WARN, "System memory usage exceeded %d%%", 80);
    diag_log_record(step("pon_status", ACTION_DIAG));
    zq_diag_msg_reset();
    zq_diag_msg_printf(DIAG_MSG_SUCCESS, "restarted");
    diag_log_record(step("sys_status", ACTION_FIX));
    zq_diag_msg_reset();
    diag_log_record(step("cmd", ACTION_RAW_DATA));
    diag_log_record(step("port_status", ACTION_STRUCT));
    diag_log_record(step("end", ACTION_DIAG));
    zq_diag_step full{}; // a name that fills all its bytes, no terminator
    memset(full.method, 'm', sizeof(full.method));
    full.action = ACTION_DIAG;
    diag_log_record(full);
    EXPECT_EQ(log(), "\n>>>> pon_status diag <<<<\n"
                     "[normal ]Pon registered\n"
                     "[warn   ]System memory usage exceeded 80%\n"
                     "\n>>>> sys_status fix <<<<\n"
                     "[success]restarted\n"
                     "\n>>>> cmd  <<<<\n"
                     "\n>>>> port_status  <<<<\n"
                     "\n>>>> end diag <<<<\n"
                     "\n>>>> " +
                         std::string(32, 'm') + " diag <<<<\n");
}

TEST_F(DiagFile, SwitchedOffLogWritesNothing) {
    start_diagnosis();
    zqlab::write_file(DIAG_LOG, "kept\n");
    zqlab::write_file("/tmp/capture_file/capture.pcap", "pcap");
    do_not_generate_log = 1;
    diag_file_init();
    store(PORT_DIAG_DATA, port("Up", "1000", "Full"));
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "finding");
    diag_log_record(step("port_status", ACTION_DIAG));
    load_chain_data_in_log();
    EXPECT_EQ(log(), "kept\n");
    EXPECT_TRUE(zqlab::file_exists("/tmp/capture_file/capture.pcap"));

    // The package still holds the evidence; the packing's own queries stay
    // out of cmd_log.
    ASSERT_EQ(zq_packet_diag_file(), 0);
    EXPECT_EQ(members(), "diag_log\ncapture.pcap\nfirewall_stat\nconfig_stat\n") << "no cmd_log of its own";

    zqlab::run("rm -rf /tmp/diag_file");
    diag_file_init();
    EXPECT_FALSE(zqlab::file_exists("/tmp/diag_file")) << "the directory is not made either";
}

// ---- Preparing a diagnosis ------------------------------------------------------

TEST_F(DiagFile, InitMakesTheDirectoryAndRemovesThePreviousRun) {
    start_diagnosis();
    for (const char *path : {"/tmp/diag_file/diag_log", "/tmp/diag_file/cmd_log",
                             "/tmp/diag_file/capture.pcap", "/tmp/capture_file/capture.pcap",
                             "/tmp/diag_file/firewall_stat", "/tmp/capture_file/capture_parse"})
        zqlab::write_file(path, "old\n");
    diag_file_init();
    for (const char *gone : {"/tmp/diag_file/diag_log", "/tmp/diag_file/cmd_log",
                             "/tmp/diag_file/capture.pcap", "/tmp/capture_file/capture.pcap"})
        EXPECT_FALSE(zqlab::file_exists(gone)) << gone;
    EXPECT_TRUE(zqlab::file_exists("/tmp/diag_file/firewall_stat"));
    EXPECT_TRUE(zqlab::file_exists("/tmp/capture_file/capture_parse"));
}

// ---- The package ------------------------------------------------------------------

TEST_F(DiagFile, PackageHoldsEveryPieceOfEvidenceInTableOrder) {
    start_diagnosis();
    diag_log_record(step("port_status", ACTION_DIAG));
    zq_get_cmd_result("echo hello");
    zqlab::write_file("/tmp/capture_file/capture.pcap", "captured packets");
    zqlab::set("pon.debug", "1");
    ASSERT_EQ(zq_packet_diag_file(), 0);
    // The lab cannot provide /proc/serial_log, so serial_log is never there.
    EXPECT_EQ(members(), "diag_log\ncmd_log\ncapture.pcap\nomcilog.par\nfirewall_stat\nconfig_stat\n");
    EXPECT_EQ(zqlab::read_file("/tmp/diag_file/capture.pcap"), "captured packets");
    EXPECT_EQ(zqlab::read_file("/tmp/diag_file/omcilog.par"), zqlab::read_file("/tmp/omcilog.par"));
    EXPECT_TRUE(zqlab::file_exists("/tmp/capture_file/capture.pcap")) << "copied, not moved";
    EXPECT_EQ(zqlab::run("tar -xOf " + PACKAGE + " capture.pcap"), "captured packets");
}

TEST_F(DiagFile, ListingsHoldEachCommandAndItsOutput) {
    start_diagnosis();
    ASSERT_EQ(zq_packet_diag_file(), 0);
    EXPECT_EQ(zqlab::read_file("/tmp/diag_file/config_stat"),
              "cmd: [cat /proc/mtd]\n" + zqlab::get("proc.mtd") + "cmd: [nv getenv]\n" +
                  zqlab::get("nv.env") + "cmd: [mib all cs]\n" + zqlab::get("mib.cs") +
                  "cmd: [mib all hs]\n" + zqlab::get("mib.hs"));
}

TEST_F(DiagFile, PreviousPackageIsRemovedBeforeTheNewOne) {
    start_diagnosis();
    // Were the old archive overwritten in place instead of removed, the new
    // archive would be written through the link into the other file.
    zqlab::write_file("/tmp/elsewhere", "untouched");
    ASSERT_EQ(symlink("/tmp/elsewhere", PACKAGE.c_str()), 0);
    ASSERT_EQ(zq_packet_diag_file(), 0);
    struct stat st {};
    ASSERT_EQ(lstat(PACKAGE.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(zqlab::read_file("/tmp/elsewhere"), "untouched");
    EXPECT_EQ(members(), "cmd_log\nfirewall_stat\nconfig_stat\n");
}

// tar's own status is not judged: once the archive command has run the
// package counts as made, whatever tar did.
TEST_F(DiagFile, ArchiveCommandThatFailsStillCountsAsRun) {
    start_diagnosis();
    diag_log_record(step("port_status", ACTION_DIAG));
    zqlab::set("fault.tar", "missing");
    EXPECT_EQ(zq_packet_diag_file(), 0);
    const std::vector<std::string> tar = zqlab::journal("tar");
    ASSERT_EQ(tar.size(), 1u);
    EXPECT_EQ(
        tar[0],
        "tar -C /tmp/diag_file/ -cf /tmp/diag_file/diag_log.tar diag_log cmd_log firewall_stat config_stat");
    zqlab::unset("fault.tar");
}

// ---- Clean-up after the upload ------------------------------------------------------

TEST_F(DiagFile, ClearRemovesTheGatheredFilesAndReportsTheCaptureRemoval) {
    start_diagnosis();
    for (const char *name : {"diag_log", "cmd_log", "omcilog.par", "firewall_stat", "config_stat",
                             "serial_log", "diag_log.tar", "capture.pcap"})
        zqlab::write_file(std::string("/tmp/diag_file/") + name, "x");
    EXPECT_EQ(zq_clear_diag_file(), 0);
    EXPECT_EQ(zqlab::run("ls /tmp/diag_file"), "cmd_log\ndiag_log\n") << "the logs are kept";

    zqlab::write_file("/tmp/diag_file/firewall_stat", "x");
    EXPECT_NE(zq_clear_diag_file(), 0) << "no capture to remove";
    EXPECT_FALSE(zqlab::file_exists("/tmp/diag_file/firewall_stat"));

    // A directory in the capture's place: "rm" refuses it.
    ASSERT_EQ(mkdir("/tmp/diag_file/capture.pcap", 0755), 0);
    const int rc = zq_clear_diag_file();
    EXPECT_NE(rc, 0);
    EXPECT_NE(rc, -1) << "the capture was there; its removal failed";
    EXPECT_TRUE(zqlab::file_exists("/tmp/diag_file/capture.pcap"));
}

} // namespace
