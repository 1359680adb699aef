/*
 * zq_diag.h - public interface of libzqdiag, the self-diagnosis library of
 * the fibre home gateway.
 *
 * Management processes load the library, fill a control block and call the
 * exported functions below. Every structure here is shared byte for byte
 * with those processes: sizes and offsets are pinned by the static
 * assertions at the end of this file. The header is valid C11 and C++.
 */
#ifndef ZQ_DIAG_H
#define ZQ_DIAG_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define ZQ_EXPORT __attribute__((visibility("default")))
#else
#define ZQ_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ */
/* Method actions and the argument block                               */
/* ------------------------------------------------------------------ */

#define ACTION_RAW_DATA 0u
#define ACTION_STRUCT 1u
#define ACTION_DIAG 2u
#define ACTION_FIX 3u

/* Passed by value to every action and validator of the method table. */
typedef struct zq_diag_args {
    const void *in_buf; /* request input, may be null */
    void *out_buf;      /* caller's output buffer */
    uint64_t in_size;   /* input size in bytes */
    uint64_t out_size;  /* output buffer size in bytes */
} zq_diag_args;

/* One step of a diagnosis or fix path. */
typedef struct zq_diag_step {
    char method[32]; /* method name; empty: no step chosen yet in this run */
    uint32_t action; /* ACTION_DIAG or ACTION_FIX */
    uint32_t result; /* result word the action writes through out_buf */
} zq_diag_step;

/* ------------------------------------------------------------------ */
/* Control blocks                                                      */
/* ------------------------------------------------------------------ */

#define EXEC_IDLE 0u
#define EXEC_RUNNING 1u
#define EXEC_DONE 2u
#define EXEC_UPLOADED 3u
#define EXEC_UPLOADING 4u
#define EXEC_UPLOAD_FAIL 5u

#define UPLOAD_PROTOCOL_FTP 0u
#define UPLOAD_PROTOCOL_TFTP 1u

typedef struct diag_exec_ctl {
    uint32_t reserved;    /* not used by the library */
    uint32_t protocol;    /* upload protocol: 0 FTP, 1 TFTP */
    uint32_t mode;        /* diagnosis mode / capture mode */
    uint32_t kind;        /* 0 diagnose, 1 fix / capture interface index */
    char url[64];         /* upload server URL */
    char file_name[16];   /* name of the uploaded file, written back */
    uint32_t action;      /* diagnosis: 0 run, 1 upload; capture: 0 stop, 1 start, 2 upload */
    uint32_t state;       /* EXEC_* */
    unsigned long worker; /* pthread_t of the running worker, 0 when none */
    uint8_t wan_mask;     /* lowest set bit: 1-based WAN index for uploads */
    uint8_t reserved_tail[7];
} diag_exec_ctl;

/* ------------------------------------------------------------------ */
/* Message log                                                         */
/* ------------------------------------------------------------------ */

#define DIAG_MSG_NORMAL 0u
#define DIAG_MSG_SUCCESS 1u
#define DIAG_MSG_WARN 2u
#define DIAG_MSG_ERROR 3u

#define ZQ_DIAG_MSG_SIZE 4096
#define ZQ_CMD_RESULT_SIZE 4096

/* ------------------------------------------------------------------ */
/* Records                                                             */
/* ------------------------------------------------------------------ */

#define WAN_DIAG_DATA 1u
#define PORT_DIAG_DATA 2u
#define PON_DIAG_DATA 3u
#define DHCP_DIAG_DATA 4u
#define SYS_DIAG_DATA 5u

/* WAN connection verdicts (v4_conn_state, v6_conn_state). */
#define WAN_CONNECT_NORMAL 0u
#define WAN_CONNECT_UNSTABLE 1u
#define WAN_GATEWAY_UNREACHABLE 2u
#define WAN_DHCP_SERVICE_ERROR 3u
#define WAN_PPP_SERVICE_ERROR 4u
#define WAN_STATIC_SERVICE_ERROR 5u

typedef struct zqSD_wan_diag {
    uint8_t nat_enable;
    uint8_t vlan_enable;
    uint16_t vlan;
    char type[16];
    char protocol[16];
    char v4_ip[16];
    char v4_gateway[16];
    char v4_master_dns[16];
    char v4_slave_dns[16];
    char nas_interface[16];
    char service_type[32];
    char v6_ip[40];
    char v6_gateway[40];
    char wan_name[48];
    uint8_t disable_lan_dhcp;
    uint8_t reserved;
    uint16_t itfGroup;
    uint32_t v4_conn_state;
    uint32_t v6_conn_state;
    uint32_t dns_state;
    uint32_t params_state;
    uint32_t pppoe_state;
    uint32_t route_state;
    uint32_t dhcp_state;
} zqSD_wan_diag;

typedef struct zqSD_port_diag {
    char status[8];
    char speed[16];
    char duplex[16];
} zqSD_port_diag;

typedef struct zqSD_pon_diag {
    char pon_mode[8];
    char pon_state[32];
    float rx_power;
    float tx_power;
    char customer_ver[20];
    uint32_t reg_state; /* 0 registered, 1 no optical link, 2 not registered */
} zqSD_pon_diag;

typedef struct zqSD_dhcp_diag {
    uint8_t reserved;
    uint8_t server_running;
    char interface[16];
    char ip_addr[16];
    char pool_addr_start[16];
    char pool_addr_end[16];
    char subnet[16];
    char gateway[16];
    char dns[16];
    char secondary_dns[16];
    uint8_t reserved_tail[2];
    uint32_t fault_flags;
    uint32_t lan_dhcp_disabled;
} zqSD_dhcp_diag;

typedef struct zqSD_sys_diag {
    uint32_t sys_mem_total;
    uint32_t sys_mem_free;
    uint8_t sys_mem_usage;
    uint8_t sys_cpu_usage;
    uint8_t reserved[6];
    uint64_t pid_boa;
    uint64_t pid_cwmpClient;
    uint64_t pid_omci_oam;
    char dnsmasq[256];
    char software_version[128];
    uint32_t fault_flags;
    uint32_t reserved_tail;
} zqSD_sys_diag;

/* One node of the record chain; zq_diag_data_chain is the head. */
typedef struct diag_data_node {
    struct diag_data_node *prev;
    struct diag_data_node *next;
    uint8_t index; /* position among the nodes of its type */
    uint8_t count; /* number of nodes of its type */
    uint8_t reserved[2];
    uint32_t type;
    void *data;
    uint64_t size;
} diag_data_node;

/* ------------------------------------------------------------------ */
/* Permit and alarm word                                               */
/* ------------------------------------------------------------------ */

#define ALARM_HIGH_MEMORY 0x08u
#define ALARM_HIGH_CPU 0x10u

/* ------------------------------------------------------------------ */
/* Ping                                                                */
/* ------------------------------------------------------------------ */

#define PING_NORMAL 0u
#define PING_SLOW 1u
#define PING_JITTER 2u
#define PING_LOSS 3u
#define PING_UNREACHABLE 4u
#define PING_NO_STATS 5u

typedef struct ping_request {
    uint8_t family; /* 6 selects IPv6, anything else IPv4 */
    char host[46];
    char source[46];
} ping_request;

/* ------------------------------------------------------------------ */
/* Capture and upload                                                  */
/* ------------------------------------------------------------------ */

typedef struct tcpdump_req {
    uint32_t mode; /* 0 single file, 1 rotate */
    uint64_t catch_count;
    uint64_t catch_time;
    char interface[32];
    char filter[256];
} tcpdump_req;

typedef struct upload_params {
    uint32_t protocol;
    char url[64];
    char host[16];
    char user[20];
    char password[20];
    char path[20];
    char local_file[128];
    char remote_file[16];
    uint32_t port;
    uint8_t wan_index;
} upload_params;

/* ------------------------------------------------------------------ */
/* Exported data                                                       */
/* ------------------------------------------------------------------ */

ZQ_EXPORT extern diag_exec_ctl g_diag_exec;
ZQ_EXPORT extern diag_exec_ctl g_cap_exec;
ZQ_EXPORT extern char zq_diag_msg[ZQ_DIAG_MSG_SIZE];
ZQ_EXPORT extern char zq_cmd_result_buff[ZQ_CMD_RESULT_SIZE];
ZQ_EXPORT extern char zq_running_method[32];
ZQ_EXPORT extern diag_data_node zq_diag_data_chain;
ZQ_EXPORT extern uint8_t do_not_generate_log;

/* ------------------------------------------------------------------ */
/* Exported functions                                                  */
/* ------------------------------------------------------------------ */

/* Commands and queries */
ZQ_EXPORT char *zq_get_cmd_result(const char *cmd);
ZQ_EXPORT int zq_get_cmd_buff(const char *cmd, void *out, uint64_t out_size);
ZQ_EXPORT uint64_t zq_get_pid(const char *name);

/* Permit and guards */
ZQ_EXPORT int get_diag_permit(void);
ZQ_EXPORT int release_diag_permit(void);
ZQ_EXPORT int is_diag_permit_holding(void);
ZQ_EXPORT int is_diag_avaliable(void);
ZQ_EXPORT uint32_t get_diag_alarm_value(void);
ZQ_EXPORT int check_diag_alarm_value(uint32_t mask);
ZQ_EXPORT int is_self_diagnose_enable(void);
ZQ_EXPORT int is_iperf_test_enable(void);
ZQ_EXPORT int is_ap_detect_available(void);

/* Records */
ZQ_EXPORT uint64_t get_diag_data_size(uint32_t type);
ZQ_EXPORT diag_data_node *zq_search_diag_record(uint32_t type);

/* Diagnosis and repair */
ZQ_EXPORT int diagnose_set(void);
ZQ_EXPORT int run_spec_entire_diag(uint32_t mode);
ZQ_EXPORT int run_spec_entire_fix(uint32_t mode);
ZQ_EXPORT int zq_intact_diag_run(zq_diag_step *step);
ZQ_EXPORT int zq_diag_path_search(zq_diag_step *step);
ZQ_EXPORT int zq_fix_path_search(zq_diag_step *step);
ZQ_EXPORT int is_zq_fix_available(void);

/* Diagnosis files */
ZQ_EXPORT int zq_packet_diag_file(void);
ZQ_EXPORT int zq_clear_diag_file(void);

/* System status: fills the 424-byte system status block (the front of
 * zqSD_sys_diag) at args.out_buf; only out_buf is used. It writes 424 bytes
 * whatever out_size says, so the block must be at least that large. Takes
 * at least 300 ms (two CPU load samples). Returns 0, -1 when out_buf is
 * null. When /proc/stat cannot be opened, the process ends (status 0). */
ZQ_EXPORT int zq_get_sys_status_struct(zq_diag_args args);

/* DNS probes of one WAN record (a zqSD_wan_diag): 0 when a root name
 * server answers a ping from the record's v4_ip, else -1; 1 when a public
 * name resolves (the record is not read), else 0. */
ZQ_EXPORT int v4_ping_preset_dns(char *wan_record);
ZQ_EXPORT int if_dns_avaliable(char *wan_record);

/* PON helpers */
ZQ_EXPORT int get_pon_debug_flag(void);
ZQ_EXPORT int set_pon_debug_flag(int on);
ZQ_EXPORT int is_pon_auth_normal(void);

/* Packet capture */
ZQ_EXPORT int capture_set(void);
ZQ_EXPORT int capture_abnormal_get(void);
ZQ_EXPORT int zq_get_tcpdump_file(tcpdump_req req);
ZQ_EXPORT int stop_tcpdump_catch(void);
ZQ_EXPORT long packet_capture_file(void);
ZQ_EXPORT long zq_get_file_size(const char *path);
ZQ_EXPORT uint64_t get_max_size_of_tcpdump_file(void);

/* Continuous upload of rotate mode: starts the chain of threads that sends
 * every capture file tcpdump finishes (capture_set starts it itself). */
ZQ_EXPORT void start_tcpdump_continue_uploading(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* ------------------------------------------------------------------ */
/* Layout pins                                                         */
/* ------------------------------------------------------------------ */

#ifdef __cplusplus
#define ZQ_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define ZQ_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
#define ZQ_PIN(type, field, off) ZQ_STATIC_ASSERT(offsetof(type, field) == (off), #type "." #field)
#define ZQ_SIZE(type, size) ZQ_STATIC_ASSERT(sizeof(type) == (size), "sizeof " #type)

ZQ_SIZE(zq_diag_args, 32);
ZQ_PIN(zq_diag_args, in_buf, 0);
ZQ_PIN(zq_diag_args, out_buf, 8);
ZQ_PIN(zq_diag_args, in_size, 16);
ZQ_PIN(zq_diag_args, out_size, 24);

ZQ_SIZE(zq_diag_step, 40);
ZQ_PIN(zq_diag_step, method, 0);
ZQ_PIN(zq_diag_step, action, 32);
ZQ_PIN(zq_diag_step, result, 36);

ZQ_SIZE(diag_exec_ctl, 120);
ZQ_PIN(diag_exec_ctl, reserved, 0);
ZQ_PIN(diag_exec_ctl, protocol, 4);
ZQ_PIN(diag_exec_ctl, mode, 8);
ZQ_PIN(diag_exec_ctl, kind, 12);
ZQ_PIN(diag_exec_ctl, url, 16);
ZQ_PIN(diag_exec_ctl, file_name, 80);
ZQ_PIN(diag_exec_ctl, action, 96);
ZQ_PIN(diag_exec_ctl, state, 100);
ZQ_PIN(diag_exec_ctl, worker, 104);
ZQ_PIN(diag_exec_ctl, wan_mask, 112);
ZQ_PIN(diag_exec_ctl, reserved_tail, 113);
ZQ_STATIC_ASSERT(sizeof(unsigned long) == 8, "worker holds a 64-bit thread handle");

ZQ_SIZE(zqSD_wan_diag, 308);
ZQ_PIN(zqSD_wan_diag, nat_enable, 0);
ZQ_PIN(zqSD_wan_diag, vlan_enable, 1);
ZQ_PIN(zqSD_wan_diag, vlan, 2);
ZQ_PIN(zqSD_wan_diag, type, 4);
ZQ_PIN(zqSD_wan_diag, protocol, 20);
ZQ_PIN(zqSD_wan_diag, v4_ip, 36);
ZQ_PIN(zqSD_wan_diag, v4_gateway, 52);
ZQ_PIN(zqSD_wan_diag, v4_master_dns, 68);
ZQ_PIN(zqSD_wan_diag, v4_slave_dns, 84);
ZQ_PIN(zqSD_wan_diag, nas_interface, 100);
ZQ_PIN(zqSD_wan_diag, service_type, 116);
ZQ_PIN(zqSD_wan_diag, v6_ip, 148);
ZQ_PIN(zqSD_wan_diag, v6_gateway, 188);
ZQ_PIN(zqSD_wan_diag, wan_name, 228);
ZQ_PIN(zqSD_wan_diag, disable_lan_dhcp, 276);
ZQ_PIN(zqSD_wan_diag, reserved, 277);
ZQ_PIN(zqSD_wan_diag, itfGroup, 278);
ZQ_PIN(zqSD_wan_diag, v4_conn_state, 280);
ZQ_PIN(zqSD_wan_diag, v6_conn_state, 284);
ZQ_PIN(zqSD_wan_diag, dns_state, 288);
ZQ_PIN(zqSD_wan_diag, params_state, 292);
ZQ_PIN(zqSD_wan_diag, pppoe_state, 296);
ZQ_PIN(zqSD_wan_diag, route_state, 300);
ZQ_PIN(zqSD_wan_diag, dhcp_state, 304);

ZQ_SIZE(zqSD_port_diag, 40);
ZQ_PIN(zqSD_port_diag, status, 0);
ZQ_PIN(zqSD_port_diag, speed, 8);
ZQ_PIN(zqSD_port_diag, duplex, 24);

ZQ_SIZE(zqSD_pon_diag, 72);
ZQ_PIN(zqSD_pon_diag, pon_mode, 0);
ZQ_PIN(zqSD_pon_diag, pon_state, 8);
ZQ_PIN(zqSD_pon_diag, rx_power, 40);
ZQ_PIN(zqSD_pon_diag, tx_power, 44);
ZQ_PIN(zqSD_pon_diag, customer_ver, 48);
ZQ_PIN(zqSD_pon_diag, reg_state, 68);

ZQ_SIZE(zqSD_dhcp_diag, 140);
ZQ_PIN(zqSD_dhcp_diag, reserved, 0);
ZQ_PIN(zqSD_dhcp_diag, server_running, 1);
ZQ_PIN(zqSD_dhcp_diag, interface, 2);
ZQ_PIN(zqSD_dhcp_diag, ip_addr, 18);
ZQ_PIN(zqSD_dhcp_diag, pool_addr_start, 34);
ZQ_PIN(zqSD_dhcp_diag, pool_addr_end, 50);
ZQ_PIN(zqSD_dhcp_diag, subnet, 66);
ZQ_PIN(zqSD_dhcp_diag, gateway, 82);
ZQ_PIN(zqSD_dhcp_diag, dns, 98);
ZQ_PIN(zqSD_dhcp_diag, secondary_dns, 114);
ZQ_PIN(zqSD_dhcp_diag, reserved_tail, 130);
ZQ_PIN(zqSD_dhcp_diag, fault_flags, 132);
ZQ_PIN(zqSD_dhcp_diag, lan_dhcp_disabled, 136);

ZQ_SIZE(zqSD_sys_diag, 432);
ZQ_PIN(zqSD_sys_diag, sys_mem_total, 0);
ZQ_PIN(zqSD_sys_diag, sys_mem_free, 4);
ZQ_PIN(zqSD_sys_diag, sys_mem_usage, 8);
ZQ_PIN(zqSD_sys_diag, sys_cpu_usage, 9);
ZQ_PIN(zqSD_sys_diag, reserved, 10);
ZQ_PIN(zqSD_sys_diag, pid_boa, 16);
ZQ_PIN(zqSD_sys_diag, pid_cwmpClient, 24);
ZQ_PIN(zqSD_sys_diag, pid_omci_oam, 32);
ZQ_PIN(zqSD_sys_diag, dnsmasq, 40);
ZQ_PIN(zqSD_sys_diag, software_version, 296);
ZQ_PIN(zqSD_sys_diag, fault_flags, 424);
ZQ_PIN(zqSD_sys_diag, reserved_tail, 428);

ZQ_SIZE(diag_data_node, 40);
ZQ_PIN(diag_data_node, prev, 0);
ZQ_PIN(diag_data_node, next, 8);
ZQ_PIN(diag_data_node, index, 16);
ZQ_PIN(diag_data_node, count, 17);
ZQ_PIN(diag_data_node, reserved, 18);
ZQ_PIN(diag_data_node, type, 20);
ZQ_PIN(diag_data_node, data, 24);
ZQ_PIN(diag_data_node, size, 32);

ZQ_SIZE(ping_request, 93);
ZQ_PIN(ping_request, family, 0);
ZQ_PIN(ping_request, host, 1);
ZQ_PIN(ping_request, source, 47);

ZQ_SIZE(tcpdump_req, 312);
ZQ_PIN(tcpdump_req, mode, 0);
ZQ_PIN(tcpdump_req, catch_count, 8);
ZQ_PIN(tcpdump_req, catch_time, 16);
ZQ_PIN(tcpdump_req, interface, 24);
ZQ_PIN(tcpdump_req, filter, 56);

ZQ_SIZE(upload_params, 296);
ZQ_PIN(upload_params, protocol, 0);
ZQ_PIN(upload_params, url, 4);
ZQ_PIN(upload_params, host, 68);
ZQ_PIN(upload_params, user, 84);
ZQ_PIN(upload_params, password, 104);
ZQ_PIN(upload_params, path, 124);
ZQ_PIN(upload_params, local_file, 144);
ZQ_PIN(upload_params, remote_file, 272);
ZQ_PIN(upload_params, port, 288);
ZQ_PIN(upload_params, wan_index, 292);

#undef ZQ_PIN
#undef ZQ_SIZE

#endif /* ZQ_DIAG_H */
