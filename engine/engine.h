// Internal interface of the diagnosis engine: method table and dispatch,
// command runner, message log, permit and guards, system queries, path
// searches and run control.
#pragma once

#include <cstdint>
#include <cstdio>

#include "engine/files.h"
#include "zq_diag.h"

namespace zq {

// ---- Methods and dispatch -----------------------------------------------
using zq_action_fn = int (*)(zq_diag_args args);
using zq_envoy_fn = int (*)(uint32_t action, zq_diag_args args);

// One entry of the method table: the name, the four action slots (raw data,
// structure, diagnosis, fix; empty where the method has no such action) and
// the validator. Descriptors name only the slots they fill.
struct zq_diag_method {
    char name[32] = {};
    zq_action_fn raw_data = nullptr;
    zq_action_fn get_struct = nullptr;
    zq_action_fn diag = nullptr;
    zq_action_fn fix = nullptr;
    zq_envoy_fn envoy = nullptr;
};

// A condition of a path search, read from the records the run stored so far:
// non-zero when the method is to be taken.
using condition_fn = int (*)();

// A method whole, as its own file describes it: its table entry and when the
// path searches take it. The engine names no method; it reaches them through
// the registry below, which the layer above assembles.
struct method_descriptor {
    zq_diag_method entry;
    condition_fn diag_when = nullptr; // on the diagnosis path (null: always)
    condition_fn fix_when = nullptr;  // on the fix path, and whether a repair is on offer
};

// A diagnosis mode's filter list (mode 0 and unknown modes: no filter), as
// indexes into the method table.
struct mode_filter {
    uint8_t count;
    uint8_t methods[3];
};

template <class T> struct table_view {
    const T *items;
    uint64_t count;
    const T *begin() const { return items; }
    const T *end() const { return items + count; }
};

// The paths name methods by their index in the table: plain bytes, which
// the shared object needs no relocation for.
struct method_registry {
    table_view<const method_descriptor *> table; // dispatch, by index
    table_view<uint8_t> diag_path;               // in the order taken
    table_view<uint8_t> fix_path;
    table_view<uint8_t> fix_offers; // is_zq_fix_available
    table_view<mode_filter> modes;  // indexed by mode
};
// Defined by the methods' layer (methods/method_table.cpp).
extern const method_registry registry;
// A path search's visited flags: one per method of the path and one for
// its end step.
constexpr uint64_t PATH_SLOTS = 32;

// The command runner's own method, through which every shell command with
// output is run (engine/cmd_runner.cpp), and its name.
extern const method_descriptor cmd_method;
inline constexpr const char *CMD_METHOD = cmd_method.entry.name;

// A validator's rules: what the argument block must hold for each of the
// four actions (actions above 3 always pass; the dispatcher refuses them).
enum : uint8_t {
    NEED_IN = 1,    // in_buf non-null
    NEED_OUT = 2,   // out_buf non-null
    IN_EXACT = 4,   // in_size == in
    IN_MIN = 8,     // in_size >= in
    OUT_EXACT = 16, // out_size == out
    OUT_MIN = 32,   // out_size >= out
};
struct envoy_rule {
    uint8_t checks;
    uint64_t in;
    uint64_t out;
};
using envoy_rules = envoy_rule[4];
constexpr envoy_rule ANY_BLOCK{0, 0, 0};
constexpr envoy_rule out_exact(uint64_t out) { return {NEED_OUT | OUT_EXACT, 0, out}; }
constexpr envoy_rule in_out_exact(uint64_t in, uint64_t out) {
    return {NEED_IN | NEED_OUT | IN_EXACT | OUT_EXACT, in, out};
}
constexpr envoy_rules OPEN_RULES = {ANY_BLOCK, ANY_BLOCK, ANY_BLOCK, ANY_BLOCK};
// 0 when the block satisfies the action's rule, -4 otherwise.
int envoy_check(const envoy_rules &rules, uint32_t action, const zq_diag_args &args);
// The validator of a method whose rules are `Rules`.
template <const envoy_rules &Rules> int envoy(uint32_t action, zq_diag_args args) {
    return envoy_check(Rules, action, args);
}

int zq_get_sys_diag(const char *method, uint32_t action, zq_diag_args args);
int call_action_of_method(const char *method, uint32_t action, zq_diag_args args, uint64_t index);
int find_method_index(const char *method, uint64_t *index);

// Builds an argument block; in_size/out_size are the buffer sizes.
inline zq_diag_args zq_args(const void *in, uint64_t in_size, void *out, uint64_t out_size) {
    return zq_diag_args{in, out, in_size, out_size};
}

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
// Runs a shell command without reading its output (system()).
int zq_system(const char *cmd);
// Removes `path` (one of the library's own files, never outside text) with
// "RM PATH" when it is there; RM is "rm", "rm -f" or "rm -rf".
void remove_if_present(const char *path, const char *rm = "rm");

// ---- Message log ---------------------------------------------------------
extern uint64_t zq_diag_msg_offset;
[[gnu::format(printf, 2, 3)]] void zq_diag_msg_printf(uint32_t level, const char *format, ...);
// Empties the buffer at the start of a step.
void zq_diag_msg_reset();

// ---- Permit and guards ---------------------------------------------------
int release_permit();
// The library's own release points (the "end" step, a capture's stop or
// failed start, the end of rotate mode) give the permit back only when this
// process took it and has not given it back since; otherwise they log a
// line naming `who` and leave the permit as it is. The post's result, or 0.
int release_own_permit(const char *who);
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

// ---- Provided by the layers above ----------------------------------------
// The records: a diagnosis run starts a new log and an empty chain, logs
// every step, and dumps the chain into the log before its end step.
void diag_file_init();
void clear_diag_chain();
void diag_log_record(zq_diag_step step);
void load_chain_data_in_log();
// The uploader: the worker of diagnose_set's upload action.
void *diagnose_upload(void *);

} // namespace zq
