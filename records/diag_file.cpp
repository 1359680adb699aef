// The diagnosis log and package: every step's findings and a dump of the
// gathered records go into /tmp/diag_file/diag_log; before an upload the
// evidence of the gateway is gathered beside it and packed into one archive.
#include <cstdio>
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "records/records.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {

// A file that is removed with its own shell command when it exists.
struct removable_file {
    const char *path;
    const char *rm;
};

// What a new diagnosis clears away: its own logs and the last capture.
constexpr removable_file PREVIOUS_RUN_FILES[] = {
    {"/tmp/diag_file/diag_log", "rm /tmp/diag_file/diag_log"},
    {"/tmp/diag_file/cmd_log", "rm /tmp/diag_file/cmd_log"},
    {"/tmp/diag_file/capture.pcap", "rm /tmp/diag_file/capture.pcap"},
    {"/tmp/capture_file/capture.pcap", "rm /tmp/capture_file/capture.pcap"},
};

// What the upload leaves behind; the logs stay for reading. The capture
// comes last: its removal decides the result of the clean-up.
constexpr removable_file GATHERED_FILES[] = {
    {"/tmp/diag_file/omcilog.par", "rm /tmp/diag_file/omcilog.par"},
    {"/tmp/diag_file/firewall_stat", "rm /tmp/diag_file/firewall_stat"},
    {"/tmp/diag_file/config_stat", "rm /tmp/diag_file/config_stat"},
    {"/tmp/diag_file/serial_log", "rm /tmp/diag_file/serial_log"},
    {"/tmp/diag_file/diag_log.tar", "rm /tmp/diag_file/diag_log.tar"},
    {"/tmp/diag_file/capture.pcap", "rm /tmp/diag_file/capture.pcap"},
};

// The members of the package, in archive order.
constexpr const char *diag_package_files[] = {"diag_log",    "cmd_log",       "capture.pcap", "serial_log",
                                              "omcilog.par", "firewall_stat", "config_stat"};

constexpr const char *FIREWALL_STAT_COMMANDS[] = {
    "echo 'cmd: [ifconfig]' > /tmp/diag_file/firewall_stat",
    "ifconfig >> /tmp/diag_file/firewall_stat",
    "echo 'cmd: [arp -nv]' >> /tmp/diag_file/firewall_stat",
    "arp -nv >> /tmp/diag_file/firewall_stat",
    "echo 'cmd: [route -n]' >> /tmp/diag_file/firewall_stat",
    "route -n >> /tmp/diag_file/firewall_stat",
    "echo 'cmd: [ebtables -L]' >> /tmp/diag_file/firewall_stat",
    "ebtables -L >> /tmp/diag_file/firewall_stat",
    "echo 'cmd: [iptables -nvL]' >> /tmp/diag_file/firewall_stat",
    "iptables -nvL >> /tmp/diag_file/firewall_stat",
};

constexpr const char *CONFIG_STAT_COMMANDS[] = {
    "echo 'cmd: [cat /proc/mtd]' > /tmp/diag_file/config_stat", "cat /proc/mtd >> /tmp/diag_file/config_stat",
    "echo 'cmd: [nv getenv]' >> /tmp/diag_file/config_stat",    "nv getenv >> /tmp/diag_file/config_stat",
    "echo 'cmd: [mib all cs]' >> /tmp/diag_file/config_stat",   "mib all cs >> /tmp/diag_file/config_stat",
    "echo 'cmd: [mib all hs]' >> /tmp/diag_file/config_stat",   "mib all hs >> /tmp/diag_file/config_stat",
};

constexpr const char *SERIAL_LOG_SOURCE = "/proc/serial_log/get_log";

// The archive command: its fixed start, then "name " for every member.
constexpr size_t PACKAGE_CMD_SIZE = 1024;
constexpr size_t PACKAGE_CMD_LIMIT = 1022;
constexpr const char *PACKAGE_CMD_BASE = "tar -C /tmp/diag_file/ -cf /tmp/diag_file/diag_log.tar ";

// Removes the file with its command; -1 when it was not there, else the
// shell status of the removal.
int remove_if_exists(const removable_file &file) {
    if (!zq::file_exists(file.path)) return -1;
    return zq_system(file.rm);
}

template <size_t N> void run_all(const char *const (&commands)[N]) {
    for (const char *cmd : commands) zq_system(cmd);
}

FILE *open_diag_log() { return fopen(ZQ_DIAG_LOG_PATH, "a"); }

// Closes the log; a write that did not reach the file (a full /tmp) gets a
// log line under `caller`, since the findings are then missing from the log.
void close_diag_log(FILE *log, const char *caller) {
    const bool failed = ferror(log) != 0;
    if (fclose(log) != 0 || failed) ZQ_LOG_AS(caller, "log record fail, can't write log file");
}

const char *action_word(uint32_t action) {
    if (action == ACTION_DIAG) return "diag";
    if (action == ACTION_FIX) return "fix";
    return "";
}

// One "label = value" line per field; the value formats are those of the
// record dump. Text fields are read up to their array's end at most.
template <size_t N> void put_text(FILE *file, const char *label, const char (&value)[N]) {
    const std::string_view text = zq::view(value);
    fprintf(file, "%s = %.*s\n", label, static_cast<int>(text.size()), text.data());
}
void put_number(FILE *file, const char *label, int value) { fprintf(file, "%s = %d\n", label, value); }
void put_power(FILE *file, const char *label, float dbm) {
    fprintf(file, "%s = %.2f dBm\n", label, static_cast<double>(dbm));
}
void put_kbyte(FILE *file, const char *label, unsigned kib) { fprintf(file, "%s = %u KByte\n", label, kib); }
void put_percent(FILE *file, const char *label, unsigned percent) {
    fprintf(file, "%s = %u %%\n", label, percent);
}
void put_pid(FILE *file, const char *label, uint64_t pid) {
    fprintf(file, "%s = %lu\n", label, static_cast<unsigned long>(pid));
}

// The evidence gathered beside the logs before packing.
void copy_serial_log() {
    if (zq::file_exists(SERIAL_LOG_SOURCE))
        zq_system("cp -f /proc/serial_log/get_log /tmp/diag_file/serial_log");
}

void copy_capture_file() {
    if (zq::file_exists(ZQ_CAPTURE_PCAP))
        zq_system("cp -f /tmp/capture_file/capture.pcap /tmp/diag_file/capture.pcap");
}

// The OMCI log is worth packing only while GPON debug logging is on.
void copy_omci_log() {
    if (get_pon_debug_flag() != 0 && zq::contains(get_pon_info("pon_mode"), "GPON"))
        zq_system("cp -f /tmp/omcilog.par /tmp/diag_file/omcilog.par");
}

void dump_firewall_stat() { run_all(FIREWALL_STAT_COMMANDS); }

void dump_config_stat() { run_all(CONFIG_STAT_COMMANDS); }

// Appends "name " to the archive command for every package file that
// exists; false when the list has outgrown the command buffer.
bool add_package_members(char (&cmd)[PACKAGE_CMD_SIZE], size_t &length) {
    for (const char *name : diag_package_files) {
        char path[256] = {};
        ZQ_FORMAT(path, "/tmp/diag_file/%s", name);
        if (!zq::file_exists(path)) continue;
        int appended = zq::format(cmd + length, sizeof(cmd) - length, "%s ", name);
        if (appended > 0) length += static_cast<size_t>(appended);
        if (length > PACKAGE_CMD_LIMIT) {
            ZQ_LOG("packet file list is too long");
            return false;
        }
    }
    return true;
}

} // namespace

void diag_file_init() {
    if (do_not_generate_log) return;
    if (make_dir(ZQ_DIAG_DIR) != 0) {
        ZQ_LOG("diag file init fail, can't create dir[%s]", ZQ_DIAG_DIR);
        return;
    }
    for (const removable_file &file : PREVIOUS_RUN_FILES) remove_if_exists(file);
}

void diag_log_record(zq_diag_step step) {
    if (do_not_generate_log) return;
    FILE *log = open_diag_log();
    if (!log) {
        ZQ_LOG("log record fail, can't open log file");
        return;
    }
    const std::string_view method = zq::view(step.method);
    fprintf(log, "\n>>>> %.*s %s <<<<\n", static_cast<int>(method.size()), method.data(),
            action_word(step.action));
    fwrite(zq_diag_msg, 1, strnlen(zq_diag_msg, sizeof(zq_diag_msg)), log);
    close_diag_log(log, __func__);
}

void load_chain_data_in_log() {
    if (do_not_generate_log) return;
    FILE *log = open_diag_log();
    if (!log) {
        ZQ_LOG("open log file fail");
        return;
    }
    static constexpr void (*SECTION_WRITERS[])(FILE *) = {load_port_diag, load_pon_diag, load_wan_diag,
                                                          load_dhcp_diag, load_sys_diag};
    fputs("\n>>>>>>> DIAG DATA <<<<<<<\n", log);
    for (auto write_section : SECTION_WRITERS) write_section(log);
    close_diag_log(log, __func__);
}

void load_port_diag(FILE *file) {
    fputs("====== PORT_DIAG_DATA ======\n", file);
    int number = 0;
    list_diag_record<zqSD_port_diag>(__func__, [file, &number](const zqSD_port_diag &port) {
        fprintf(file, ">> port %d\n", ++number);
        put_text(file, "port_status.status", port.status);
        put_text(file, "port_status.speed", port.speed);
        put_text(file, "port_status.duplex", port.duplex);
        return false;
    });
    fputc('\n', file);
}

void load_pon_diag(FILE *file) {
    fputs("====== PON_DIAG_DATA ======\n", file);
    list_diag_record<zqSD_pon_diag>(__func__, [file](const zqSD_pon_diag &pon) {
        put_text(file, "pon_status.pon_mode", pon.pon_mode);
        put_power(file, "pon_status.rx_power", pon.rx_power);
        put_power(file, "pon_status.tx_power", pon.tx_power);
        fputc('\n', file);
        return false;
    });
}

void load_wan_diag(FILE *file) {
    fputs("====== WAN_DIAG_DATA ======\n", file);
    list_diag_record<zqSD_wan_diag>(__func__, [file](const zqSD_wan_diag &wan) {
        put_text(file, "wan_status.wan_name", wan.wan_name);
        put_text(file, "wan_status.type", wan.type);
        put_text(file, "wan_status.protocol", wan.protocol);
        put_number(file, "wan_status.nat_enable", wan.nat_enable);
        put_text(file, "wan_status.v4_ip", wan.v4_ip);
        put_text(file, "wan_status.v4_gateway", wan.v4_gateway);
        put_text(file, "wan_status.v4_master_dns", wan.v4_master_dns);
        put_text(file, "wan_status.v4_slave_dns", wan.v4_slave_dns);
        put_text(file, "wan_status.v6_ip", wan.v6_ip);
        put_text(file, "wan_status.v6_gateway", wan.v6_gateway);
        fputc('\n', file);
        return false;
    });
}

void load_dhcp_diag(FILE *file) {
    fputs("==== DHCP_DIAG_DATA(server) ====\n", file);
    list_diag_record<zqSD_dhcp_diag>(__func__, [file](const zqSD_dhcp_diag &dhcp) {
        put_text(file, "dhcp_config_struct.ip_addr", dhcp.ip_addr);
        put_text(file, "dhcp_config_struct.pool_addr_start", dhcp.pool_addr_start);
        put_text(file, "dhcp_config_struct.pool_addr_end", dhcp.pool_addr_end);
        put_text(file, "dhcp_config_struct.subnet", dhcp.subnet);
        put_text(file, "dhcp_config_struct.gateway", dhcp.gateway);
        put_text(file, "dhcp_config_struct.dns", dhcp.dns);
        if (dhcp.secondary_dns[0] != '\0')
            put_text(file, "dhcp_config_struct.secondary_dns", dhcp.secondary_dns);
        fputc('\n', file);
        return false;
    });
}

void load_sys_diag(FILE *file) {
    fputs("====== SYS_DIAG_DATA ======\n", file);
    list_diag_record<zqSD_sys_diag>(__func__, [file](const zqSD_sys_diag &sys) {
        put_kbyte(file, "sys_status.sys_mem_total", sys.sys_mem_total);
        put_kbyte(file, "sys_status.sys_mem_free", sys.sys_mem_free);
        put_percent(file, "sys_status.sys_mem_usage", sys.sys_mem_usage);
        put_percent(file, "sys_status.sys_cpu_usage", sys.sys_cpu_usage);
        put_pid(file, "sys_status.pid_boa", sys.pid_boa);
        put_pid(file, "sys_status.pid_cwmpClient", sys.pid_cwmpClient);
        put_pid(file, "sys_status.pid_omci_oam", sys.pid_omci_oam);
        put_text(file, "sys_status.software_version", sys.software_version);
        put_text(file, "sys_status.dnsmasq", sys.dnsmasq);
        fputc('\n', file);
        return false;
    });
}

} // namespace zq

int zq_packet_diag_file() {
    char cmd[PACKAGE_CMD_SIZE] = {};
    int base = ZQ_FORMAT(cmd, "%s", PACKAGE_CMD_BASE);
    const size_t base_length = base > 0 ? static_cast<size_t>(base) : 0;
    size_t length = base_length;

    copy_serial_log();
    copy_capture_file();
    copy_omci_log();
    dump_firewall_stat();
    dump_config_stat();

    if (!add_package_members(cmd, length)) return -1;
    if (length == base_length) {
        ZQ_LOG("no file for packeting");
        return -1;
    }
    remove_if_present(ZQ_PACKAGE_PATH);
    // The result says that the archive command ran, not how it ended: tar's
    // own status is not judged, and what it wrote stays for the upload.
    zq_system(cmd);
    return 0;
}

int zq_clear_diag_file() {
    int rc = -1;
    for (const removable_file &file : GATHERED_FILES) rc = remove_if_exists(file);
    return rc;
}
