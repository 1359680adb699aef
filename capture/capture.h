// Internal interface of packet capture: starting and stopping tcpdump,
// packing and decoding its files, the capture of a WAN restart for the
// protocol methods, and the checks that outside text passes before it goes
// into a tcpdump or grep command line. The exported entry points are in
// zq_diag.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "engine/files.h"
#include "engine/outside_text.h"
#include "zq_diag.h"

namespace zq {

constexpr const char *ZQ_CAPTURE_ALLOWANCE = "/tmp/max_size_of_tcpdump_file";

enum : uint32_t { CAPTURE_MODE_SINGLE = 0, CAPTURE_MODE_ROTATE = 1 };
constexpr uint64_t ZQ_MAX_CATCH_COUNT = 5000;
constexpr uint64_t ZQ_MAX_ALLOWANCE = 3;
// Rotate mode's threads (the start, the watcher, the uploader and the end)
// carry names that begin so: rotate mode has ended once no thread of the
// process does.
constexpr const char *ZQ_ROTATE_THREAD_PREFIX = "zq_rotate";
// How many threads of the calling process carry one of those names (a
// caller waiting for rotate mode to end counts them).
inline int count_rotate_threads() {
    DIR *tasks = opendir("/proc/self/task");
    if (!tasks) return 0;
    int count = 0;
    const size_t prefix = strlen(ZQ_ROTATE_THREAD_PREFIX);
    while (const dirent *entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') continue;
        char path[64];
        snprintf(path, sizeof(path), "/proc/self/task/%.20s/comm", entry->d_name);
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        char name[32] = {};
        const ssize_t n = read(fd, name, sizeof(name) - 1);
        close(fd);
        if (n >= static_cast<ssize_t>(prefix) && strncmp(name, ZQ_ROTATE_THREAD_PREFIX, prefix) == 0) ++count;
    }
    closedir(tasks);
    return count;
}

// The user capture described by g_cap_exec (mode, kind): 0 when it runs.
int start_tcpdump_process();
// The tcpdump of the user capture: noted once it runs, so that the
// capture's end points can tell it from a tcpdump someone else started
// after it died. user_capture_alive is true while that process lives.
void note_user_capture();
void forget_user_capture();
bool user_capture_alive();
// Capture interface index to interface name: 0 is "any", n the interface
// of WAN n + 1 (as the diagnosis manager names it). Always 0.
int convert_interface(uint32_t index, char *out, uint64_t size);
// The rotate-mode branch of start_tcpdump_process: `req` is cleared, its
// interface filled. 0 when the rotating capture and its upload run.
int start_rotate_capture(tcpdump_req req);
// Waits (at most 3 s) until a tcpdump process exists: 0, or -1.
int check_tcpdump_run();
// Decodes capture.pcap through one of the library's decode filters into
// capture_parse (see is_decode_filter).
void get_tcpdump_parse(const char *filter);
// 1 when some line of capture_parse contains `text` (a plain word).
int grep_tcpdump_parse(const char *text);
// Captures the traffic of a WAN restart into capture.pcap, once per
// diagnosis: 0, or -1 when the capture could not start.
int zq_diag_capture(const void *record);

// ---- Checks of outside text ------------------------------------------------
// A caller's tcpdump expression goes into the command line as one
// single-quoted shell word (an embedded quote written as '\''), so every
// expression reaches tcpdump whole and the shell acts on none of it. See
// filter_check.cpp.
//
// The expression a filter stands for: a filter wrapped whole in single
// quotes (the first and last character are quotes, no other quote between
// them) without its quotes, any other filter as it stands.
std::string_view unwrap_capture_filter(std::string_view filter);
// Why no tcpdump expression can be `filter` (a control character, or an
// expression that begins with '-' after its blanks, which tcpdump would
// read as an option); nullptr when it may go to tcpdump.
const char *capture_filter_refusal(std::string_view filter);
// Writes the expression of `filter` into `out` as one shell word, or
// nothing at all for an empty expression. False when the filter is refused
// (see above) or the word and its terminator do not fit in `size` bytes;
// `out` is then empty. No allocation; `out` is written within `size`.
bool quote_capture_filter(std::string_view filter, char *out, size_t size);
// The command line that starts tcpdump for `req` (its interface already
// checked). False, with a log line, when the filter is refused or the
// line does not fit in `cmd`.
constexpr size_t ZQ_TCPDUMP_COMMAND_SIZE = 128;
bool build_tcpdump_command(const tcpdump_req &req, char (&cmd)[ZQ_TCPDUMP_COMMAND_SIZE]);
// One of the library's own decode filters (options and expression).
bool is_decode_filter(std::string_view filter);

// The decode filters of the protocol methods: the whole DHCP or PPPoE
// traffic with link-level headers, and the traffic of one interface index
// (received by or sent by this host) without them.
constexpr const char *DHCP_DECODE_FILTER = "-tve '(udp and port 67 and port 68)'";
constexpr const char *PPPOE_DECODE_FILTER = "-vte 'pppoed or pppoes'";
constexpr const char *DHCP_IFINDEX_FILTER =
    "-tv \" (ether[10:1]==0x00 or ether[10:1]==0x04 ) and  (ether[4:4] == %d ) and (udp and port 67 and port "
    "68)\" ";
constexpr const char *PPPOE_IFINDEX_FILTER =
    "-tv \" (ether[10:1]==0x00 or ether[10:1]==0x04 ) and (ether[4:4] == %d ) and (pppoed or pppoes)\" ";

// The interface index of a decoded line with link-level header ("nas0_0
// Out ifindex 3 ..."): its fourth word read as atoi reads it, 0 when there
// is none.
int interface_index_of(const char *line);

// Narrows capture_parse to the packets of interface `name` with
// `ifindex_filter` (one of the two above): 0, or -1 when the name is not a
// plain interface name or its first decoded line gives the index 0.
int filter_special(const char *name, const char *ifindex_filter);

} // namespace zq
