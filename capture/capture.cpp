// Packet capture with the gateway's tcpdump: started in the background
// through the shell into /tmp/capture_file/, stopped by process name,
// packed into one archive, and decoded back to text for the protocol
// methods.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "capture/capture.h"
#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {

constexpr unsigned START_SETTLE_US = 200000;
constexpr long POLL_BUDGET_US = 3000000;
constexpr long POLL_INTERVAL_US = 200000;
constexpr int MAX_FAILED_SLEEPS = 3;
constexpr unsigned STOP_SETTLE_US = 300000;
constexpr unsigned DECODE_SETTLE_US = 300000;
constexpr uint64_t MAX_CATCH_TIME_S = 10;
constexpr unsigned WAN_RESTART_CAPTURE_S = 3;
constexpr uint64_t DIAG_CATCH_COUNT = 2000;
constexpr size_t MAX_FILTER_LENGTH = 256;
constexpr size_t ALLOWANCE_READ = 32;

// What packing does with the files tcpdump left, by which are non-empty.
struct pack_plan {
    const char *const commands[4];
};
constexpr pack_plan PACK_SINGLE = {
    {"tar -C /tmp/capture_file/ -cf /tmp/capture_file/capture.tar capture.pcap",
     "rm /tmp/capture_file/capture.pcap", nullptr, nullptr}};
constexpr pack_plan PACK_ONE_ROTATED = {
    {"mv /tmp/capture_file/capture.pcap0 /tmp/capture_file/capture0.pcap",
     "tar -C /tmp/capture_file/ -cf /tmp/capture_file/capture.tar capture0.pcap",
     "rm /tmp/capture_file/capture0.pcap", nullptr}};
// Two rotated files: the smaller one (the one being written when tcpdump
// stopped) becomes capture1.pcap and goes first into the archive.
constexpr pack_plan PACK_TWO_ROTATED_SMALLER_0 = {
    {"mv /tmp/capture_file/capture.pcap0 /tmp/capture_file/capture1.pcap",
     "mv /tmp/capture_file/capture.pcap1 /tmp/capture_file/capture0.pcap",
     "tar -C /tmp/capture_file/ -cf /tmp/capture_file/capture.tar capture1.pcap capture0.pcap",
     "rm /tmp/capture_file/capture0.pcap /tmp/capture_file/capture1.pcap"}};
constexpr pack_plan PACK_TWO_ROTATED = {
    {"mv /tmp/capture_file/capture.pcap0 /tmp/capture_file/capture0.pcap",
     "mv /tmp/capture_file/capture.pcap1 /tmp/capture_file/capture1.pcap",
     "tar -C /tmp/capture_file/ -cf /tmp/capture_file/capture.tar capture1.pcap capture0.pcap",
     "rm /tmp/capture_file/capture0.pcap /tmp/capture_file/capture1.pcap"}};

// Runs the plan's commands in order and stops at the first that fails: a
// capture file is removed only once the archive holding it was made (a
// full /tmp leaves a cut archive, and the capture must outlive it).
bool run_plan(const pack_plan &plan) {
    for (const char *cmd : plan.commands) {
        if (cmd && zq_system(cmd) != 0) {
            ZQ_LOG_AS("packet_capture_file", "packing failed at [%s]: the capture files are kept", cmd);
            remove_if_present(ZQ_CAPTURE_TAR, "rm -f");
            return false;
        }
    }
    return true;
}

bool tcpdump_running() { return zq_get_pid("tcpdump") != 0; }

// The request's count within its mode's range.
bool catch_count_valid(const tcpdump_req &req, uint64_t allowance) {
    const uint64_t limit = req.mode == CAPTURE_MODE_SINGLE ? ZQ_MAX_CATCH_COUNT : allowance;
    return req.catch_count != 0 && req.catch_count <= limit;
}

// Sleeps `seconds` in full, resuming after interruptions.
void sleep_fully(unsigned seconds) {
    while (seconds > 0) seconds = sleep(seconds);
}

} // namespace

bool build_tcpdump_command(const tcpdump_req &req, char (&cmd)[ZQ_TCPDUMP_COMMAND_SIZE]) {
    cmd[0] = '\0';
    const std::string_view filter = zq::view(req.filter);
    if (const char *why = capture_filter_refusal(filter)) {
        ZQ_LOG("invalid capture filter: %s", why);
        return false;
    }
    // A word longer than the whole line cannot fit in it either.
    char word[ZQ_TCPDUMP_COMMAND_SIZE] = {};
    const std::string_view interface = zq::view(req.interface);
    const auto count = static_cast<unsigned long long>(req.catch_count);
    int n = -1;
    if (quote_capture_filter(filter, word, sizeof(word))) {
        if (req.mode == CAPTURE_MODE_SINGLE)
            n = ZQ_FORMAT(cmd, "tcpdump -v -i %.*s %s -c %llu -w %s &", static_cast<int>(interface.size()),
                          interface.data(), word, count, ZQ_CAPTURE_PCAP);
        else
            n = ZQ_FORMAT(cmd, "tcpdump -v -i %.*s -C %llu -W 2 -w %s %s&",
                          static_cast<int>(interface.size()), interface.data(), count, ZQ_CAPTURE_PCAP, word);
    }
    // The line is refused rather than cut: a cut line could end inside the
    // quoted filter or lose its -w or its closing '&', and tcpdump would
    // then run in the foreground or write its packets to the terminal.
    if (n < 0 || static_cast<size_t>(n) >= sizeof(cmd)) {
        cmd[0] = '\0';
        ZQ_LOG("tcpdump command is too long");
        return false;
    }
    return true;
}

} // namespace zq

uint64_t get_max_size_of_tcpdump_file() {
    FILE *file = fopen(ZQ_CAPTURE_ALLOWANCE, "r");
    if (!file) return ZQ_MAX_ALLOWANCE;
    char text[ALLOWANCE_READ + 1] = {};
    const size_t n = fread(text, 1, ALLOWANCE_READ, file);
    fclose(file);
    // Widened and compared unsigned: every negative value reads as above
    // the ceiling, so the file can only lower the allowance.
    const auto value = static_cast<uint64_t>(
        static_cast<int64_t>(zq::read_number(__func__, ZQ_CAPTURE_ALLOWANCE, std::string_view(text, n))));
    return value > ZQ_MAX_ALLOWANCE ? ZQ_MAX_ALLOWANCE : value;
}

long zq_get_file_size(const char *path) {
    if (!path) return 0;
    FILE *file = fopen(path, "r");
    if (!file) return 0;
    long size = 0;
    if (fseek(file, 0, SEEK_END) == 0) size = ftell(file);
    fclose(file);
    return size < 0 ? 0 : size;
}

namespace zq {

int check_tcpdump_run() {
    long budget_us = POLL_BUDGET_US;
    int failed_sleeps = 0;
    int sleep_errno = 0;
    while (budget_us > 0 && failed_sleeps < MAX_FAILED_SLEEPS) {
        if (usleep(POLL_INTERVAL_US) != 0) {
            sleep_errno = errno;
            ++failed_sleeps;
            continue;
        }
        budget_us -= POLL_INTERVAL_US;
        if (tcpdump_running()) return 0;
    }
    ZQ_LOG("start tcpdump fail");
    if (failed_sleeps > 0) printf("usleep err: %s [%s %d]\n", strerror(sleep_errno), __func__, __LINE__);
    return -1;
}

} // namespace zq

int stop_tcpdump_catch() {
    zq_system("pgrep tcpdump | xargs kill");
    usleep(STOP_SETTLE_US);
    return 0;
}

int zq_get_tcpdump_file(tcpdump_req req) {
    const uint64_t allowance = get_max_size_of_tcpdump_file();
    if (tcpdump_running()) {
        ZQ_LOG("tcpdump is running");
        return -1;
    }
    if (allowance == 0) {
        zq_diag_msg_printf(DIAG_MSG_WARN, "Out of memory! Disable capture diagnose!");
        ZQ_LOG("Out of memory, disable tcpdump");
        return -1;
    }
    if (make_dir(ZQ_CAPTURE_DIR) != 0) {
        ZQ_LOG("create tcpdump dir fail");
        return -1;
    }
    const std::string_view interface = zq::view(req.interface);
    if (interface.empty()) {
        ZQ_LOG("empty interface");
        return -1;
    }
    // The name goes into the command line as it stands; the filter goes in
    // quoted (build_tcpdump_command).
    if (!zq::is_interface_name(interface)) {
        ZQ_LOG("invalid interface name");
        return -1;
    }
    if (req.mode != CAPTURE_MODE_SINGLE && req.mode != CAPTURE_MODE_ROTATE) {
        ZQ_LOG("invalid mode");
        return -1;
    }
    if (!catch_count_valid(req, allowance)) {
        ZQ_LOG("catch_count is invalid [cout %d]", static_cast<int>(req.catch_count));
        return -1;
    }
    char cmd[ZQ_TCPDUMP_COMMAND_SIZE] = {};
    if (!build_tcpdump_command(req, cmd)) return -1;
    if (zq::file_exists(ZQ_CAPTURE_PCAP)) zq_system("rm /tmp/capture_file/*");
    usleep(START_SETTLE_US);
    zq_system(cmd);
    if (check_tcpdump_run() != 0) {
        stop_tcpdump_catch();
        return -1;
    }
    if (req.catch_time == 0) return 0;
    sleep_fully(static_cast<unsigned>(req.catch_time > MAX_CATCH_TIME_S ? MAX_CATCH_TIME_S : req.catch_time));
    stop_tcpdump_catch();
    return 0;
}

long packet_capture_file() {
    remove_if_present(ZQ_CAPTURE_TAR, "rm -f");
    bool packed = false;
    if (zq_get_file_size(ZQ_CAPTURE_PCAP) > 0) {
        packed = run_plan(PACK_SINGLE);
    } else {
        const auto s0 = static_cast<unsigned long>(zq_get_file_size(ZQ_CAPTURE_PCAP0));
        const auto s1 = static_cast<unsigned long>(zq_get_file_size(ZQ_CAPTURE_PCAP1));
        if (s0 == 0) {
            ZQ_LOG("packet capture file fail");
            return -1;
        }
        if (s1 == 0)
            packed = run_plan(PACK_ONE_ROTATED);
        else
            packed = run_plan(s0 < s1 ? PACK_TWO_ROTATED_SMALLER_0 : PACK_TWO_ROTATED);
    }
    return packed ? zq_get_file_size(ZQ_CAPTURE_TAR) : -1;
}

namespace zq {

void get_tcpdump_parse(const char *filter) {
    remove_if_present(ZQ_CAPTURE_PARSE);
    if (zq_get_file_size(ZQ_CAPTURE_PCAP) == 0) {
        ZQ_LOG("catch file is empty");
        return;
    }
    const std::string_view text = zq::view(filter);
    if (text.size() > MAX_FILTER_LENGTH) {
        ZQ_LOG("filter is over big");
        return;
    }
    if (!is_decode_filter(text)) {
        ZQ_LOG("invalid decode filter");
        return;
    }
    char cmd[512] = {};
    ZQ_FORMAT(cmd, "tcpdump %s -n -r %s > %s", filter, ZQ_CAPTURE_PCAP, ZQ_CAPTURE_PARSE);
    zq_system(cmd);
    usleep(DECODE_SETTLE_US);
}

int grep_tcpdump_parse(const char *text) {
    const std::string_view word = zq::view(text);
    if (word.empty()) return 0;
    if (!zq::is_shell_word(word)) {
        ZQ_LOG("invalid search text");
        return 0;
    }
    char cmd[256] = {};
    ZQ_FORMAT(cmd, "cat %s | grep \"%s\" ", ZQ_CAPTURE_PARSE, text);
    return zq::contains(zq_get_cmd_result(cmd), text) ? 1 : 0;
}

int zq_diag_capture(const void * /*record*/) {
    if (zq::file_exists(ZQ_CAPTURE_PCAP)) return 0;
    tcpdump_req req{};
    req.mode = CAPTURE_MODE_SINGLE;
    req.catch_count = DIAG_CATCH_COUNT;
    zq::copy(req.interface, "any");
    if (zq_get_tcpdump_file(req) != 0) {
        ZQ_LOG("Capture Error");
        return -1;
    }
    zq_get_cmd_result("diagM restart_wan");
    sleep_fully(WAN_RESTART_CAPTURE_S);
    stop_tcpdump_catch();
    return 0;
}

int interface_index_of(const char *line) {
    // "IFACE DIRECTION ifindex N ...": the fourth word is the index. Each
    // word is read into 16 bytes at most; longer words are cut.
    char words[4][16] = {};
    std::string_view rest = zq::view(line);
    for (auto &word : words) {
        const size_t start = rest.find_first_not_of(" \t\r\n");
        if (start == std::string_view::npos) break;
        rest.remove_prefix(start);
        const size_t end = rest.find_first_of(" \t\r\n");
        zq::copy(word, zq::slice(rest, 0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
    }
    return zq::to_int(words[3]);
}

int filter_special(const char *name, const char *ifindex_filter) {
    if (zq_get_file_size(ZQ_CAPTURE_PARSE) == 0 || !name) return -1;
    // The name goes into grep's command line.
    if (!zq::is_interface_name(zq::view(name))) {
        ZQ_LOG("invalid interface name");
        return -1;
    }
    char cmd[100] = {};
    ZQ_FORMAT(cmd, "grep \"%s\" %s", name, ZQ_CAPTURE_PARSE);
    FILE *pipe = popen(cmd, "r");
    if (!pipe) return -1;
    char line[256] = {};
    const bool got = fgets(line, sizeof(line), pipe) != nullptr;
    pclose(pipe);
    if (!got || line[0] == '\0') return -1;
    const int index = interface_index_of(line);
    if (index == 0) return -1;
    char filter[256] = {};
    ZQ_FORMAT(filter, ifindex_filter, index);
    get_tcpdump_parse(filter);
    return 0;
}

} // namespace zq
