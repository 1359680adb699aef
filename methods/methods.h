// The diagnosis methods: each one's descriptor (defined in its own file and
// gathered into the registry by method_table.cpp), its action slots, and the
// few helpers that methods share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "engine/engine.h"
#include "zq_diag.h"

namespace zq {

extern const method_descriptor port_status_method;
extern const method_descriptor ping_method;
extern const method_descriptor wan_status_method;
extern const method_descriptor sys_status_method;
extern const method_descriptor pon_status_method;
extern const method_descriptor wan_params_method;
extern const method_descriptor dns_status_method;
extern const method_descriptor dhcp_config_method;
extern const method_descriptor pppoe_status_method;
extern const method_descriptor route_status_method;
extern const method_descriptor dhcp_status_method;

// pon_status
int zq_get_pon_status_struct(zq_diag_args args);
int zq_get_pon_status_diag(zq_diag_args args);
int zq_get_pon_status_fix(zq_diag_args args);
void zq_get_customver(char *out);
int is_pondetect_present();
int is_pon_detect_on();

// port_status
const char *get_port_info(const char *key, uint32_t index);
int zq_get_port_status_struct(zq_diag_args args);
int zq_get_port_status_diag(zq_diag_args args);

// sys_status (its struct getter is the exported zq_get_sys_status_struct)
int zq_get_sys_status_diag(zq_diag_args args);
int zq_get_sys_status_fix(zq_diag_args args);
// One reading of the first line of /proc/stat.
struct cpu_stat_sample {
    char name[20];
    uint32_t user;
    uint32_t nice;
    uint32_t system;
    uint32_t idle;
    uint32_t iowait;
    uint32_t irq;
    uint32_t softirq;
};
double get_cpu_usage();
void read_cpu_stat(cpu_stat_sample &sample);
double calc_cpu_usage(const cpu_stat_sample &a, const cpu_stat_sample &b);
int is_tr069_enable();
void restart_process(const char *name, const char *path);
int if_multi_udhcpd_exist();
int count_substr(const char *text, const char *needle);
// The fields of the status block that the gateway's files give:
// software_version from /etc/version and /etc/custname, dnsmasq from the
// forwarder's configuration.
void read_software_version(zqSD_sys_diag &block);
void read_dns_servers(zqSD_sys_diag &block);
int fix_multi_udhcpd();
// Parsers of the tools' output: the "free | grep Mem" line into the memory
// fields, the first line of /proc/stat into a sample (fields it does not
// hold stay as they were).
void parse_mem_line(std::string_view text, zqSD_sys_diag &block);
void parse_cpu_stat_line(std::string_view line, cpu_stat_sample &sample);

// dhcp_config
// The LAN-side interfaces by their bit in a WAN's itfGroup.
inline constexpr const char *LAN_SIDE_NAMES[] = {
    "LAN1",           "LAN2",           "LAN3",           "LAN4",           "WLAN(AP0_5G)",
    "WLAN(AP1_5G)",   "WLAN(AP2_5G)",   "WLAN(AP3_5G)",   "WLAN(AP4_5G)",   "WLAN(AP0_2.4G)",
    "WLAN(AP1_2.4G)", "WLAN(AP2_2.4G)", "WLAN(AP3_2.4G)", "WLAN(AP4_2.4G)",
};
int zq_get_dhcp_config_struct(zq_diag_args args);
int zq_get_dhcp_config_diag(zq_diag_args args);
int zq_get_dhcp_config_fix(zq_diag_args args);
// Fills at most one field of the server block from one configuration line.
void parse_udhcpd_conf_line(const char *line, zqSD_dhcp_diag &block);
// 0 when the pool lies in the server's subnet, -1 otherwise.
int dhcp_pool_check(const zqSD_dhcp_diag &block);
// The text after the last blank of `text` into the zeroed `dst`.
void copy_last_word(char *dst, size_t size, const char *text);

// ping: the output of the struct action, with natural alignment.
struct ping_result {
    uint8_t loss;     // percent, as ping printed it; 100 without statistics
    uint8_t no_stats; // 1 when the output holds no '%'
    uint32_t avg;     // round-trip times, whole milliseconds
    uint32_t min;
    uint32_t max;
    uint32_t jitter; // max - min
};
static_assert(sizeof(ping_result) == 20 && offsetof(ping_result, avg) == 4, "ping_result layout");
int zq_get_ping_raw_data(zq_diag_args args);
int zq_get_ping_struct(zq_diag_args args);
int zq_get_ping_diag(zq_diag_args args);
// Reads ping's statistics lines into `result`: loss and no_stats always,
// the times only when some probe was answered.
void parse_ping_output(std::string_view text, ping_result &result);
uint32_t ping_verdict(const ping_result &result);
// The ping request the WAN methods share: the verdict of one ping of `host`
// from `source` through the dispatcher. A request that does not run reads
// as PING_UNREACHABLE: only an answered probe counts.
uint32_t ping_request_verdict(uint8_t family, std::string_view host, std::string_view source);

// wan_status: the WAN status block is the record up to its verdicts.
constexpr size_t WAN_BLOCK_SIZE = offsetof(zqSD_wan_diag, v4_conn_state);
static_assert(WAN_BLOCK_SIZE == 280, "WAN status block");
// The diagnosis manager's answer for one key of WAN `index`, unchanged (the
// shared command result buffer).
const char *get_wan_info(const char *key, uint32_t index);
int zq_get_wan_status_struct(zq_diag_args args);
int zq_get_wan_status_diag(zq_diag_args args);
// Verdicts of one protocol of a WAN status block (the record's first 280
// bytes).
uint32_t check_wan_v4_connect(const zqSD_wan_diag &block);
uint32_t check_wan_v6_connect(const zqSD_wan_diag &block);
uint32_t wan_verdict_level(uint32_t verdict);
// The verdicts' texts, as the findings and the command show them.
inline constexpr char wan_verdict_text[6][32] = {"connect normal",      "connect unstable",
                                                 "gateway unreachable", "dhcp service error",
                                                 "ppp service error",   "static service errror"};

// route_status: the kernel routing table as route -n shows it.
struct route_table {
    uint8_t count;
    char destinations[32][16];
    char masks[32][16];
};
static_assert(sizeof(route_table) == 1025, "route_table layout");
int zq_get_route_status_struct(zq_diag_args args);
int zq_get_route_status_diag(zq_diag_args args);
// Fills `table` (whose count the caller has cleared) from route -n output.
void parse_route_table(std::string_view text, route_table &table);

// dns_status
int zq_get_dns_status_diag(zq_diag_args args);
// 0 when `host` answered a ping from `source`, else -1.
int ping_reachable(uint8_t family, const char *source, const char *host);
// True when the name lookup pipeline printed an answer.
bool dns_answer_found(std::string_view lookup_output);

// wan_params
int zq_get_wan_params_diag(zq_diag_args args);
void print_wan_params(uint32_t flags, const char *wan_name);

// dhcp_status
int zq_get_dhcp_status_diag(zq_diag_args args);
int dhcp_filter_special(const char *interface);
uint32_t dhcp_packet_flags();

// pppoe_status
int zq_get_pppoe_diag(zq_diag_args args);
uint32_t zq_check_pppoe_error();
int pppoe_filter_special(const char *interface);

} // namespace zq
