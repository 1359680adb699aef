#include "diag_run.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "console.hpp"
#include "engine/files.h"
#include "exit_codes.hpp"
#include "zq_diag.h"

namespace zqcli {

volatile sig_atomic_t g_interrupted = 0;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto POLL_INTERVAL = std::chrono::milliseconds(50);
constexpr const char *DIAG_MANAGER_PID_FILE = "/var/run/diagM.pid";

// ---- The control block ------------------------------------------------------
// The worker thread writes `state` and `worker` while this thread reads them.

bool worker_running() { return __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE) != 0; }
uint32_t exec_state() { return __atomic_load_n(&g_diag_exec.state, __ATOMIC_ACQUIRE); }

std::string running_method() {
    char name[sizeof(zq_running_method) + 1] = {};
    memcpy(name, zq_running_method, sizeof(zq_running_method));
    return name;
}

void request_run(const RunRequest &request) {
    g_diag_exec.mode = request.mode;
    g_diag_exec.kind = static_cast<uint32_t>(request.kind);
    g_diag_exec.action = 0;
}

// ---- Why a diagnosis cannot run ---------------------------------------------

// Whether the manager's pid file names a manager as the library reads it: its
// first 32 bytes hold a leading number other than 0 (a missing file, or text
// without a number, gets no permit).
bool manager_pid_known() {
    FILE *file = fopen(DIAG_MANAGER_PID_FILE, "r");
    if (!file) return false;
    char text[33] = {};
    const size_t n = fread(text, 1, 32, file);
    fclose(file);
    text[n] = '\0';
    return strtol(text, nullptr, 10) != 0;
}

std::vector<std::string> blocking_reasons(bool permit_refused) {
    std::vector<std::string> reasons;
    if (is_diag_permit_holding())
        reasons.push_back(
            "the diagnosis permit is taken: another diagnosis, repair or capture is running "
            "(a permit left behind by a process that died is freed with 'zqdiag permit release')");
    if (check_diag_alarm_value(ALARM_HIGH_CPU))
        reasons.push_back("the alarm word reports high CPU usage (ALARM_HIGH_CPU)");
    if (check_diag_alarm_value(ALARM_HIGH_MEMORY))
        reasons.push_back("the alarm word reports high memory usage (ALARM_HIGH_MEMORY)");
    if (permit_refused && !manager_pid_known())
        reasons.push_back(std::string("no diagnosis manager is running (") + DIAG_MANAGER_PID_FILE +
                          " is missing or names no pid): the permit is only granted while it runs");
    return reasons;
}

void print_reasons(const std::vector<std::string> &reasons) {
    if (reasons.empty()) {
        fprintf(console().err, "  the cause has gone meanwhile; try again\n");
        return;
    }
    for (const std::string &reason : reasons) fprintf(console().err, "  - %s\n", reason.c_str());
}

void report_unavailable() {
    warn("diagnosis unavailable: the library refused to start it");
    print_reasons(blocking_reasons(false));
}

void report_refused() {
    warn("the diagnosis did not run: the diagnosis permit could not be taken");
    print_reasons(blocking_reasons(true));
}

// ---- Live display -----------------------------------------------------------

constexpr Paint LEVEL_PAINT[LEVEL_COUNT] = {Paint::plain, Paint::green, Paint::yellow, Paint::red};
constexpr const char *INDENT = "    ";

// Counts what the log says and, when live, shows it. On a terminal the
// running step is shown on a status line that the next output replaces.
class RunDisplay {
  public:
    explicit RunDisplay(bool live) : live_(live), status_line_(live && console().out_is_tty) {}

    void line(const LogLine &entry) {
        switch (entry.kind) {
        case LineKind::step:
            step(entry);
            break;
        case LineKind::finding:
            for (const Finding &f : entry.findings) finding(f);
            break;
        case LineKind::detail:
            detail(entry.text);
            break;
        case LineKind::blank:
        case LineKind::dump_header:
        case LineKind::dump: // the records are shown by 'zqdiag records'
            break;
        }
    }

    void running(const std::string &method, double seconds) {
        if (!status_line_ || method.empty()) return;
        static constexpr char SPIN[] = {'|', '/', '-', '\\'};
        clear_status();
        say("%s", paint(Paint::dim, std::string(1, SPIN[spin_++ % 4]) + " running " + printable(method) +
                                        "  " + std::to_string(static_cast<unsigned>(seconds)) + " s")
                      .c_str());
        status_shown_ = true;
        fflush(console().out);
    }

    void done() {
        clear_status();
        fflush(console().out);
    }

    const Tally &tally() const { return tally_; }

  private:
    void step(const LogLine &entry) {
        pending_header_.clear();
        step_ = entry.method;
        std::string header = "== " + printable(entry.method);
        if (!entry.action.empty()) header += " (" + printable(entry.action) + ")";
        if (entry.method == zq::END_STEP) {
            tally_.saw_end = true;
            pending_header_ = header; // shown only if the end step has something to say
            return;
        }
        tally_.steps.push_back(entry.method);
        print(paint(Paint::cyan, header));
    }

    void finding(const Finding &f) {
        const unsigned level = f.level < LEVEL_COUNT ? f.level : 0;
        ++tally_.findings[level];
        tally_.all.push_back({step_, {level, f.text}});
        last_level_ = level;
        show_pending_header();
        print(INDENT + paint(LEVEL_PAINT[level], level_prefix(level)) + " " +
              paint(LEVEL_PAINT[level] == Paint::red ? Paint::red : Paint::plain, printable(f.text)));
    }

    void detail(const std::string &text) {
        show_pending_header();
        print(std::string(INDENT) + "          " + paint(LEVEL_PAINT[last_level_], printable(text)));
    }

    void show_pending_header() {
        if (pending_header_.empty()) return;
        print(paint(Paint::cyan, pending_header_));
        pending_header_.clear();
    }

    void print(const std::string &text) {
        if (!live_) return;
        clear_status();
        say("%s\n", text.c_str());
        fflush(console().out);
    }

    void clear_status() {
        if (!status_shown_) return;
        say("\r\033[K");
        status_shown_ = false;
    }

    bool live_;
    bool status_line_;
    bool status_shown_ = false;
    unsigned spin_ = 0;
    unsigned last_level_ = 0;
    std::string pending_header_;
    std::string step_; // the step whose findings come now
    Tally tally_;
};

void feed(LogParser &parser, RunDisplay &display, const std::vector<std::string> &lines) {
    for (const std::string &line : lines) display.line(parser.parse(line));
}

// A run given up while one of its steps is chosen still holds the permit
// that its first path search took; the "end" step gives it back itself.
// A run that has just taken the permit prepares the log directory before it
// names its first step; while its worker still runs, it gets a moment to do so.
void give_back_permit(const std::string &method_at_start) {
    for (int i = 0; i < 60 && running_method() == method_at_start &&
                    __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE);
         ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::string method = running_method();
    if (method == method_at_start || method == zq::END_STEP) return;
    if (is_diag_permit_holding() && release_diag_permit() == 0)
        fprintf(console().err, "  the diagnosis permit of the abandoned run was released\n");
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Why a run still going is to be given up: a stop signal or the timeout.
RunEnd give_up_reason(const RunRequest &request, Clock::time_point started) {
    if (g_interrupted) return RunEnd::interrupted;
    if (seconds_since(started) >= request.timeout_s) return RunEnd::timed_out;
    return RunEnd::finished;
}

void report_given_up(RunEnd why, const RunRequest &request, const std::string &method) {
    const char *what = request.kind == RunKind::repair ? "repair" : "diagnosis";
    const char *step = method.empty() ? "none yet" : method.c_str();
    if (why == RunEnd::interrupted)
        warn("interrupted; the %s was given up (running step: %s)", what, step);
    else
        warn("timed out after %u s waiting for the %s to finish (running step: %s)", request.timeout_s, what,
             step);
}

// The run ended without a step: the worker's path search got no permit.
bool no_step_ran(const Tally &tally, bool chose_step) {
    return !chose_step && !tally.saw_end && tally.steps.empty();
}

} // namespace

RunResult run_diagnosis(const RunRequest &request) {
    RunResult result;
    if (worker_running()) {
        warn("diagnose execution is busy");
        result.end = RunEnd::busy;
        return result;
    }
    LogFollower follower(DIAG_LOG_PATH);
    follower.start();
    LogParser parser;
    RunDisplay display(request.live);
    const std::string method_at_start = running_method();

    request_run(request);
    if (diagnose_set() != 0) {
        report_unavailable();
        result.end = RunEnd::unavailable;
        return result;
    }

    const Clock::time_point started = Clock::now();
    std::vector<std::string> lines;
    bool chose_step = false;
    while (worker_running()) {
        lines.clear();
        follower.poll(lines);
        feed(parser, display, lines);
        const std::string method = running_method();
        chose_step = chose_step || method != method_at_start;
        display.running(method, seconds_since(started));
        if (const RunEnd why = give_up_reason(request, started); why != RunEnd::finished) {
            display.done();
            report_given_up(why, request, method);
            give_back_permit(method_at_start);
            result.end = why;
            result.tally = display.tally();
            return result;
        }
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    lines.clear();
    follower.finish(lines);
    feed(parser, display, lines);
    display.done();
    result.tally = display.tally();

    chose_step = chose_step || running_method() != method_at_start;
    if (exec_state() == EXEC_IDLE || no_step_ran(result.tally, chose_step)) {
        report_refused();
        result.end = RunEnd::refused;
    }
    return result;
}

void print_summary(const char *what, const Tally &tally) {
    std::string steps;
    for (const std::string &step : tally.steps) steps += (steps.empty() ? "" : ", ") + printable(step);
    say("%s: %zu step%s run%s%s%s\n", what, tally.steps.size(), tally.steps.size() == 1 ? "" : "s",
        steps.empty() ? "" : " (", steps.c_str(), steps.empty() ? "" : ")");
    static constexpr const char *NAMES[LEVEL_COUNT] = {"normal", "success", "warn", "error"};
    std::string counts;
    for (unsigned level = 0; level < LEVEL_COUNT; ++level) {
        std::string item = std::to_string(tally.findings[level]) + " " + NAMES[level];
        if (tally.findings[level] && level >= 2) item = paint(LEVEL_PAINT[level], item);
        counts += (level ? ", " : "") + item;
    }
    say("  findings: %s\n", counts.c_str());
}

namespace {

std::string finding_key(const StepFinding &f) {
    return f.step + '\n' + std::to_string(f.finding.level) + '\n' + f.finding.text;
}

// The findings of `from` that `other` lacks, as often as they are missing.
std::vector<const StepFinding *> missing_from(const Tally &from, const Tally &other) {
    std::map<std::string, int> left;
    for (const StepFinding &f : other.all) ++left[finding_key(f)];
    std::vector<const StepFinding *> missing;
    for (const StepFinding &f : from.all) {
        int &count = left[finding_key(f)];
        if (count > 0)
            --count;
        else
            missing.push_back(&f);
    }
    return missing;
}

void print_change(const char *what, Paint colour, const StepFinding &f) {
    const unsigned level = f.finding.level < LEVEL_COUNT ? f.finding.level : 0;
    say("  %s %-12s %s %s\n", paint(colour, what).c_str(), printable(f.step).c_str(),
        paint(LEVEL_PAINT[level], level_prefix(level)).c_str(), printable(f.finding.text).c_str());
}

} // namespace

void print_changes(const Tally &before, const Tally &after) {
    const auto gone = missing_from(before, after);
    const auto added = missing_from(after, before);
    if (gone.empty() && added.empty()) {
        say("  no change: the same findings as before the repair\n");
        return;
    }
    for (const StepFinding *f : gone) print_change("gone", Paint::green, *f);
    for (const StepFinding *f : added) print_change("new ", Paint::yellow, *f);
}

int exit_status_of(RunEnd end) {
    switch (end) {
    case RunEnd::finished:
        return EXIT_OK;
    case RunEnd::busy:
    case RunEnd::unavailable:
    case RunEnd::refused:
        return EXIT_UNAVAILABLE;
    case RunEnd::timed_out:
        return EXIT_TIMEOUT;
    case RunEnd::interrupted:
        return EXIT_INTERRUPTED;
    }
    return EXIT_FINDING_ERROR;
}

} // namespace zqcli
