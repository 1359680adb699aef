#include "upload_run.hpp"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <unistd.h>

#include "console.hpp"
#include "diag_run.hpp"
#include "exit_codes.hpp"
#include "server_probe.hpp"
#include "upload/upload_words.h"

namespace zqcli {

namespace {

constexpr auto POLL = std::chrono::milliseconds(20);
constexpr unsigned DEFAULT_TIMEOUT_S = 120;
constexpr uint32_t MAX_TIMEOUT_S = 86400;
constexpr uint32_t MAX_WAN = 8;

const char *state_name(uint32_t state) {
    switch (state) {
    case EXEC_IDLE:
        return "idle";
    case EXEC_RUNNING:
        return "running";
    case EXEC_DONE:
        return "done";
    case EXEC_UPLOADED:
        return "uploaded";
    case EXEC_UPLOADING:
        return "uploading";
    case EXEC_UPLOAD_FAIL:
        return "upload failed";
    default:
        return "unknown";
    }
}

// The library's log lines of one upload: its standard output goes to a file
// of this process while the worker runs, and is read back afterwards (and
// passed on to the standard error with --verbose, where it went before).
class LibraryLog {
  public:
    LibraryLog() {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        file_ = tmpfile();
        if (saved_ >= 0 && file_) dup2(fileno(file_), STDOUT_FILENO);
    }
    LibraryLog(const LibraryLog &) = delete;
    LibraryLog &operator=(const LibraryLog &) = delete;
    ~LibraryLog() { restore(); }

    // Ends the capture and returns what the library wrote.
    std::string finish() {
        restore();
        std::string text;
        if (!file_) return text;
        rewind(file_);
        char buf[4096];
        size_t n = 0;
        while ((n = fread(buf, 1, sizeof(buf), file_)) > 0) text.append(buf, n);
        fclose(file_);
        file_ = nullptr;
        // What went to the file goes on to where the library's output went
        // before (the standard error with --verbose, else nowhere).
        [[maybe_unused]] const ssize_t passed = write(STDOUT_FILENO, text.data(), text.size());
        return text;
    }

  private:
    void restore() {
        if (saved_ < 0) return;
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
    }
    int saved_ = -1;
    FILE *file_ = nullptr;
};

// Why an upload failed, from the library's log lines: the first rule whose
// text appears wins.
struct FailureRule {
    const char *log_text;
    const char *reason;
};
constexpr FailureRule FAILURE_RULES[] = {
    {zq::upload_log::REFUSED, "the URL or a file name is not a plain word for its field"},
    {zq::upload_log::NO_ARCHIVE, "there is no archive to send"},
    {zq::upload_log::FILE_MISSING, "the archive to send is missing"},
    {zq::upload_log::HOST_UNRESOLVED, "the server's name does not resolve"},
    {zq::upload_log::URL_NOT_PARSED,
     "the URL is not understood (ftp://[USER:PASSWORD@]HOST[:PORT]/PATH or tftp://HOST)"},
    {zq::upload_log::UNKNOWN_PROTOCOL, "the protocol is neither FTP nor TFTP"},
    {zq::upload_log::FTP_SCRIPT_FAILED, "the FTP command script could not be written"},
};

// Notes that do not make an upload fail.
constexpr FailureRule NOTE_RULES[] = {
    {zq::upload_log::CLOCK_UNSYNCED, "the clock is not synchronised: the archive keeps its own name"},
    {zq::upload_log::WPUT_FAILED, "wput could not send; the ftp client took over"},
};

// What tftp-hpa's client said, as the library logs it after "tftp error:".
std::string tftp_cause(const std::string &log, const ServerUrl &server) {
    const std::string marker = std::string(zq::upload_log::TFTP_FAILED) + ":\n";
    const size_t at = log.find(marker);
    std::string said = at == std::string::npos ? "" : log.substr(at + marker.size());
    said = said.substr(0, said.find("tftp fail"));
    while (!said.empty() && (said.back() == '\n' || said.back() == ' ')) said.pop_back();
    const std::string where = server.host + ":" + std::to_string(server.port);
    // btftp's transfer is cut off after 20 seconds, and then says nothing.
    if (said.empty() || said.find("timed out") != std::string::npos)
        return "the TFTP server " + where +
               " did not answer within 20 s (timeout): it is down, unreachable, or "
               "nothing listens there";
    if (said.find("Error code") != std::string::npos)
        return "the TFTP server " + where + " refused the file: " + said.substr(said.find("Error code"));
    return "the TFTP transfer to " + where + " failed: " + said;
}

std::string failure_reason(const std::string &log, const UploadRequest &request) {
    const ServerUrl server = split_server_url(request.url);
    if (log.find(zq::upload_log::TFTP_FAILED) != std::string::npos) return tftp_cause(log, server);
    if (log.find(zq::upload_log::FTP_FAILED) != std::string::npos ||
        log.find(zq::upload_log::FTP_SILENT) != std::string::npos)
        return probe_ftp_failure(server);
    for (const FailureRule &rule : FAILURE_RULES) {
        const size_t at = log.find(rule.log_text);
        if (at == std::string::npos) continue;
        std::string reason = rule.reason;
        if (rule.log_text == zq::upload_log::REFUSED) {
            const size_t end = log.find('\n', at);
            reason += " (" + log.substr(at, end == std::string::npos ? std::string::npos : end - at) + ")";
        }
        return reason;
    }
    // The library sends nothing and says nothing when the diagnosis manager
    // refuses the route to the server.
    if (request.wan)
        return "no route to the server through WAN " + std::to_string(request.wan) +
               ": the diagnosis manager refused it, so nothing was sent";
    return "nothing was sent: the diagnosis manager refused the route to the server";
}

bool worker_running(const diag_exec_ctl &block) {
    return __atomic_load_n(&block.worker, __ATOMIC_ACQUIRE) != 0;
}
uint32_t block_state(const diag_exec_ctl &block) { return __atomic_load_n(&block.state, __ATOMIC_ACQUIRE); }

} // namespace

bool read_upload_options(const Command &self, const ParsedArgs &args, UploadRequest &request, int &status) {
    const std::string *url = args.value("url");
    if (!url || url->empty()) {
        status = usage_error(self, "--url is required");
        return false;
    }
    // Judged by the library's own rules before any work (packing, a route),
    // so that a URL the library would refuse is never found out half-way.
    if (const char *problem = zq::upload_url_problem(*url)) {
        status = usage_error(self, "bad URL '" + hide_password(*url) + "': " + problem);
        return false;
    }
    request.url = *url;
    request.protocol = url->rfind("tftp://", 0) == 0 ? UPLOAD_PROTOCOL_TFTP : UPLOAD_PROTOCOL_FTP;
    if (const std::string *protocol = args.value("protocol")) {
        if (*protocol != "ftp" && *protocol != "tftp") {
            status = usage_error(self, "bad protocol '" + *protocol + "' (ftp or tftp)");
            return false;
        }
        request.protocol = *protocol == "tftp" ? UPLOAD_PROTOCOL_TFTP : UPLOAD_PROTOCOL_FTP;
    }
    if (const std::string *wan = args.value("wan")) {
        auto number = parse_number(*wan, 1, MAX_WAN);
        if (!number) {
            status = usage_error(self, "bad WAN '" + *wan + "' (a number from 1 to 8)");
            return false;
        }
        request.wan = *number;
    }
    request.timeout_s = DEFAULT_TIMEOUT_S;
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

void print_upload_title(const char *what, const UploadRequest &request) {
    const std::string route = request.wan ? "WAN " + std::to_string(request.wan) : "the default route";
    const std::string title = std::string("Upload of ") + what + " to " + hide_password(request.url) + " (" +
                              (request.protocol == UPLOAD_PROTOCOL_TFTP ? "TFTP" : "FTP") + ", " + route +
                              ")";
    progress("%s\n", paint(Paint::bold, title).c_str());
}

std::string hide_password(const std::string &url) {
    const size_t scheme = url.find("//");
    const size_t at = url.find('@');
    if (scheme == std::string::npos || at == std::string::npos || at < scheme) return url;
    const size_t colon = url.find(':', scheme + 2);
    if (colon == std::string::npos || colon > at) return url;
    return url.substr(0, colon + 1) + "****" + url.substr(at);
}

int run_upload(const UploadTarget &target, const UploadRequest &request) {
    diag_exec_ctl &block = *target.block;
    if (worker_running(block)) {
        warn("an upload or a run of this process is still going on");
        return EXIT_UNAVAILABLE;
    }
    snprintf(block.url, sizeof(block.url), "%s", request.url.c_str());
    block.protocol = request.protocol;
    block.wan_mask = request.wan ? static_cast<uint8_t>(1u << (request.wan - 1)) : 0;
    block.action = target.action;

    LibraryLog log;
    if (target.start() != 0 || !worker_running(block)) {
        const std::string text = log.finish();
        warn("the library refused to start the upload%s",
             text.find("unavaliable") != std::string::npos
                 ? ": a diagnosis, repair or capture holds the permit, or the gateway is loaded"
                 : "");
        return EXIT_UNAVAILABLE;
    }
    uint32_t shown = block_state(block);
    progress("  state: %s\n", state_name(shown));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(request.timeout_s);
    while (worker_running(block) && !g_interrupted && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(POLL);
        if (block_state(block) != shown) {
            shown = block_state(block);
            progress("  state: %s\n", state_name(shown));
        }
    }
    if (worker_running(block)) {
        log.finish();
        warn("%s", g_interrupted ? "interrupted; the upload goes on in the background until the process ends"
                                 : "the upload did not end in time");
        return g_interrupted ? EXIT_INTERRUPTED : EXIT_TIMEOUT;
    }
    if (block_state(block) != shown) progress("  state: %s\n", state_name(block_state(block)));
    const std::string text = log.finish();
    for (const FailureRule &note : NOTE_RULES)
        if (text.find(note.log_text) != std::string::npos) progress("  note: %s\n", note.reason);

    const std::string name(block.file_name, strnlen(block.file_name, sizeof(block.file_name)));
    if (block_state(block) == EXEC_UPLOADED) {
        say("%s %s\n", paint(Paint::green, "stored on the server as").c_str(), name.c_str());
        return EXIT_OK;
    }
    say("%s: %s\n", paint(Paint::red, "upload failed").c_str(), failure_reason(text, request).c_str());
    return EXIT_FINDING_ERROR;
}

} // namespace zqcli
