// sys_status: the health of the gateway's system (memory and CPU load, the
// management daemons, duplicate LAN DHCP servers). Its repair restarts the
// daemons that dropped and leaves a single LAN DHCP server.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "methods/result_word.h"
#include "records/records.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {

// The status block is the record without its fault word and padding.
constexpr size_t SYS_BLOCK_SIZE = offsetof(zqSD_sys_diag, fault_flags);
constexpr unsigned CPU_SAMPLE_GAP_US = 300000;
constexpr unsigned LOAD_LIMIT = 80;
constexpr size_t VERSION_TEXT_SIZE = 64;

enum : uint32_t {
    BOA_DOWN = 1,
    CWMP_DOWN = 2,
    OMCI_DOWN = 4,
    OAM_DOWN = 8,
    HIGH_MEMORY = 16,
    HIGH_CPU = 32,
    MULTI_LAN = 64,
};

constexpr const char *PROC_STAT_PATH = "/proc/stat";
constexpr char UDHCPD_LISTING_CMD[] = "ps | grep udhcpd";
constexpr const char *UDHCPD_PROGRAM = "/bin/udhcpd";
constexpr const char *DNS_SERVERS_CMD =
    "cat /var/dnsmasq.conf | grep server=[0-9] | sed s/server=// | sed s/@.*//";

// A decimal KiB figure of "free"; what does not fit 32 bits saturates.
uint32_t kib_of(std::string_view token) {
    const uint64_t value = zq::parse_u64_prefix(token);
    return value > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
}

// One counter as "%u" reads it: an optional sign, then digits taken modulo
// 2^32 (a figure beyond 64 bits reads as all ones). False when there is no
// digit.
bool scan_counter(std::string_view line, size_t &pos, uint32_t &value) {
    while (pos < line.size() && zq::is_space(line[pos])) ++pos;
    bool negative = false;
    if (pos < line.size() && (line[pos] == '+' || line[pos] == '-')) negative = line[pos++] == '-';
    const size_t digits = pos;
    uint64_t v = 0;
    bool saturated = false;
    for (; pos < line.size() && line[pos] >= '0' && line[pos] <= '9'; ++pos) {
        const auto digit = static_cast<uint64_t>(line[pos] - '0');
        if (v > (UINT64_MAX - digit) / 10) saturated = true;
        v = saturated ? UINT64_MAX : v * 10 + digit;
    }
    if (pos == digits) return false;
    if (negative && !saturated) v = 0 - v;
    value = static_cast<uint32_t>(v);
    return true;
}

uint32_t total_of(const cpu_stat_sample &s) {
    // Summed in 32 bits on purpose: counters wrap, and so does their sum.
    return s.user + s.nice + s.system + s.idle + s.iowait + s.irq + s.softirq;
}

// A usage figure as the record keeps it: truncated, never below 0; figures
// beyond 32 bits, which only broken counters produce, count as all ones.
uint8_t percent_of(double usage) {
    if (!(usage > 0.0)) return 0;
    if (usage >= 4294967296.0) return static_cast<uint8_t>(UINT32_MAX);
    return static_cast<uint8_t>(static_cast<uint32_t>(usage));
}

void read_memory(zqSD_sys_diag &block) {
    char cmd[128] = {};
    char out[128] = {};
    ZQ_FORMAT(cmd, "%s", "free | grep Mem");
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, sizeof(cmd), out, sizeof(out)));
    parse_mem_line(zq::view(out), block);
}

// The first line of a file's content, at most 63 characters.
void first_line(char (&dst)[VERSION_TEXT_SIZE], const char *cmd) {
    zq::copy(dst, zq_get_cmd_result(cmd));
    dst[strcspn(dst, "\n")] = '\0';
}

// ---- Diagnosis ----------------------------------------------------------------

// What the checks look at; the PON mode is asked once, when a check first
// needs it.
struct sys_context {
    const zqSD_sys_diag &block;
    int gpon = -1;

    bool is_gpon() {
        if (gpon < 0) gpon = zq::contains(get_pon_info("pon_mode"), "GPON") ? 1 : 0;
        return gpon == 1;
    }
};

bool memory_high(sys_context &c) { return c.block.sys_mem_usage > LOAD_LIMIT; }
bool cpu_high(sys_context &c) { return c.block.sys_cpu_usage > LOAD_LIMIT; }
bool boa_dropped(sys_context &c) { return c.block.pid_boa == 0; }
// The remote-management client matters only while it is enabled; the
// manager is asked only when the client is not running.
bool cwmp_dropped(sys_context &c) { return c.block.pid_cwmpClient == 0 && is_tr069_enable(); }
bool omci_dropped(sys_context &c) { return c.is_gpon() && c.block.pid_omci_oam == 0; }
bool oam_dropped(sys_context &c) { return !c.is_gpon() && c.block.pid_omci_oam == 0; }
bool multi_lan(sys_context &) { return if_multi_udhcpd_exist() != 0; }

struct sys_check {
    uint32_t bit;
    uint32_t level;
    const char *finding; // printed as it stands, or
    const char *process; // the name in the "dropped" finding
    bool (*found)(sys_context &);
};

// In the order of their findings.
constexpr sys_check SYS_CHECKS[] = {
    {HIGH_MEMORY, DIAG_MSG_WARN, "System memory usage exceeded 80%", nullptr, memory_high},
    {HIGH_CPU, DIAG_MSG_WARN, "System CPU usage exceeded 80%", nullptr, cpu_high},
    {BOA_DOWN, DIAG_MSG_ERROR, nullptr, "boa", boa_dropped},
    {CWMP_DOWN, DIAG_MSG_ERROR, nullptr, "cwmpClient", cwmp_dropped},
    {OMCI_DOWN, DIAG_MSG_ERROR, nullptr, "omci_app", omci_dropped},
    {OAM_DOWN, DIAG_MSG_ERROR, nullptr, "eponoamd", oam_dropped},
    {MULTI_LAN, DIAG_MSG_ERROR, "Multi lan process exist --Repairable", nullptr, multi_lan},
};

// ---- Repair ---------------------------------------------------------------------

struct restart_rule {
    uint32_t bit;
    const char *process;
    const char *program;
};

constexpr restart_rule RESTARTS[] = {
    {BOA_DOWN, "boa", "/bin/boa"},
    {CWMP_DOWN, "cwmpClient", "/bin/cwmpClient"},
    {OMCI_DOWN, "omci_app", "/etc/runomci.sh"},
};

void repair(uint32_t faults) {
    for (const restart_rule &rule : RESTARTS)
        if (faults & rule.bit) restart_process(rule.process, rule.program);
    // The EPON daemon has no restart of its own.
    if (!(faults & OMCI_DOWN) && (faults & OAM_DOWN))
        zq_diag_msg_printf(DIAG_MSG_WARN, "The OAM process cannot be repaired,please restart the ONU");
    if (faults & MULTI_LAN) {
        if (fix_multi_udhcpd() != 0)
            zq_diag_msg_printf(DIAG_MSG_WARN,
                               "'Multi lan' problem can't solve properly, is better to reboot device");
        else
            zq_diag_msg_printf(DIAG_MSG_NORMAL, "'Multi lan' problem solve");
    }
    // Memory and CPU load are not repaired.
}

} // namespace

// ---- What the gateway's files say ----------------------------------------------

void read_software_version(zqSD_sys_diag &block) {
    char version[VERSION_TEXT_SIZE] = {};
    char customer[VERSION_TEXT_SIZE] = {};
    first_line(version, "cat /etc/version");
    first_line(customer, "cat /etc/custname");
    ZQ_FORMAT(block.software_version, "%s [%s]", version, customer);
}

// The forwarder's upstream servers, one per line of the command's output,
// become a list in which each ends with "/". A list longer than the field
// keeps its first 255 characters.
void read_dns_servers(zqSD_sys_diag &block) {
    zq::copy(block.dnsmasq, zq_get_cmd_result(DNS_SERVERS_CMD));
    const size_t length = zq::bounded_len(block.dnsmasq, sizeof(block.dnsmasq));
    for (size_t i = 0; i < length; ++i)
        if (block.dnsmasq[i] == '\n') block.dnsmasq[i] = '/';
}

// ---- Parsers of the tools' output -------------------------------------------------

void parse_mem_line(std::string_view text, zqSD_sys_diag &block) {
    // Label, total, used: separated by runs of spaces; a missing figure is 0.
    std::string_view tokens[3];
    size_t found = 0;
    size_t pos = 0;
    while (found < 3) {
        while (pos < text.size() && text[pos] == ' ') ++pos;
        if (pos >= text.size()) break;
        const size_t start = pos;
        while (pos < text.size() && text[pos] != ' ') ++pos;
        tokens[found++] = zq::slice(text, start, pos);
    }
    if (found == 0) return;
    const uint32_t total = kib_of(tokens[1]);
    const uint32_t used = kib_of(tokens[2]);
    block.sys_mem_total = total;
    block.sys_mem_free = total - used;
    block.sys_mem_usage = total == 0 ? 0 : static_cast<uint8_t>(static_cast<uint64_t>(used) * 100 / total);
}

void parse_cpu_stat_line(std::string_view line, cpu_stat_sample &sample) {
    // "%s %u %u %u %u %u %u %u": the name, then the counters while they read.
    size_t pos = 0;
    while (pos < line.size() && zq::is_space(line[pos])) ++pos;
    const size_t start = pos;
    while (pos < line.size() && !zq::is_space(line[pos])) ++pos;
    if (pos == start) return;
    // A name longer than the field is cut, never written past it.
    zq::copy(sample.name, zq::slice(line, start, pos));
    uint32_t *const counters[] = {&sample.user,   &sample.nice, &sample.system, &sample.idle,
                                  &sample.iowait, &sample.irq,  &sample.softirq};
    for (uint32_t *counter : counters)
        if (!scan_counter(line, pos, *counter)) return;
}

int count_substr(const char *text, const char *needle) {
    if (!text || !needle || needle[0] == '\0') return 0;
    int count = 0;
    for (const char *hit = strstr(text, needle); hit; hit = strstr(hit + 1, needle)) ++count;
    return count;
}

// ---- CPU load -------------------------------------------------------------------------

// Without /proc/stat the load cannot be known; the process ends here.
void read_cpu_stat(cpu_stat_sample &sample) {
    FILE *file = fopen(PROC_STAT_PATH, "r");
    if (!file) {
        perror("fopen:");
        exit(0);
    }
    char line[256] = {};
    if (fgets(line, sizeof(line), file)) parse_cpu_stat_line(zq::view(line), sample);
    fclose(file);
}

double calc_cpu_usage(const cpu_stat_sample &a, const cpu_stat_sample &b) {
    const double total = static_cast<double>(total_of(b)) - static_cast<double>(total_of(a));
    if (total == 0.0) return 0.0;
    return 100.0 - (static_cast<double>(b.idle) - static_cast<double>(a.idle)) / total * 100.0;
}

double get_cpu_usage() {
    cpu_stat_sample a{};
    cpu_stat_sample b{};
    read_cpu_stat(a);
    usleep(CPU_SAMPLE_GAP_US);
    read_cpu_stat(b);
    return calc_cpu_usage(a, b);
}

// ---- Queries ------------------------------------------------------------------------------

int is_tr069_enable() {
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "%s", "diagM get tr069_enable");
    return zq::contains(zq_get_cmd_result(cmd), "1") ? 1 : 0;
}

int if_multi_udhcpd_exist() {
    char out[512] = {};
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA,
                    zq_args(UDHCPD_LISTING_CMD, sizeof(UDHCPD_LISTING_CMD), out, sizeof(out)));
    if (out[0] == '\0') return 0;
    if (zq::contains(out, "not found")) {
        ZQ_LOG("need 'pgrep' util support");
        return 0;
    }
    return count_substr(out, UDHCPD_PROGRAM) >= 2 ? 1 : 0;
}

// ---- Actions ------------------------------------------------------------------------------

} // namespace zq

// Writes 424 bytes at out_buf whatever out_size says: callers outside the
// library must hand in a block of at least that size.
int zq_get_sys_status_struct(zq_diag_args args) {
    // Exported: an outside caller may pass no block at all, which is refused
    // rather than written through.
    if (!args.out_buf) {
        ZQ_LOG("invalid input");
        return -1;
    }
    zqSD_sys_diag block{};
    memcpy(&block, args.out_buf, SYS_BLOCK_SIZE);
    read_memory(block);
    block.sys_cpu_usage = percent_of(get_cpu_usage());
    block.pid_boa = zq_get_pid("boa");
    block.pid_cwmpClient = zq_get_pid("cwmpClient");
    read_software_version(block);
    read_dns_servers(block);
    block.pid_omci_oam = zq_get_pid(zq::contains(get_pon_info("pon_mode"), "EPON") ? "eponoamd" : "omci_app");
    memcpy(args.out_buf, &block, SYS_BLOCK_SIZE);
    return 0;
}

namespace zq {

int zq_get_sys_status_diag(zq_diag_args args) {
    zqSD_sys_diag record{};
    zq_get_sys_status_struct(zq_args(nullptr, 0, &record, SYS_BLOCK_SIZE));

    sys_context context{record};
    uint32_t result = zq::read_result(args);
    for (const sys_check &check : SYS_CHECKS) {
        if (!check.found(context)) continue;
        result |= check.bit;
        if (check.process)
            zq_diag_msg_printf(check.level, "The %s process dropped --Repairable", check.process);
        else
            zq_diag_msg_printf(check.level, "%s", check.finding);
    }
    if (result == 0) zq_diag_msg_printf(DIAG_MSG_NORMAL, "The system status diagnosis is normal");
    zq::write_result(args, result);

    record.fault_flags = result;
    zq_diag_record(SYS_DIAG_DATA, &record, sizeof(record));
    return 0;
}

int zq_get_sys_status_fix(zq_diag_args) {
    list_diag_record<zqSD_sys_diag>(__func__, [](const zqSD_sys_diag &record) {
        if (record.fault_flags == 0) {
            zq_diag_msg_printf(DIAG_MSG_NORMAL,
                               "The system status diagnosis is normal and no repair is required");
            return true;
        }
        repair(record.fault_flags);
        return false;
    });
    return 0;
}

void restart_process(const char *name, const char *path) {
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "%s &", path);
    zq_get_cmd_result(cmd);
    if (zq_get_pid(name) != 0)
        zq_diag_msg_printf(DIAG_MSG_SUCCESS, "The %s process succeeded in being fixed", name);
    else
        zq_diag_msg_printf(DIAG_MSG_ERROR, "Failed to restart and repair the %s process", name);
}

int fix_multi_udhcpd() {
    zq_system("pgrep udhcpd | xargs kill -s KILL");
    zq_system("/bin/udhcpd -S /var/udhcpd/udhcpd.conf&");
    return if_multi_udhcpd_exist() ? -1 : 0;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules SYS_RULES = {zq::ANY_BLOCK, out_exact(SYS_BLOCK_SIZE),
                                       zq::out_exact(zq::RESULT_WORD_SIZE), zq::ANY_BLOCK};

// A system under memory or CPU pressure is never repaired automatically.
int sys_status_fix_condition() {
    return any_diag_record<zqSD_sys_diag>(__func__, [](const zqSD_sys_diag &r) {
        return r.fault_flags != 0 && (r.fault_flags & (HIGH_MEMORY | HIGH_CPU)) == 0;
    });
}
} // namespace

const zq::method_descriptor sys_status_method = {
    .entry = {.name = "sys_status",
              .get_struct = zq_get_sys_status_struct,
              .diag = zq_get_sys_status_diag,
              .fix = zq_get_sys_status_fix,
              .envoy = zq::envoy<SYS_RULES>},
    .fix_when = sys_status_fix_condition,
};

} // namespace zq
