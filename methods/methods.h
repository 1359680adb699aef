// Action slots of the diagnosis methods, referenced by the method table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zq_diag.h"

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
int fix_multi_udhcpd();
// Parsers of the tools' output: the "free | grep Mem" line into the memory
// fields, the first line of /proc/stat into a sample (fields it does not
// hold stay as they were).
void parse_mem_line(std::string_view text, zqSD_sys_diag &block);
void parse_cpu_stat_line(std::string_view line, cpu_stat_sample &sample);

// dhcp_config
int zq_get_dhcp_config_struct(zq_diag_args args);
int zq_get_dhcp_config_diag(zq_diag_args args);
int zq_get_dhcp_config_fix(zq_diag_args args);
// Fills at most one field of the server block from one configuration line.
void parse_udhcpd_conf_line(const char *line, zqSD_dhcp_diag &block);
// 0 when the pool lies in the server's subnet, -1 otherwise.
int dhcp_pool_check(const zqSD_dhcp_diag &block);
// The text after the last blank of `text` into the zeroed `dst`.
void copy_last_word(char *dst, size_t size, const char *text);

// dhcp_status
int zq_get_dhcp_status_diag(zq_diag_args args);
int dhcp_filter_special(const char *interface);
uint32_t dhcp_packet_flags();

// pppoe_status
int zq_get_pppoe_diag(zq_diag_args args);
uint32_t zq_check_pppoe_error();
int pppoe_filter_special(const char *interface);
