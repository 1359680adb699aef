// Internal interface of the diagnosis engine: method table and dispatch,
// command runner, message log, permit and guards, system queries, path
// searches and run control.
#pragma once

#include <cstdint>
#include <cstdio>

#include "zq_diag.h"

// ---- Method table --------------------------------------------------------
using zq_action_fn = int (*)(zq_diag_args args);
using zq_envoy_fn = int (*)(uint32_t action, zq_diag_args args);

struct zq_diag_method {
    char name[32];
    zq_action_fn raw_data;
    zq_action_fn get_struct;
    zq_action_fn diag;
    zq_action_fn fix;
    zq_envoy_fn envoy;
};

constexpr uint64_t ZQ_METHOD_COUNT = 12;
extern const zq_diag_method zq_method_table[ZQ_METHOD_COUNT];

int zq_get_sys_diag(const char *method, uint32_t action, zq_diag_args args);
int call_action_of_method(const char *method, uint32_t action, zq_diag_args args, uint64_t index);
int find_method_index(const char *method, uint64_t *index);

// Builds an argument block; in_size/out_size are the buffer sizes.
inline zq_diag_args zq_args(const void *in, uint64_t in_size, void *out, uint64_t out_size) {
    return zq_diag_args{in, out, in_size, out_size};
}

// ---- Validators (one per method, driven by one rule table) ---------------
int cmd_envoy(uint32_t action, zq_diag_args args);
int port_status_envoy(uint32_t action, zq_diag_args args);
int ping_envoy(uint32_t action, zq_diag_args args);
int wan_status_envoy(uint32_t action, zq_diag_args args);
int sys_status_envoy(uint32_t action, zq_diag_args args);
int pon_status_envoy(uint32_t action, zq_diag_args args);
int wan_params_envoy(uint32_t action, zq_diag_args args);
int dns_status_envoy(uint32_t action, zq_diag_args args);
int dhcp_config_envoy(uint32_t action, zq_diag_args args);
int pppoe_status_envoy(uint32_t action, zq_diag_args args);
int route_status_envoy(uint32_t action, zq_diag_args args);
int dhcp_status_envoy(uint32_t action, zq_diag_args args);

// ---- Command runner ------------------------------------------------------
int zq_get_cmd_raw_data(zq_diag_args args);
// Reads a command's output from `fd` to its end into `out`, as a 64-byte
// line buffer takes it (reads of at most 63 bytes ending at a newline, of
// each only the bytes before a NUL), keeping the newest `size` bytes; 0, or
// -1 when the ring could not be put in order.
int cmd_collect_output(int fd, char *out, uint64_t size);
// Appends "cmd: [cmd]\n", the output (at most output_size bytes, up to its
// first NUL) and "\n\n" to the command log.
void write_cmd_log(const char *cmd, const char *output, uint64_t output_size);
constexpr const char *ZQ_CMD_LOG_PATH = "/tmp/diag_file/cmd_log";
// Runs a shell command without reading its output (system()).
int zq_system(const char *cmd);

// ---- Message log ---------------------------------------------------------
extern uint64_t zq_diag_msg_offset;
[[gnu::format(printf, 2, 3)]] void zq_diag_msg_printf(uint32_t level, const char *format, ...);
// Empties the buffer at the start of a step.
void zq_diag_msg_reset();

// ---- Permit and guards ---------------------------------------------------
int release_permit();
namespace zq {
// The library's own release points (the "end" step, a capture's stop or
// failed start, the end of rotate mode) give the permit back only when this
// process took it and has not given it back since; otherwise they log a
// line naming `who` and leave the permit as it is. The post's result, or 0.
int release_own_permit(const char *who);
} // namespace zq
void *get_shm_space();
int read_diag_manager_pid();
void notify_diag_manager();
constexpr const char *ZQ_PERMIT_NAME = "diag_permit";
constexpr const char *ZQ_DIAGM_PID_PATH = "/var/run/diagM.pid";

// ---- System queries ------------------------------------------------------
const char *get_pon_info(const char *key);
int make_dir(const char *dir);

// ---- Path searches -------------------------------------------------------
void init_diag_path(uint32_t mode);
int custom_path(const char *names, uint64_t count);
int is_in_custom_path(const char *method);
void set_next_step(zq_diag_step *step, const char *method, uint32_t action);
constexpr uint64_t ZQ_CUSTOM_PATH_SLOTS = 32;
extern char custom_path_list[ZQ_CUSTOM_PATH_SLOTS][32];

int wan_status_condition();
int route_status_condition();
int dns_status_condition();
int pppoe_status_condition();
int dhcp_status_condition();
int wan_params_condition();
int sys_status_fix_condition();
int pon_status_fix_condition();
int dhcp_config_fix_condition();
