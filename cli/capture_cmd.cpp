#include "capture_cmd.hpp"

#include <cstdio>
#include <string>
#include <unistd.h>

#include "console.hpp"
#include "diag_run.hpp"
#include "exit_codes.hpp"
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

struct CaptureFile {
    const char *path;
    const char *label;
};
constexpr CaptureFile CAPTURE_FILES[] = {
    {"/tmp/capture_file/capture.pcap", "capture.pcap"},
    {"/tmp/capture_file/capture.pcap0", "capture.pcap0"},
    {"/tmp/capture_file/capture.pcap1", "capture.pcap1"},
    {"/tmp/capture_file/capture.tar", "capture.tar"},
    {"/tmp/capture_file/capture_parse", "capture_parse"},
};

bool tcpdump_running() { return zq_get_pid("tcpdump") != 0; }

long captured_bytes() {
    return zq_get_file_size(CAPTURE_FILES[0].path) + zq_get_file_size(CAPTURE_FILES[1].path) +
           zq_get_file_size(CAPTURE_FILES[2].path);
}

// The live count: rewritten in place on a terminal, else one line each
// time it changes.
void show_count(long bytes, long &shown) {
    if (console().out_is_tty) {
        say("\r  captured %ld bytes ", bytes);
        console_flush();
    } else if (bytes != shown) {
        say("  captured %ld bytes\n", bytes);
    }
    shown = bytes;
}

void show_archive() {
    const long size = zq_get_file_size("/tmp/capture_file/capture.tar");
    if (size > 0)
        say("archive: /tmp/capture_file/capture.tar (%ld bytes)\n", size);
    else
        warn("nothing was packed: the capture holds no packet");
}

// Follows a running capture until it ends by itself or the user stops it.
int follow(long &shown) {
    if (!console().out_is_tty) say("capturing; stop with Ctrl-C or 'zqdiag capture stop'\n");
    while (!g_interrupted) {
        show_count(captured_bytes(), shown);
        if (capture_abnormal_get() != 0) {
            if (console().out_is_tty) say("\n");
            say("the capture ended by itself (tcpdump is gone)\n");
            show_archive();
            return EXIT_OK;
        }
        usleep(POLL_US);
    }
    if (console().out_is_tty) say("\n");
    g_cap_exec.action = ACTION_STOP;
    capture_set();
    say("capture stopped, %ld bytes captured\n", shown);
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
    g_cap_exec.mode = mode;
    g_cap_exec.kind = kind;
    g_cap_exec.action = ACTION_START;
    if (capture_set() != 0) {
        warn("the capture did not start (a diagnosis or capture holds the permit, tcpdump is\n"
             "already running, the allowance is 0, or the interface is not valid; -v shows why)");
        return is_diag_permit_holding() ? EXIT_UNAVAILABLE : EXIT_FINDING_ERROR;
    }
    say("capture started on %s\n",
        kind == 0 ? "all interfaces" : ("the interface of WAN " + std::to_string(kind + 1)).c_str());
    long shown = -1;
    if (args.has("detach")) {
        say("left running; stop it with 'zqdiag capture stop'\n");
        return EXIT_OK;
    }
    return follow(shown);
}

// Stops a capture started by this or another process: the block is told
// that a capture runs, in the mode its files show.
int capture_stop() {
    if (!tcpdump_running()) {
        say("no capture is running\n");
        return EXIT_OK;
    }
    long shown = -1;
    show_count(captured_bytes(), shown);
    if (console().out_is_tty) say("\n");
    g_cap_exec.mode = zq_get_file_size(CAPTURE_FILES[1].path) > 0 ? 1 : 0;
    g_cap_exec.state = EXEC_RUNNING;
    g_cap_exec.action = ACTION_STOP;
    capture_set();
    say("capture stopped, %ld bytes captured\n", shown);
    show_archive();
    return EXIT_OK;
}

int capture_status() {
    const bool running = tcpdump_running();
    const bool permit = is_diag_permit_holding() != 0;
    const char *state = running                                                 ? "capturing"
                        : zq_get_file_size("/tmp/capture_file/capture.tar") > 0 ? "stopped, packed"
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
    const long size = zq_get_file_size("/tmp/capture_file/capture.tar");
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
    if (action != "upload" &&
        (args.has("url") || args.has("protocol") || args.has("wan") || args.has("timeout")))
        return usage_error(self, "--url, --protocol, --wan and --timeout go with upload");
    if (action == "start") return capture_start(self, args);
    if (action == "stop") return capture_stop();
    if (action == "status") return capture_status();
    if (action == "upload") return capture_upload(self, args);
    return usage_error(self, "unknown capture action '" + action + "' (start, stop, status or upload)");
}

} // namespace zqcli
