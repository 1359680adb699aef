// Internal interface of the upload subsystem: the transfer of one file to a
// TFTP or FTP server, the naming of the archives, the upload workers of the
// two control blocks, and the checks that keep outside text out of shells.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "engine/engine.h"
#include "upload/upload_words.h"
#include "zq_diag.h"

namespace zq {

// ---- File upload -----------------------------------------------------------
int zq_file_upload(upload_params p);
int wput_url_parse(upload_params *p);
// The parser with the name resolution passed in (wput_url_parse passes
// resolve_host, which asks the system's resolver for a name).
using host_resolver = int (*)(std::string_view name, char (&out)[sizeof(upload_params::host)]);
int parse_upload_url(upload_params *p, host_resolver resolve);
int resolve_host(std::string_view name, char (&out)[sizeof(upload_params::host)]);
int url_add_slash(upload_params *p);
int upload_action(upload_params *p);
int tftp_upload(upload_params *p);
int ftp_upload(upload_params *p);
int wput_upload(upload_params *p);
int run_ftp_sh(upload_params *p);
int add_upload_route(upload_params *p);
int del_upload_route(upload_params *p);
constexpr const char *ZQ_FTP_SCRIPT_PATH = "/tmp/run_ftp.sh";

// ---- Naming and settings ---------------------------------------------------
// The upload workers, started by diagnose_set and capture_set with their
// block's worker as handle. Each detaches itself; at its end it sets the
// block's state (3 sent, 5 failed) and file_name, and clears worker.
// diagnose_upload, the worker of diagnose_set's upload action, is declared
// by the engine that starts it.
void *capture_upload(void *);
void diagnose_upload_setting(upload_params *p);
void capture_upload_setting(upload_params *p);
int zq_get_timestamps(char *out);
int is_time_synced();
int zq_get_month_num(const char *name);
int zq_rename_file_name(const char *src, char *dst, const char *stamp, uint32_t mode, uint64_t max_len);
// The renaming rule alone: the new full path of `src` with `stamp` in
// `dst` (128 bytes), 0; or -1 (logged) when the name cannot be made, `dst`
// then holding `src`.
int stamped_path(std::string_view src, std::string_view stamp, uint32_t mode, uint64_t max_len, char *dst);
int get_wan_index(uint8_t mask);
// Copies the control block's url into `p`. A url that fills all 64 bytes
// of its field without a terminator was cut by whoever wrote it: it is
// refused with a log line and `p.url` stays empty.
bool take_block_url(const char *caller, const diag_exec_ctl &block, upload_params &p);
int rotate_mode_init(tcpdump_req *req);
constexpr const char *ZQ_TIME_STATUS_PATH = "/tmp/timeStatus";
// The size `out` of zq_get_timestamps must have.
constexpr size_t ZQ_TIMESTAMP_SIZE = 100;
// Reads the timestamp from the text `date` printed; the parsing half of
// zq_get_timestamps. 0, or -1 with `out` untouched.
int timestamp_from_date(std::string_view date, char (&out)[ZQ_TIMESTAMP_SIZE]);

// ---- Outside text ------------------------------------------------------------
// The word classes are in upload/upload_words.h. `accept_upload_word`
// refuses, with a log line naming `field`, whatever is not one plain word of
// its class.
bool accept_upload_word(const char *caller, upload_word kind, const char *field, std::string_view text);

// Formats a shell command into `cmd`; a command that does not fit is refused
// with a log line (false), so a cut path or name is never run.
[[gnu::format(printf, 4, 5)]] bool format_cmd(const char *caller, char *cmd, size_t size, const char *fmt,
                                              ...);
#define ZQ_FORMAT_CMD(cmd, ...) ::zq::format_cmd(__func__, (cmd), sizeof(cmd), __VA_ARGS__)

} // namespace zq
