/*
 * zq_diag.h - public interface of libzqdiag, the self-diagnosis library of
 * the fibre home gateway.
 *
 * Management processes load the library, fill a control block and call the
 * exported functions below. Every structure here is shared byte for byte
 * with those processes: sizes and offsets are pinned by the static
 * assertions at the end of this file. The header is valid C11 and C++.
 *
 * General contract (each declaration below says where it differs):
 *
 * - Threads. Entry points run in the caller's thread and return quickly;
 *   the work of a diagnosis, a repair, an upload and a rotating capture
 *   runs in detached worker threads that the library starts and that end
 *   by themselves. There is no mutex: the process-wide buffers
 *   (zq_diag_msg, zq_cmd_result_buff, zq_running_method, the record chain)
 *   are written without a lock and are kept apart only by the diagnosis
 *   permit. Read them while no worker of this process runs, or accept a
 *   torn view while one does.
 * - The permit. "diag_permit" is a system-wide POSIX named semaphore used
 *   as a try-lock: 1 free, 0 taken; nothing ever waits on it. A diagnosis
 *   or repair takes it at its first step and gives it back at its "end"
 *   step; a capture takes it at its start and gives it back at its stop.
 *   It has no owner: whoever posts it frees it. The library gives it back
 *   only at those release points, and only when this process took it and
 *   has not given it back since.
 * - Lifetime. Nothing runs at load time and there is no start-up or
 *   shut-down call: every exported object starts zeroed. Do not unload the
 *   library while one of its workers runs.
 * - Returns. 0 on success and -1 (or a small negative code) on failure;
 *   predicates (is_..., check_...) return 1 or 0.
 * - Logging. Technical log lines go to the process's standard output, one
 *   per event, as "![function line] text". Findings meant for the user go
 *   to zq_diag_msg and to the diagnosis log under /tmp/diag_file/.
 * - Outside text. Every text that reaches a shell command (process names,
 *   URLs and their parts, interface names, file names) must be one plain
 *   word of its field; anything else is refused with a log line, never
 *   quoted, escaped or cut. The caller's tcpdump filter is the exception:
 *   it is handed to the shell single-quoted as a whole.
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

/* Action codes of a method of the method table, and of a zq_diag_step:
 * RAW_DATA reads text, STRUCT fills a structure, DIAG judges and writes
 * findings, FIX repairs. Diagnosis steps run ACTION_DIAG, repair steps
 * ACTION_FIX. */
#define ACTION_RAW_DATA 0u
#define ACTION_STRUCT 1u
#define ACTION_DIAG 2u
#define ACTION_FIX 3u

/*
 * zq_diag_args - the 32-byte argument block, passed by value to every
 * action and validator of the method table and to zq_get_sys_status_struct.
 * The caller owns both buffers; sizes are in bytes and each action says
 * which sizes it accepts.
 */
typedef struct zq_diag_args {
    const void *in_buf; /* request input, may be null */
    void *out_buf;      /* caller's output buffer */
    uint64_t in_size;   /* input size in bytes */
    uint64_t out_size;  /* output buffer size in bytes */
} zq_diag_args;

/*
 * zq_diag_step - one step of a diagnosis or fix path (40 bytes).
 *
 * Start a run with a zeroed step: an empty `method` is what tells
 * zq_diag_path_search and zq_fix_path_search that a new run begins. The
 * searches fill `method` and `action` and clear `result`; the step's
 * action then writes or ORs its result word into `result`.
 */
typedef struct zq_diag_step {
    char method[32]; /* method name; empty: no step chosen yet in this run */
    uint32_t action; /* ACTION_DIAG or ACTION_FIX */
    uint32_t result; /* result word the action writes through out_buf */
} zq_diag_step;

/* ------------------------------------------------------------------ */
/* Control blocks                                                      */
/* ------------------------------------------------------------------ */

/* Execution states of a control block's `state` field:
 *   EXEC_IDLE        nothing running (also: a diagnosis worker that could
 *                    not start its path; a rotate capture stopped or ended)
 *   EXEC_RUNNING     diagnosis worker started, or capture running
 *   EXEC_DONE        diagnosis finished, or single capture stopped or dead
 *   EXEC_UPLOADED    upload worker finished, the file was sent
 *   EXEC_UPLOADING   upload worker started
 *   EXEC_UPLOAD_FAIL upload worker finished, the file was not sent
 * A block never goes back to EXEC_IDLE by itself after EXEC_DONE,
 * EXEC_UPLOADED or EXEC_UPLOAD_FAIL: the caller reads the state and issues
 * its next request. */
#define EXEC_IDLE 0u
#define EXEC_RUNNING 1u
#define EXEC_DONE 2u
#define EXEC_UPLOADED 3u
#define EXEC_UPLOADING 4u
#define EXEC_UPLOAD_FAIL 5u

/* Values of a control block's `protocol`. */
#define UPLOAD_PROTOCOL_FTP 0u
#define UPLOAD_PROTOCOL_TFTP 1u

/*
 * diag_exec_ctl - the 120-byte layout of both control blocks, g_diag_exec
 * (diagnosis, repair, diagnosis upload) and g_cap_exec (packet capture and
 * its upload).
 *
 * The caller writes the request fields (`protocol`, `mode`, `kind`, `url`,
 * `action`, `wan_mask`) and then calls diagnose_set or capture_set from
 * the same thread. The library writes `state`, `worker` and `file_name`;
 * the caller only reads them (each is written whole, so a plain read sees
 * an old or a new value, never a mix). Do not change a request field while
 * `worker` is non-zero. An upload worker writes its end state first, then
 * cleans up and writes `file_name`, and clears `worker` last: read
 * `file_name` once `worker` reads 0.
 *
 * `url` is "ftp://[USER:PASSWORD@]HOST[:PORT]/PATH" or
 * "tftp://HOST[:PORT]", NUL-terminated within its 64 bytes; user and
 * password of at most 19 characters each. `file_name` receives the name
 * under which the last upload stored the archive (at most 15 characters,
 * for example "11161621dia.tar"); the next upload of the same block
 * removes that file from the gateway.
 */
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

/* Levels of the findings in zq_diag_msg. Each finding is one line that
 * starts with its level tag: "[normal ]", "[success]", "[warn   ]",
 * "[error  ]". A finding that ends in " --Repairable" names a fault that a
 * repair run can act on. */
#define DIAG_MSG_NORMAL 0u
#define DIAG_MSG_SUCCESS 1u
#define DIAG_MSG_WARN 2u
#define DIAG_MSG_ERROR 3u

/* Sizes of the exported text buffers zq_diag_msg and zq_cmd_result_buff. */
#define ZQ_DIAG_MSG_SIZE 4096
#define ZQ_CMD_RESULT_SIZE 4096

/* ------------------------------------------------------------------ */
/* Records                                                             */
/* ------------------------------------------------------------------ */

/* Record type codes of the record chain (diag_data_node.type), with the
 * structure each one holds: zqSD_wan_diag, zqSD_port_diag, zqSD_pon_diag,
 * zqSD_dhcp_diag, zqSD_sys_diag. */
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

/*
 * zqSD_wan_diag - one WAN connection (record type WAN_DIAG_DATA, 308
 * bytes), one record per connection the diagnosis manager reports. The
 * text fields are the manager's answers, NUL-terminated and cut to their
 * size; the *_state fields are the verdicts of the diagnosis steps that
 * judged the connection (0 when no step judged it).
 */
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

/* zqSD_port_diag - one Ethernet LAN port (PORT_DIAG_DATA, 40 bytes):
 * link status, speed and duplex as the diagnosis manager prints them. */
typedef struct zqSD_port_diag {
    char status[8];
    char speed[16];
    char duplex[16];
} zqSD_port_diag;

/* zqSD_pon_diag - the PON link (PON_DIAG_DATA, 72 bytes, at most one
 * record): mode text ("GPON"/"EPON"), registration state text, optical
 * powers in dBm, the first line of /etc/custname, and the verdict. */
typedef struct zqSD_pon_diag {
    char pon_mode[8];
    char pon_state[32];
    float rx_power;
    float tx_power;
    char customer_ver[20];
    uint32_t reg_state; /* 0 registered, 1 no optical link, 2 not registered */
} zqSD_pon_diag;

/* zqSD_dhcp_diag - the LAN DHCP server (DHCP_DIAG_DATA, 140 bytes, at
 * most one record): its configuration as read from the server's
 * configuration file, fault flags (bit 0: server not running) and the
 * itfGroup bits of the LAN interfaces on which a routed WAN switches LAN
 * DHCP off. */
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

/* zqSD_sys_diag - the system's health (SYS_DIAG_DATA, 432 bytes, at most
 * one record): memory in KiB and usage in percent, CPU usage in percent,
 * the pids of three daemons (0: not running), the forwarder's upstream
 * servers, the software version, and fault flags (bit 4: memory usage
 * above 80 %, bit 5: CPU usage above 80 %; the other bits name faults a
 * repair can act on). The first 424 bytes are the system status block of
 * zq_get_sys_status_struct. */
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

/*
 * diag_data_node - one node of the record chain; zq_diag_data_chain is the
 * head. The nodes of one type lie next to each other in the chain: take
 * the first with zq_search_diag_record, read its `count`, and follow
 * `next` at most `count` - 1 times (stop early at a null `next`).
 * `data` points to `size` bytes of the record. Before reading records of
 * a type, compare sizeof of your structure with get_diag_data_size(type)
 * and read nothing when they differ (a library of another layout). Nodes
 * and records belong to the library: do not write or free them.
 */
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

/* Bits of the alarm word that another process of the gateway keeps in
 * System V shared memory (key ftok("/tmp", 955000), 4 bytes). The library
 * only reads it: high CPU refuses the permit, high memory makes a
 * diagnosis unavailable (is_diag_avaliable) but still lets a capture take
 * the permit. */
#define ALARM_HIGH_MEMORY 0x08u
#define ALARM_HIGH_CPU 0x10u

/* ------------------------------------------------------------------ */
/* Ping                                                                */
/* ------------------------------------------------------------------ */

/* Verdicts of the ping method. */
#define PING_NORMAL 0u
#define PING_SLOW 1u
#define PING_JITTER 2u
#define PING_LOSS 3u
#define PING_UNREACHABLE 4u
#define PING_NO_STATS 5u

/* ping_request - input of the ping method (93 bytes, packed). `host` is an
 * address or name, `source` the argument of ping's -I (an interface or a
 * source address; empty for none); both NUL-terminated. */
typedef struct ping_request {
    uint8_t family; /* 6 selects IPv6, anything else IPv4 */
    char host[46];
    char source[46];
} ping_request;

/* ------------------------------------------------------------------ */
/* Capture and upload                                                  */
/* ------------------------------------------------------------------ */

/*
 * tcpdump_req - a capture request for zq_get_tcpdump_file (312 bytes).
 *
 * mode 0: one file, /tmp/capture_file/capture.pcap, `catch_count` packets
 * (1 to 5000). mode 1: two rotating files capture.pcap0 and capture.pcap1
 * of `catch_count` million bytes each (1 to get_max_size_of_tcpdump_file).
 * `catch_time` 0 leaves tcpdump running after the call returns; otherwise
 * the call captures that many seconds (at most 10) and stops tcpdump.
 * `interface` is an interface name or "any" and must not be empty;
 * `filter` a tcpdump expression or empty; characters the shell would act
 * on are accepted only inside single quotes, which must be balanced.
 * Both must be NUL-terminated.
 */
typedef struct tcpdump_req {
    uint32_t mode; /* 0 single file, 1 rotate */
    uint64_t catch_count;
    uint64_t catch_time;
    char interface[32];
    /* A pcap-filter expression, as typed or wrapped whole in single
       quotes; it reaches tcpdump as one argument. Empty: no filter. */
    char filter[256];
} tcpdump_req;

/* upload_params - the library's own description of one file upload (296
 * bytes), exported for its layout only: no exported function takes it.
 * The upload workers fill it from a control block. */
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

/* The control blocks (see diag_exec_ctl). g_diag_exec drives
 * diagnose_set; g_cap_exec drives capture_set and capture_abnormal_get. */
ZQ_EXPORT extern diag_exec_ctl g_diag_exec;
ZQ_EXPORT extern diag_exec_ctl g_cap_exec;

/* The findings of the current (or last) step of a diagnosis or repair, as
 * NUL-terminated levelled lines; cleared when the next step starts.
 * Written by the worker: read it between steps (zq_running_method
 * changes) or after the run. */
ZQ_EXPORT extern char zq_diag_msg[ZQ_DIAG_MSG_SIZE];

/* The output of the last command run through zq_get_cmd_result, by any
 * thread of the process (NUL-terminated, at most 4095 characters). */
ZQ_EXPORT extern char zq_cmd_result_buff[ZQ_CMD_RESULT_SIZE];

/* The name of the step the last path search chose, NUL-terminated;
 * "end" once a run has finished. Read it to show progress. */
ZQ_EXPORT extern char zq_running_method[32];

/* Head of the record chain. The chain holds the records of the last
 * diagnosis of this process: the first step of the next diagnosis empties
 * it (a repair run reads it and does not empty it). Walk it only while no
 * diagnosis of this process runs. */
ZQ_EXPORT extern diag_data_node zq_diag_data_chain;

/* Non-zero stops the diagnosis log, the record dump and the command log
 * under /tmp/diag_file/ (the package and its clean-up still work). 0 at
 * load; set it before a run starts. */
ZQ_EXPORT extern uint8_t do_not_generate_log;

/* ------------------------------------------------------------------ */
/* Exported functions                                                  */
/* ------------------------------------------------------------------ */

/* Commands and queries */

/*
 * zq_get_cmd_result - run a shell command and return its output.
 *
 * @cmd: NUL-terminated command line; its first 255 characters are run.
 *
 * Runs the command through the shell in the calling thread and waits for
 * it. Returns zq_cmd_result_buff (never null), cleared and then filled
 * with the output, NUL-terminated; a longer output keeps its newest 4095
 * characters. Empty when
 * the command printed nothing, could not be started, or @cmd is null. The
 * buffer is shared by every thread of the process and is overwritten by
 * the next call: copy what you need. The command and its output are
 * appended to /tmp/diag_file/cmd_log (unless do_not_generate_log).
 * The command is run as given: never build it from outside text.
 */
ZQ_EXPORT char *zq_get_cmd_result(const char *cmd);

/*
 * zq_get_cmd_buff - run a shell command into the caller's buffer.
 *
 * @cmd: NUL-terminated command line, or null.
 * @out: caller's buffer of @out_size bytes, at least 64.
 *
 * Like zq_get_cmd_result, but the output goes to @out, for long listings.
 * @out is not cleared first: clear it, and the output is NUL-terminated
 * (a longer output keeps its newest @out_size - 1 characters).
 * Thread-safe as far as @out is the caller's own.
 * Returns -1 when @cmd is null, else 0, whether or not the command ran
 * (a too small buffer leaves @out untouched).
 */
ZQ_EXPORT int zq_get_cmd_buff(const char *cmd, void *out, uint64_t out_size);

/*
 * zq_get_pid - process id of a running program.
 *
 * @name: a process name (1 to 15 letters, digits, '.', '_', '-', not
 * starting with '-'); anything else is refused with a log line and gives 0.
 *
 * Returns the pid of the first process that "pgrep NAME" lists, 0 when
 * none runs. Any thread.
 */
ZQ_EXPORT uint64_t zq_get_pid(const char *name);

/* Permit and guards */

/*
 * get_diag_permit - take the diagnosis permit.
 *
 * Returns 0 when the permit was free and is now taken by this process
 * (and the diagnosis manager is signalled with SIGUSR2), -1 otherwise:
 * no diagnosis manager (/var/run/diagM.pid missing or not a pid), the
 * alarm word reports high CPU, the semaphore cannot be opened, or the
 * permit is taken. Never waits. High memory only logs a warning. The
 * diagnosis and fix path searches and capture_set call it themselves: a
 * management process calls it only to keep the library's own work out
 * (and then gives it back with release_diag_permit).
 */
ZQ_EXPORT int get_diag_permit(void);

/*
 * release_diag_permit - give the permit back, whoever took it.
 *
 * Posts the semaphore only when it is taken, so its value never exceeds
 * 1. Returns 0 when there was nothing to release or the semaphore cannot
 * be opened, else the result of sem_post (0). Afterwards this process no
 * longer counts as holding the permit, so none of the library's own
 * release points will post it again. Use it to free a permit whose holder
 * died; freeing a live holder's permit lets a second diagnosis or capture
 * overlap the first.
 */
ZQ_EXPORT int release_diag_permit(void);

/*
 * is_diag_permit_holding - 1 when the permit is taken, by any process;
 * else 0 (also when the semaphore cannot be opened).
 */
ZQ_EXPORT int is_diag_permit_holding(void);

/*
 * is_diag_avaliable - 1 when a diagnosis may start now: the permit is
 * free and the alarm word reports neither high memory nor high CPU; else
 * 0. A snapshot: the permit may be taken right after it answers.
 */
ZQ_EXPORT int is_diag_avaliable(void);

/*
 * get_diag_alarm_value - the alarm word (ALARM_* bits); the last value
 * read, 0 when the shared memory could not be attached yet (retried at
 * every call). check_diag_alarm_value returns 1 when any bit of @mask is
 * set in it, else 0.
 */
ZQ_EXPORT uint32_t get_diag_alarm_value(void);
ZQ_EXPORT int check_diag_alarm_value(uint32_t mask);

/*
 * Settings of the diagnosis manager, asked with "diagM get ..." through
 * zq_get_cmd_result (so they overwrite zq_cmd_result_buff):
 * is_self_diagnose_enable - 1 when "diag_state" answers "enable", else 0;
 * is_iperf_test_enable - 1 when "iperf_test_enable" answers "enable";
 * is_ap_detect_available - the radio bands of "available_wlan": bit 0
 * (1) for 2.4 GHz, bit 1 (2) for 5 GHz, 0 to 3.
 */
ZQ_EXPORT int is_self_diagnose_enable(void);
ZQ_EXPORT int is_iperf_test_enable(void);
ZQ_EXPORT int is_ap_detect_available(void);

/* Records */

/*
 * get_diag_data_size - size in bytes of the record structure of @type
 * (WAN_DIAG_DATA 308, PORT_DIAG_DATA 40, PON_DIAG_DATA 72, DHCP_DIAG_DATA
 * 140, SYS_DIAG_DATA 432), 0 for an unknown code. Compare it with your
 * sizeof before reading records. Any thread.
 */
ZQ_EXPORT uint64_t get_diag_data_size(uint32_t type);

/*
 * zq_search_diag_record - the first node of the record chain whose type
 * is @type, or null when the chain holds none. The record is the node's
 * `data`; the node's `count` says how many nodes of the type follow
 * along `next`, this one included. Valid until the next diagnosis of this
 * process starts; do not call while one runs.
 */
ZQ_EXPORT diag_data_node *zq_search_diag_record(uint32_t type);

/* Diagnosis and repair */

/*
 * diagnose_set - act on g_diag_exec.
 *
 * Call from one thread of the management process after filling the block.
 *   action 0, kind 0: start a diagnosis of `mode` (0 the whole path, 1 to
 *     10 a part: 1 ports, 2 PON, 3 PON and WAN, 4 system, 5 WAN
 *     parameters, 6 Internet and names, 7 LAN DHCP, 8 PPPoE, 9 routes,
 *     10 ports, PON and WAN);
 *   action 0, kind 1: start a repair of what the last diagnosis of this
 *     process found (mode is ignored);
 *   action 1: upload /tmp/diag_file/diag_log.tar to `url` by `protocol`
 *     through the WAN of `wan_mask`. Pack it first with
 *     zq_packet_diag_file: the worker chooses the file to send before it
 *     packs anew, so without an archive it sends the file of the last
 *     upload (`file_name`) again, or fails when there is none.
 *
 * Returns 0 when a worker was started, and also when a worker of this
 * block is still busy (nothing started, the line "diagnose execution is
 * busy" printed: check `worker` before calling). Returns -1, with the
 * block unchanged, when no diagnosis is available (is_diag_avaliable 0:
 * permit taken, memory or CPU alarm; checked for uploads too), the action
 * is unknown, or the thread cannot be started.
 *
 * State: action 0 sets `state` EXEC_RUNNING; the worker ends with
 * EXEC_DONE, or EXEC_IDLE when its path could not start. Action 1 sets
 * EXEC_UPLOADING; the worker ends with EXEC_UPLOADED or EXEC_UPLOAD_FAIL
 * and then writes `file_name`. `worker` is non-zero until the worker
 * ends, and is cleared after every other field.
 * Permit: the worker's first path step takes it and its "end" step gives
 * it back; an upload does not touch it.
 */
ZQ_EXPORT int diagnose_set(void);

/*
 * run_spec_entire_diag - run a whole diagnosis of @mode (as diagnose_set)
 * in the calling thread, which blocks until the path ends (seconds to
 * minutes: pings, captures). run_spec_entire_fix - the same for a repair
 * (@mode 0: no filter).
 *
 * Return -1 when no diagnosis is available (is_diag_avaliable 0), else 0,
 * also when the permit was taken by someone else before the first step
 * (then no step runs). Permit: taken at the first step, given back at the
 * "end" step. Do not run them while a worker of g_diag_exec runs: they
 * share the record chain and buffers. The control block is not touched.
 */
ZQ_EXPORT int run_spec_entire_diag(uint32_t mode);
ZQ_EXPORT int run_spec_entire_fix(uint32_t mode);

/*
 * zq_intact_diag_run - run one step chosen by a path search: clear
 * zq_diag_msg, signal the diagnosis manager, run the step's action with
 * @step->result as result word, write "METHOD processing fail" at
 * DIAG_MSG_ERROR when the action failed, and append the step's findings
 * to /tmp/diag_file/diag_log. Blocks the calling thread for the step.
 * Running the "end" step gives the permit back when this process took it.
 * Always returns -1: the outcome is in zq_diag_msg and @step->result.
 */
ZQ_EXPORT int zq_intact_diag_run(zq_diag_step *step);

/*
 * zq_diag_path_search - choose the next step of a diagnosis.
 *
 * @step: zeroed to start a run; afterwards the step the last call chose.
 *
 * A run's first call takes the permit (returns 0 when it cannot: the run
 * does not start), prepares /tmp/diag_file/ (removing the previous logs
 * and capture) and empties the record chain. Every call names the next
 * step whose method passes the mode's filter (installed by
 * run_spec_entire_diag) and whose condition, read from the records stored
 * so far, holds; writes its name to zq_running_method; returns 1. The last
 * step is always "end" (the search first dumps the records into the log);
 * after it, returns 0. Loop: while (zq_diag_path_search(&s) == 1)
 * zq_intact_diag_run(&s);
 */
ZQ_EXPORT int zq_diag_path_search(zq_diag_step *step);

/*
 * zq_fix_path_search - choose the next step of a repair: as
 * zq_diag_path_search, but it reads the records of the last diagnosis
 * (the chain is not emptied and nothing is gathered anew), runs ACTION_FIX
 * steps ("sys_status", "pon_status") and ends with "end". 1 when @step
 * names the next step, 0 when the path is over or the permit was refused.
 */
ZQ_EXPORT int zq_fix_path_search(zq_diag_step *step);

/*
 * is_zq_fix_available - 1 when the records of the last diagnosis show a
 * fault a repair acts on (a system fault other than high memory or CPU
 * load, such as a dropped daemon or a duplicate DHCP server; a LAN DHCP
 * fault other than a stopped server), else 0.
 * Reads the record chain: not while a diagnosis of this process runs.
 */
ZQ_EXPORT int is_zq_fix_available(void);

/* Diagnosis files */

/*
 * zq_packet_diag_file - gather the evidence (serial log, capture, OMCI log
 * on GPON with PON debugging on, firewall and configuration listings) into
 * /tmp/diag_file/ and pack the files that exist into
 * /tmp/diag_file/diag_log.tar, replacing an older one. Blocks for the
 * commands. Returns 0 when the archive was written, -1 when there was
 * nothing to pack, the file list did not fit or tar failed (no archive is
 * left then). Call it before asking for the diagnosis upload (action 1 of
 * diagnose_set), whose worker packs again only after it has chosen the
 * file to send.
 */
ZQ_EXPORT int zq_packet_diag_file(void);

/*
 * zq_clear_diag_file - remove what the package gathered (serial log, OMCI
 * log, listings, the archive and /tmp/diag_file/capture.pcap); the logs
 * stay. Returns -1 when /tmp/diag_file/capture.pcap did not exist, else
 * the shell status of its removal. The diagnosis upload worker calls it
 * after the transfer.
 */
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

/*
 * PON helpers, each asking the gateway's PON tools (blocking; they use
 * zq_cmd_result_buff):
 * get_pon_debug_flag - the PON debug logging switch as a number (0 off).
 * set_pon_debug_flag - switch it on (@on non-zero) or off (0); returns the
 *   shell status of its last command. Off on GPON removes /tmp/omcilog.par.
 * is_pon_auth_normal - 1 when the PON state reads "NORMAL" (registered),
 *   else 0.
 */
ZQ_EXPORT int get_pon_debug_flag(void);
ZQ_EXPORT int set_pon_debug_flag(int on);
ZQ_EXPORT int is_pon_auth_normal(void);

/* Packet capture */

/*
 * capture_set - act on g_cap_exec.
 *
 * Call from one thread of the management process after filling the block.
 *   action 1 (start): take the permit and start tcpdump on interface
 *     `kind` (0 "any", N the interface of WAN N + 1). mode 0: one file of
 *     at most 5000 packets; mode 1 (rotate): two files of the allowance's
 *     size, each finished file uploaded at once to `url` (as cap_0.pcap,
 *     cap_1.pcap, ...) through the WAN of `wan_mask`, after a 16-byte
 *     "transport_test" file shows the server is reachable.
 *   action 0 (stop): only while `state` is EXEC_RUNNING: stop this
 *     capture's tcpdump and pack /tmp/capture_file/capture.tar.
 *   action 2 (upload, mode 0 only): upload capture.tar as action 1 of
 *     diagnose_set does for the diagnosis archive.
 *
 * Returns 0 when the request was carried out, and also when a worker of
 * this block is busy (nothing done, "capture execution is busy" printed)
 * or a stop finds nothing running. Returns -1 when the permit is refused,
 * tcpdump cannot start (the permit is given back), a capture already runs
 * (start) or still runs (upload), an upload is asked in rotate mode, or
 * the action is unknown.
 *
 * State: start sets EXEC_RUNNING; stop sets EXEC_DONE (mode 0) or
 * EXEC_IDLE (mode 1); upload sets EXEC_UPLOADING, then the worker
 * EXEC_UPLOADED or EXEC_UPLOAD_FAIL and `file_name`. A rotate capture
 * whose server is unreachable, or whose tcpdump ends, goes back to
 * EXEC_IDLE by itself. Permit: taken at start, given back at stop only
 * when this process still holds it. If the capture's tcpdump has died and
 * another tcpdump runs, a stop leaves both that tcpdump and the permit
 * alone and only records EXEC_DONE.
 */
ZQ_EXPORT int capture_set(void);

/*
 * capture_abnormal_get - poll for a dead capture.
 *
 * Returns -1 when the last request was a start and no tcpdump runs any
 * more (the packet count was reached, or it was killed): then sets
 * `action` 0 and `state` EXEC_DONE. Returns 0 otherwise. It does not give
 * the permit back nor pack the files: a dead capture still holds the
 * permit, and giving it back (release_diag_permit, once the management
 * process knows that capture still holds it) is the caller's decision.
 */
ZQ_EXPORT int capture_abnormal_get(void);

/*
 * zq_get_tcpdump_file - start tcpdump for @req (see tcpdump_req) in the
 * background, into /tmp/capture_file/ (created when missing; an old
 * capture.pcap there empties the directory first). Waits up to 3 s for
 * tcpdump to show up; with a `catch_time` it then captures that long and
 * stops it. Returns 0 on success, -1 when a tcpdump already runs, the
 * allowance is 0 (also a DIAG_MSG_WARN finding), a field is invalid or
 * tcpdump did not start. Does not take the permit: callers outside a
 * capture_set capture should hold it.
 */
ZQ_EXPORT int zq_get_tcpdump_file(tcpdump_req req);

/*
 * stop_tcpdump_catch - stop every running tcpdump, whoever started it,
 * and wait 300 ms for it to close its file. Returns 0. Does not touch the
 * permit or the capture block.
 */
ZQ_EXPORT int stop_tcpdump_catch(void);

/*
 * packet_capture_file - pack the finished capture (capture.pcap, or the
 * rotating capture.pcap0/1 as capture0.pcap and capture1.pcap) into
 * /tmp/capture_file/capture.tar and remove the packed files. Returns the
 * archive's size in bytes, -1 when there was nothing to pack or packing
 * failed (the capture files are kept then). Call it after tcpdump stopped.
 */
ZQ_EXPORT long packet_capture_file(void);

/* zq_get_file_size - size of the file at @path in bytes; 0 when it is
 * missing, unreadable or @path is null (an empty file looks the same). */
ZQ_EXPORT long zq_get_file_size(const char *path);

/* get_max_size_of_tcpdump_file - the capture allowance in million bytes,
 * 0 to 3: the number in /tmp/max_size_of_tcpdump_file, 3 when the file is
 * missing or says more. 0 forbids every capture. */
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
