// Running a diagnosis or a repair through the control block g_diag_exec, as
// a management process does, and following it until its end state.
#pragma once

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "diag_log.hpp"

namespace zqcli {

enum class RunKind : uint32_t { diagnose = 0, repair = 1 }; // the block's `kind`

enum class RunEnd {
    finished,    // the path ran to its end
    busy,        // a worker of this process is still running
    unavailable, // diagnose_set refused: permit taken or an alarm bit set
    refused,     // the worker started but no step ran (the permit was refused)
    timed_out,
    interrupted,
};

struct RunRequest {
    RunKind kind = RunKind::diagnose;
    uint32_t mode = 0;
    unsigned timeout_s = 300;
    bool live = true; // show progress and findings as they come
};

// One finding of a run with the step that wrote it.
struct StepFinding {
    std::string step;
    Finding finding;
};

// What the log says about one run.
struct Tally {
    std::vector<std::string> steps; // in order, the "end" pseudo-step left out
    bool saw_end = false;
    unsigned findings[LEVEL_COUNT] = {};
    std::vector<StepFinding> all; // every finding, in order

    unsigned errors() const { return findings[LEVEL_COUNT - 1]; }
};

struct RunResult {
    RunEnd end = RunEnd::finished;
    Tally tally;
};

// Starts the run, follows it and reports why it could not run (on the error
// stream). A run given up on a timeout or an interrupt gives back the
// permit it took, so the gateway is not left locked.
RunResult run_diagnosis(const RunRequest &request);

// Prints "steps run ..., findings ..." for a finished run.
void print_summary(const char *what, const Tally &tally);

// What changed between two diagnoses: the findings of `before` that
// `after` no longer has, and those that are new in `after`.
void print_changes(const Tally &before, const Tally &after);

// Exit status for a run that did not finish.
int exit_status_of(RunEnd end);

// Set by the signal handlers of main(); a running diagnosis is given up.
extern volatile sig_atomic_t g_interrupted;

} // namespace zqcli
