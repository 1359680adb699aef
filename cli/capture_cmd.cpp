#include "capture_cmd.hpp"

#include <cstdio>
#include <ctime>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "capture/capture.h"
#include "console.hpp"
#include "diag_run.hpp"
#include "engine/util.h"
#include "exit_codes.hpp"
#include "records/records.h"
#include "upload_run.hpp"
#include "zq_diag.h"

namespace zqcli {

const OptionDef CAPTURE_OPTIONS[8] = {
    {"mode", 0, "single|rotate", "start: one file of up to 5000 packets (default), or two rotating files"},
    {"interface", 0, "N", "start: 0 all interfaces (default), N the interface of WAN N + 1"},
    {"detach", 0, nullptr, "start: leave the capture running and return"},
    URL_OPTION,
    PROTOCOL_OPTION,
    WAN_OPTION,
    UPLOAD_TIMEOUT_OPTION,
    {"help", 'h', nullptr, "show this help"},
};

namespace {

enum : uint32_t { ACTION_STOP = 0, ACTION_START = 1, CAPTURE_UPLOAD = 2 };
constexpr uint32_t MAX_INTERFACE_INDEX = 8;
constexpr useconds_t POLL_US = 200000;
// Rotate mode's end (its wait for running transfers included) takes a few
// seconds; the tool waits this long for the library's threads at most.
constexpr int CHAIN_END_POLLS = 100;

struct CaptureFile {
    const char *path;
    const char *label;
};
constexpr CaptureFile CAPTURE_FILES[] = {
    {zq::ZQ_CAPTURE_PCAP, "capture.pcap"},   {zq::ZQ_CAPTURE_PCAP0, "capture.pcap0"},
    {zq::ZQ_CAPTURE_PCAP1, "capture.pcap1"}, {zq::ZQ_CAPTURE_TAR, "capture.tar"},
    {zq::ZQ_CAPTURE_PARSE, "capture_parse"},
};

bool tcpdump_running() { return zq_get_pid("tcpdump") != 0; }

// ---- The capture zqdiag started -------------------------------------------
// The permit has no owner. So that a later zqdiag (or this one, after the
// library's watchdog reported the capture dead) can tell whether a taken
// permit is still the one its capture took, `capture start` notes the
// capture's tcpdump and the time it started in a small file.
constexpr const char *CAPTURE_RECORD = "/var/run/zqdiag.capture";

struct CaptureRecord {
    unsigned long long pid = 0; // its tcpdump
    unsigned mode = 0;
    long long started_s = 0; // the wall clock just before the start
    long long started_ns = 0;
};

// "PID MODE SECONDS NANOSECONDS": anything else is no record.
std::optional<CaptureRecord> parse_capture_record(const std::string &text) {
    std::istringstream in(text);
    CaptureRecord record;
    std::string rest;
    if (!(in >> record.pid >> record.mode >> record.started_s >> record.started_ns) || (in >> rest))
        return std::nullopt;
    if (record.pid == 0 || record.mode > 1 || record.started_ns < 0 || record.started_ns >= 1000000000)
        return std::nullopt;
    return record;
}

std::optional<CaptureRecord> read_capture_record() {
    std::ifstream file(CAPTURE_RECORD);
    if (!file) return std::nullopt;
    std::string text(256, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    return parse_capture_record(text);
}

void write_capture_record(const CaptureRecord &record) {
    std::ofstream file(CAPTURE_RECORD, std::ios::trunc);
    file << record.pid << ' ' << record.mode << ' ' << record.started_s << ' ' << record.started_ns << '\n';
    if (!file)
        warn("cannot write %s: a later 'zqdiag capture status' cannot free this capture's permit",
             CAPTURE_RECORD);
}

void remove_capture_record() { unlink(CAPTURE_RECORD); }

// True while `pid` lives and is tcpdump (a zombie is dead).
bool tcpdump_alive(unsigned long long pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    return std::getline(file, stat) && zq::stat_names_live(stat, "tcpdump");
}

// Whether `path` was changed after the capture started (false when absent).
bool changed_since(const char *path, const CaptureRecord &record) {
    struct stat st {};
    if (stat(path, &st) != 0) return false;
    const auto s = static_cast<long long>(st.st_mtim.tv_sec), ns = static_cast<long long>(st.st_mtim.tv_nsec);
    return s > record.started_s || (s == record.started_s && ns > record.started_ns);
}

// A dead capture was the permit's holder when the permit is still taken,
// no tcpdump runs (no other capture is under way) and no diagnosis has
// started since the capture did (every diagnosis clears /tmp/diag_file/ at
// its first step, and a capture never writes there). A permit freed and
// taken again by another process in between cannot pass all three.
// Empty when it was the holder, else why it cannot be shown.
std::string why_not_holder(const CaptureRecord &record) {
    if (!is_diag_permit_holding()) return "the permit is free already";
    if (tcpdump_running()) return "another capture runs now";
    if (changed_since(zq::ZQ_DIAG_DIR, record) || changed_since(zq::ZQ_DIAG_LOG_PATH, record))
        return "a diagnosis has started since the capture did";
    return {};
}

// The capture zqdiag started ended by itself: its permit is given back and
// what it captured packed, when it can be shown that it still held the
// permit; otherwise both are left to whoever holds the permit now.
void finish_dead_capture(const CaptureRecord &record) {
    const std::string why = why_not_holder(record);
    remove_capture_record();
    if (!why.empty()) {
        say("the permit is left as it is: %s\n", why.c_str());
        return;
    }
    if (release_diag_permit() == 0)
        say("its permit was given back\n");
    else
        warn("giving the permit back failed");
    if (record.mode == 0) packet_capture_file();
}

CaptureRecord start_record(unsigned mode) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    CaptureRecord record;
    record.mode = mode;
    record.started_s = now.tv_sec;
    record.started_ns = now.tv_nsec;
    return record;
}

long captured_bytes() {
    return zq_get_file_size(CAPTURE_FILES[0].path) + zq_get_file_size(CAPTURE_FILES[1].path) +
           zq_get_file_size(CAPTURE_FILES[2].path);
}

// The live count: rewritten in place on a terminal, else one line each
// time it changes.
void show_count(long bytes, long &shown) {
    if (console().out_is_tty) {
        progress("\r  captured %ld bytes ", bytes);
        console_flush();
    } else if (bytes != shown) {
        progress("  captured %ld bytes\n", bytes);
    }
    shown = bytes;
}

void show_archive() {
    const long size = zq_get_file_size(zq::ZQ_CAPTURE_TAR);
    if (size > 0)
        say("archive: /tmp/capture_file/capture.tar (%ld bytes)\n", size);
    else
        warn("nothing was packed: the capture holds no packet");
}

// Rotate mode uploads from threads of this process, and its end stops and
// removes the capture files and the upload route: the tool stays until
// those threads have ended, or they would die with it half way.
void wait_for_rotate_end(const CaptureRecord &record) {
    if (record.mode != 1) return;
    int polls = 0;
    for (; polls < CHAIN_END_POLLS && zq::count_rotate_threads() > 0; ++polls) usleep(POLL_US);
    if (polls == CHAIN_END_POLLS)
        warn("rotate mode's upload threads did not end in time; leaving them behind");
    else
        say("rotate mode ended: its files sent and removed, the upload route deleted\n");
}

// Follows a running capture until it ends by itself or the user stops it.
int follow(const CaptureRecord &record, long &shown) {
    if (!console().out_is_tty) progress("capturing; stop with Ctrl-C or 'zqdiag capture stop'\n");
    while (!g_interrupted) {
        show_count(captured_bytes(), shown);
        if (capture_abnormal_get() != 0) {
            if (console().out_is_tty) say("\n");
            say("the capture ended by itself (tcpdump is gone)\n");
            wait_for_rotate_end(record);
            finish_dead_capture(record);
            if (record.mode == 0) show_archive();
            return EXIT_OK;
        }
        usleep(POLL_US);
    }
    if (console().out_is_tty) say("\n");
    g_cap_exec.action = ACTION_STOP;
    capture_set();
    remove_capture_record();
    say("capture stopped, %ld bytes captured\n", shown);
    // Rotate mode's end removes what the stop packed: its files went to the
    // server as they finished.
    if (record.mode == 1) {
        wait_for_rotate_end(record);
        return EXIT_OK;
    }
    show_archive();
    return EXIT_OK;
}

int capture_start(const Command &self, const ParsedArgs &args) {
    uint32_t mode = 0;
    if (const std::string *value = args.value("mode")) {
        if (*value != "single" && *value != "rotate") return usage_error(self, "bad mode '" + *value + "'");
        mode = *value == "rotate" ? 1 : 0;
    }
    uint32_t kind = 0;
    if (const std::string *value = args.value("interface")) {
        auto number = parse_number(*value, 0, MAX_INTERFACE_INDEX);
        if (!number) return usage_error(self, "bad interface '" + *value + "' (0 to 8)");
        kind = *number;
    }
    // Rotate mode sends every finished file to the server at once: it
    // needs the server, the protocol and the WAN of an upload.
    if (mode == 1) {
        if (args.has("detach"))
            return usage_error(self, "--detach does not go with rotate: its uploads run in this process");
        UploadRequest request;
        int status = EXIT_OK;
        if (!read_upload_options(self, args, request, status)) return status;
        snprintf(g_cap_exec.url, sizeof(g_cap_exec.url), "%s", request.url.c_str());
        g_cap_exec.protocol = request.protocol;
        g_cap_exec.wan_mask = request.wan ? static_cast<uint8_t>(1u << (request.wan - 1)) : 0;
    }
    g_cap_exec.mode = mode;
    g_cap_exec.kind = kind;
    g_cap_exec.action = ACTION_START;
    CaptureRecord record = start_record(mode);
    if (capture_set() != 0) {
        warn("the capture did not start (a diagnosis or capture holds the permit, tcpdump is\n"
             "already running, the allowance is 0, or the interface is not valid; -v shows why)");
        return is_diag_permit_holding() ? EXIT_UNAVAILABLE : EXIT_FINDING_ERROR;
    }
    record.pid = zq_get_pid("tcpdump");
    write_capture_record(record);
    say("capture started on %s\n",
        kind == 0 ? "all interfaces" : ("the interface of WAN " + std::to_string(kind + 1)).c_str());
    long shown = -1;
    if (args.has("detach")) {
        say("left running; stop it with 'zqdiag capture stop'\n");
        return EXIT_OK;
    }
    return follow(record, shown);
}

// Stops a capture started by this or another process. The permit is given
// back only for a capture that zqdiag started and whose tcpdump ran until
// this stop: that capture holds it. A capture started by another
// management process is stopped and packed, and its permit left to it.
int capture_stop() {
    const std::optional<CaptureRecord> record = read_capture_record();
    const bool ours = record && tcpdump_alive(record->pid);
    if (!tcpdump_running()) {
        if (record) {
            say("the capture zqdiag started has ended by itself (tcpdump is gone)\n");
            finish_dead_capture(*record);
            show_archive();
        } else {
            say("no capture is running\n");
        }
        return EXIT_OK;
    }
    long shown = -1;
    show_count(captured_bytes(), shown);
    if (console().out_is_tty) say("\n");
    stop_tcpdump_catch();
    packet_capture_file();
    say("capture stopped, %ld bytes captured\n", shown);
    if (ours) {
        remove_capture_record();
        if (release_diag_permit() != 0) warn("giving the permit back failed");
    } else {
        say("it was not started by zqdiag: its permit is left to the process that started it\n"
            "('zqdiag permit release' frees it)\n");
    }
    show_archive();
    return EXIT_OK;
}

int capture_status() {
    // A capture zqdiag started that died is noticed through the library's
    // watchdog, as a management process notices it, and finished here.
    if (const std::optional<CaptureRecord> record = read_capture_record();
        record && !tcpdump_alive(record->pid)) {
        g_cap_exec.mode = record->mode;
        g_cap_exec.action = ACTION_START;
        g_cap_exec.state = EXEC_RUNNING;
        say("the capture zqdiag started has ended by itself (tcpdump is gone)\n");
        if (capture_abnormal_get() != 0) {
            finish_dead_capture(*record);
        } else {
            say("another capture runs now: the permit is left to it\n");
            remove_capture_record();
        }
    }
    const bool running = tcpdump_running();
    const bool permit = is_diag_permit_holding() != 0;
    const char *state = running                                    ? "capturing"
                        : zq_get_file_size(zq::ZQ_CAPTURE_TAR) > 0 ? "stopped, packed"
                                                                   : "idle";
    say("state: %s\n", state);
    say("tcpdump: %s\n", running ? "running" : "not running");
    say("permit: %s\n", permit ? "taken" : "free");
    say("files in /tmp/capture_file/:\n");
    bool any = false;
    for (const CaptureFile &file : CAPTURE_FILES) {
        if (access(file.path, F_OK) != 0) continue;
        say("  %-14s %ld bytes\n", file.label, zq_get_file_size(file.path));
        any = true;
    }
    if (!any) say("  none\n");
    return EXIT_OK;
}

// Uploads the archive a stopped capture left, through the capture block's
// upload action.
int capture_upload(const Command &self, const ParsedArgs &args) {
    UploadRequest request;
    int status = EXIT_OK;
    if (!read_upload_options(self, args, request, status)) return status;
    print_upload_title("the capture archive", request);
    const long size = zq_get_file_size(zq::ZQ_CAPTURE_TAR);
    if (size > 0) say("  archive /tmp/capture_file/capture.tar (%ld bytes)\n", size);
    return run_upload({"the capture archive", &g_cap_exec, CAPTURE_UPLOAD, capture_set}, request);
}

} // namespace

int run_capture(const Command &self, const ParsedArgs &args) {
    if (args.positionals.size() != 1)
        return usage_error(self, "name one action: start, stop, status or upload");
    const std::string &action = args.positionals.front();
    if (action != "start" && (args.has("mode") || args.has("interface") || args.has("detach")))
        return usage_error(self, "--mode, --interface and --detach go with start");
    const bool rotate_start = action == "start" && args.value("mode") && *args.value("mode") == "rotate";
    if (action != "upload" && !rotate_start &&
        (args.has("url") || args.has("protocol") || args.has("wan") || args.has("timeout")))
        return usage_error(self, "--url, --protocol, --wan and --timeout go with upload (and --url, "
                                 "--protocol and --wan with start --mode rotate)");
    if (rotate_start && args.has("timeout")) return usage_error(self, "--timeout goes with upload");
    if (action == "start") return capture_start(self, args);
    if (action == "stop") return capture_stop();
    if (action == "status") return capture_status();
    if (action == "upload") return capture_upload(self, args);
    return usage_error(self, "unknown capture action '" + action + "' (start, stop, status or upload)");
}

} // namespace zqcli
