#include "commands.hpp"

#include <cctype>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "capture_cmd.hpp"
#include "console.hpp"
#include "diag_run.hpp"
#include "engine/files.h"
#include "exit_codes.hpp"
#include "records_view.hpp"
#include "upload_run.hpp"
#include "zq_diag.h"

namespace zqcli {

namespace {

constexpr const char *PACKAGE_PATH = zq::ZQ_PACKAGE_PATH;
constexpr uint32_t MAX_MODE = 10;
constexpr uint32_t DEFAULT_TIMEOUT_S = 300;
constexpr uint32_t MAX_TIMEOUT_S = 86400;

constexpr const char *MODE_PATHS[MAX_MODE + 1] = {
    "the whole path",   "ports",           "PON",
    "PON, WAN",         "system",          "PON, WAN, WAN parameters",
    "PON, WAN, DNS",    "LAN DHCP server", "PON, WAN, PPPoE",
    "PON, WAN, routes", "ports, PON, WAN",
};

#define ZQ_MODES_HELP                                                                                        \
    "Diagnosis modes (--mode N) narrow the path to some methods:\n"                                          \
    "  0  the whole path (default)    6  PON, WAN, DNS\n"                                                    \
    "  1  ports                       7  LAN DHCP server configuration\n"                                    \
    "  2  PON                         8  PON, WAN, PPPoE\n"                                                  \
    "  3  PON, WAN                    9  PON, WAN, routes\n"                                                 \
    "  4  system                     10  ports, PON, WAN\n"                                                  \
    "  5  PON, WAN, WAN parameters\n"

constexpr OptionDef HELP_OPTION = {"help", 'h', nullptr, "show this help"};
constexpr OptionDef MODE_OPTION = {"mode", 0, "N", "diagnosis mode, 0 to 10 (default 0)"};
constexpr OptionDef TIMEOUT_OPTION = {"timeout", 0, "SECONDS",
                                      "give up a run after this long (default 300; 1 to 86400)"};

constexpr OptionDef DIAGNOSE_OPTIONS[] = {MODE_OPTION, TIMEOUT_OPTION, HELP_OPTION};
constexpr OptionDef REPAIR_OPTIONS[] = {
    {"mode", 0, "N", "mode of the diagnosis that precedes the repair (default 0)"},
    TIMEOUT_OPTION,
    HELP_OPTION};
constexpr OptionDef RECORDS_OPTIONS[] = {
    {"json", 0, nullptr, "print JSON instead of text"}, MODE_OPTION, TIMEOUT_OPTION, HELP_OPTION};
constexpr OptionDef HELP_ONLY[] = {HELP_OPTION};
constexpr OptionDef UPLOAD_OPTIONS[] = {URL_OPTION, PROTOCOL_OPTION, WAN_OPTION, UPLOAD_TIMEOUT_OPTION,
                                        HELP_OPTION};

// ---- Shared option handling -------------------------------------------------

bool no_positionals(const Command &self, const ParsedArgs &args, int &status) {
    if (args.positionals.empty()) return true;
    status = usage_error(self, "unexpected argument '" + args.positionals.front() + "'");
    return false;
}

// --mode and --timeout into `request`; false (with `status` 2) on bad input.
bool read_run_options(const Command &self, const ParsedArgs &args, RunRequest &request, int &status) {
    if (!no_positionals(self, args, status)) return false;
    request.timeout_s = DEFAULT_TIMEOUT_S;
    if (const std::string *mode = args.value("mode")) {
        auto number = parse_number(*mode, 0, MAX_MODE);
        if (!number) {
            status = usage_error(self, "bad mode '" + *mode + "' (a number from 0 to 10)");
            return false;
        }
        request.mode = *number;
    }
    if (const std::string *timeout = args.value("timeout")) {
        auto number = parse_number(*timeout, 1, MAX_TIMEOUT_S);
        if (!number) {
            status = usage_error(self, "bad timeout '" + *timeout + "' (seconds, from 1 to 86400)");
            return false;
        }
        request.timeout_s = *number;
    }
    return true;
}

void print_title(const std::string &title) { say("%s\n", paint(Paint::bold, title).c_str()); }

std::string mode_title(const char *what, uint32_t mode) {
    return std::string(what) + ", mode " + std::to_string(mode) + " (" + MODE_PATHS[mode] + ")";
}

// ---- diagnose ---------------------------------------------------------------

int run_diagnose(const Command &self, const ParsedArgs &args) {
    RunRequest request;
    int status = EXIT_OK;
    if (!read_run_options(self, args, request, status)) return status;
    print_title(mode_title("Diagnosis", request.mode));
    const RunResult result = run_diagnosis(request);
    if (result.end != RunEnd::finished) return exit_status_of(result.end);
    print_summary("Diagnosis", result.tally);
    return result.tally.errors() ? EXIT_FINDING_ERROR : EXIT_OK;
}

// ---- repair -----------------------------------------------------------------

int run_repair(const Command &self, const ParsedArgs &args) {
    RunRequest request;
    int status = EXIT_OK;
    if (!read_run_options(self, args, request, status)) return status;

    print_title(mode_title("Diagnosis before the repair", request.mode));
    const RunResult diagnosis = run_diagnosis(request);
    if (diagnosis.end != RunEnd::finished) return exit_status_of(diagnosis.end);
    print_summary("Diagnosis", diagnosis.tally);

    say("\n");
    print_title("Repair");
    RunRequest fix = request;
    fix.kind = RunKind::repair;
    fix.mode = 0; // the library runs every repair without a filter
    const RunResult repair = run_diagnosis(fix);
    if (repair.end != RunEnd::finished) return exit_status_of(repair.end);
    if (repair.tally.steps.empty()) say("    nothing to repair\n");
    print_summary("Repair", repair.tally);
    const int repaired = repair.tally.errors() ? EXIT_FINDING_ERROR : EXIT_OK;
    if (repair.tally.steps.empty()) return repaired;

    // The same diagnosis again shows what the repair changed.
    say("\n");
    print_title(mode_title("Diagnosis after the repair", request.mode));
    RunRequest check = request;
    check.live = false;
    const RunResult after = run_diagnosis(check);
    if (after.end != RunEnd::finished) return exit_status_of(after.end);
    print_changes(diagnosis.tally, after.tally);
    print_summary("Diagnosis", after.tally);
    return repaired;
}

// ---- records ----------------------------------------------------------------

int run_records(const Command &self, const ParsedArgs &args) {
    RunRequest request;
    int status = EXIT_OK;
    if (!read_run_options(self, args, request, status)) return status;
    request.live = false;
    const RunResult result = run_diagnosis(request);
    if (result.end != RunEnd::finished) return exit_status_of(result.end);

    std::vector<std::string> skipped;
    const auto records = collect_records(skipped);
    for (const std::string &note : skipped) warn("skipped %s", note.c_str());
    if (args.has("json"))
        print_records_json(records, request.mode, result.tally.steps);
    else
        print_records_text(records, result.tally.steps);
    return EXIT_OK;
}

// ---- package ----------------------------------------------------------------

std::vector<std::string> archive_members(const char *archive) {
    std::vector<std::string> members;
    const std::string command = std::string("tar -tf ") + archive;
    FILE *list = popen(command.c_str(), "r");
    if (!list) return members;
    char line[512];
    while (fgets(line, sizeof(line), list)) {
        std::string member = line;
        while (!member.empty() && (member.back() == '\n' || member.back() == '\r')) member.pop_back();
        if (!member.empty()) members.push_back(member);
    }
    pclose(list);
    return members;
}

int run_package(const Command &self, const ParsedArgs &args) {
    int status = EXIT_OK;
    if (!no_positionals(self, args, status)) return status;
    if (is_diag_permit_holding())
        warn("a diagnosis, repair or capture holds the permit; the package may catch it half-way");
    if (zq_packet_diag_file() != 0) {
        warn("nothing to pack: there are no diagnosis files under /tmp/diag_file/ "
             "(run 'zqdiag diagnose' first)");
        return EXIT_FINDING_ERROR;
    }
    struct stat st {};
    if (stat(PACKAGE_PATH, &st) != 0) {
        warn("the archive command ran, but %s was not made", PACKAGE_PATH);
        return EXIT_FINDING_ERROR;
    }
    say("archive: %s (%lld bytes)\n", PACKAGE_PATH, static_cast<long long>(st.st_size));
    const auto members = archive_members(PACKAGE_PATH);
    say("members:\n");
    for (const std::string &member : members) say("  %s\n", printable(member).c_str());
    return EXIT_OK;
}

// ---- upload -----------------------------------------------------------------

int run_upload_package(const Command &self, const ParsedArgs &args) {
    UploadRequest request;
    int status = EXIT_OK;
    if (!no_positionals(self, args, status) || !read_upload_options(self, args, request, status))
        return status;
    print_upload_title("the diagnosis package", request);
    if (zq_packet_diag_file() != 0) {
        warn("nothing to pack: there are no diagnosis files under /tmp/diag_file/ "
             "(run 'zqdiag diagnose' first)");
        return EXIT_FINDING_ERROR;
    }
    struct stat st {};
    if (stat(PACKAGE_PATH, &st) == 0)
        progress("  packed %s (%lld bytes)\n", PACKAGE_PATH, static_cast<long long>(st.st_size));
    return run_upload({"the diagnosis package", &g_diag_exec, 1, diagnose_set}, request);
}

// ---- permit -----------------------------------------------------------------

struct AlarmBit {
    uint32_t mask;
    const char *name;
    const char *meaning;
};

constexpr AlarmBit ALARM_BITS[] = {
    {ALARM_HIGH_CPU, "ALARM_HIGH_CPU", "high CPU usage: the permit is refused, nothing starts"},
    {ALARM_HIGH_MEMORY, "ALARM_HIGH_MEMORY",
     "high memory usage: no diagnosis starts; the permit is still granted (a capture runs)"},
};

int permit_status() {
    const bool taken = is_diag_permit_holding() != 0;
    say("permit: %s\n", taken ? paint(Paint::yellow, "taken").c_str() : "free");
    if (taken) say("  a diagnosis, repair or capture holds it, or a process that ended left it behind\n");
    const uint32_t alarm = get_diag_alarm_value();
    say("alarm word: 0x%08x\n", alarm);
    uint32_t known = 0;
    for (const AlarmBit &bit : ALARM_BITS) {
        const bool set = (alarm & bit.mask) != 0;
        known |= bit.mask;
        say("  0x%02x %-17s %s  %s\n", bit.mask, bit.name,
            set ? paint(Paint::yellow, "set  ").c_str() : "clear", bit.meaning);
    }
    if (alarm & ~known) say("  other bits set: 0x%08x\n", alarm & ~known);
    say("diagnosis available: %s\n", is_diag_avaliable() ? "yes" : "no");
    return EXIT_OK;
}

int permit_release() {
    if (!is_diag_permit_holding()) {
        say("the permit is free; nothing to release\n");
        return EXIT_OK;
    }
    if (release_diag_permit() != 0) {
        warn("releasing the permit failed");
        return EXIT_FINDING_ERROR;
    }
    say("permit released\n");
    return EXIT_OK;
}

int run_permit(const Command &self, const ParsedArgs &args) {
    if (args.positionals.size() > 1)
        return usage_error(self, "unexpected argument '" + args.positionals[1] + "'");
    const std::string action = args.positionals.empty() ? "status" : args.positionals.front();
    if (action == "status") return permit_status();
    if (action == "release") return permit_release();
    return usage_error(self, "unknown permit action '" + action + "' (status or release)");
}

// ---- The table --------------------------------------------------------------

constexpr Command COMMANDS[] = {
    {"diagnose", "[--mode N] [--timeout SECONDS]", "run a diagnosis and show its findings as they come",
     "Starts a diagnosis through the library's control block and follows it: the step\n"
     "running now, and each step's findings as they reach /tmp/diag_file/diag_log.\n"
     "Ends with a summary of the steps run and the findings per level.\n"
     "Exit status 1 when the run wrote an error-level finding.\n\n" ZQ_MODES_HELP,
     DIAGNOSE_OPTIONS, run_diagnose, true},
    {"repair", "[--mode N] [--timeout SECONDS]", "diagnose, then repair what the diagnosis found",
     "A repair acts on the records of the last diagnosis made in the same process,\n"
     "and a new zqdiag process has none: so 'repair' FIRST RUNS A DIAGNOSIS (shown\n"
     "as such), then the repair, with the same live display. When the repair ran a\n"
     "step, the same diagnosis runs once more, quietly, and the findings that are\n"
     "gone or new since the first one are listed.\n"
     "Exit status 1 when the repair itself wrote an error-level finding; the\n"
     "diagnosis's findings do not count.\n\n" ZQ_MODES_HELP,
     REPAIR_OPTIONS, run_repair, true},
    {"records", "[--json] [--mode N] [--timeout SECONDS]", "diagnose quietly and print the records gathered",
     "Runs a diagnosis without showing its findings, then prints the record chain it\n"
     "left (zq_diag_data_chain) in chain order.\n\n"
     "--json prints one object: {\"mode\": N, \"records\": [...]}, where each record is\n"
     "  {\"type\": \"WAN_DIAG_DATA\", \"code\": 1, \"index\": 0, \"count\": 1,\n"
     "   \"fields\": {\"nat_enable\": 1, \"vlan_enable\": 0, ...}}\n"
     "with the fields under the names of the record layout (reserved bytes left\n"
     "out): texts as strings, numbers as numbers, powers as decimals (null if not\n"
     "finite). Text bytes that are not valid UTF-8 appear as U+0080..U+00FF.\n\n" ZQ_MODES_HELP,
     RECORDS_OPTIONS, run_records, true},
    {"package", "", "pack the diagnosis files into /tmp/diag_file/diag_log.tar",
     "Gathers the diagnosis evidence and packs it into /tmp/diag_file/diag_log.tar\n"
     "(zq_packet_diag_file), then lists the archive's members.\n"
     "Exit status 1 when there was nothing to pack.",
     HELP_ONLY, run_package, false},
    {"upload", "--url URL [--protocol ftp|tftp] [--wan N] [--timeout SECONDS]",
     "pack the diagnosis files and upload them to a server",
     "Packs the evidence of the last diagnosis (zq_packet_diag_file) and asks the\n"
     "library to upload it (the upload action of diagnose_set): the archive is\n"
     "renamed with the time (11161621dia.tar for Nov 16 16:21), a host route to\n"
     "the server is added through WAN N for the transfer, and the file is sent\n"
     "with btftp (TFTP) or wput, falling back to the ftp client (FTP).\n"
     "Shows the control block's state as it changes and ends with the name the\n"
     "server stored, or with why the upload failed. Exit status 1 when it failed.",
     UPLOAD_OPTIONS, run_upload_package, false},
    {"permit", "[status|release]", "show or release the diagnosis permit and the alarm word",
     "status (the default): whether the diagnosis permit is taken, the alarm word\n"
     "with its ALARM_HIGH_CPU and ALARM_HIGH_MEMORY bits, and whether a diagnosis\n"
     "may start now.\n"
     "release: gives the permit back (release_diag_permit). Use it for a permit\n"
     "left behind by a process that died; a running diagnosis loses its permit too.",
     HELP_ONLY, run_permit, false},
    {"capture",
     "start [--mode single|rotate] [--interface N] [--detach] [--url URL [--protocol ftp|tftp] [--wan N]] "
     "| stop | status | upload --url URL [--protocol ftp|tftp] [--wan N] [--timeout SECONDS]",
     "start, stop, show or upload a packet capture",
     "start: takes the diagnosis permit and starts tcpdump (capture_set), then shows\n"
     "the bytes captured as they grow until Ctrl-C stops the capture, or until it\n"
     "ends by itself (5000 packets); the files are then packed into\n"
     "/tmp/capture_file/capture.tar. With --detach it returns at once.\n"
     "start --mode rotate --url URL [--protocol P] [--wan N]: tcpdump writes two files\n"
     "of the allowance's size in turn, and every file it finishes is sent at once to\n"
     "the server as cap_0.pcap, cap_1.pcap, ... The uploads run in this process:\n"
     "it follows the capture (no --detach) and after Ctrl-C stays until rotate\n"
     "mode's end has removed the capture files and the upload route.\n"
     "stop: stops a running capture, started here or by another process, shows the\n"
     "bytes captured and packs the files. It gives the permit back for a capture\n"
     "zqdiag started (noted in /var/run/zqdiag.capture); another process's capture\n"
     "keeps its permit for that process to give back.\n"
     "status: the state, whether tcpdump runs, the permit, and the sizes of the\n"
     "files under /tmp/capture_file/.\n"
     "A capture that ends by itself (tcpdump gone: 5000 packets, or killed) keeps\n"
     "its permit: the library only reports the death (capture_abnormal_get). When\n"
     "'capture start' (following), 'capture status' or 'capture stop' notices that\n"
     "a capture zqdiag started has died, it gives the permit back and packs what\n"
     "was captured, but only when that capture can be shown to hold it still: the\n"
     "permit is taken, no tcpdump runs and no diagnosis has started since (none\n"
     "has touched /tmp/diag_file/). Otherwise it says why and leaves the permit.\n"
     "upload: asks the library to upload /tmp/capture_file/capture.tar (the upload\n"
     "action of capture_set): renamed with the time (1161621capt.tar for Jan 16\n"
     "16:21) and sent as 'zqdiag upload' sends the diagnosis package. Shows the\n"
     "state as it changes and ends with the name the server stored, or with why the\n"
     "upload failed (exit status 1).\n"
     "Exit status 3 when the permit is taken.",
     CAPTURE_OPTIONS, run_capture, false},
};

#undef ZQ_MODES_HELP

} // namespace

std::span<const Command> commands() { return COMMANDS; }

const Command *find_command(const std::string &name) {
    for (const Command &command : COMMANDS)
        if (name == command.name) return &command;
    return nullptr;
}

void print_command_help(const Command &command) {
    say("usage: zqdiag %s%s%s\n\n", command.name, *command.synopsis ? " " : "", command.synopsis);
    std::string summary = command.summary;
    summary[0] = static_cast<char>(toupper(static_cast<unsigned char>(summary[0])));
    std::string details = command.details;
    while (!details.empty() && details.back() == '\n') details.pop_back();
    say("%s.\n\n%s\n\n%s", summary.c_str(), details.c_str(), options_help(command.options).c_str());
}

int usage_error(const Command &command, const std::string &reason) {
    FILE *err = console().err;
    fprintf(err, "zqdiag %s: %s\n", command.name, reason.c_str());
    fprintf(err, "usage: zqdiag %s%s%s\n", command.name, *command.synopsis ? " " : "", command.synopsis);
    fprintf(err, "Try 'zqdiag %s --help'.\n", command.name);
    return EXIT_USAGE;
}

} // namespace zqcli
