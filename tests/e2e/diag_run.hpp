// Running a diagnosis as a management process does (control block,
// diagnose_set, wait for the worker) and reading back its log by steps.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zq_diag.h"

// Starts a run through the control block and waits for its end state.
inline int run_and_wait(uint32_t kind, uint32_t mode) {
    g_diag_exec.kind = kind;
    g_diag_exec.mode = mode;
    g_diag_exec.action = 0;
    int rc = diagnose_set();
    if (rc != 0) return rc;
    EXPECT_NE(g_diag_exec.state, EXEC_IDLE);
    for (int i = 0; i < 6000 && __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(g_diag_exec.worker, 0ul);
    return 0;
}

// The steps of a diagnosis log in order: (method, findings text). The
// record dump is not part of the last step.
inline std::vector<std::pair<std::string, std::string>> log_steps(const std::string &log) {
    std::vector<std::pair<std::string, std::string>> steps;
    const std::string head = "\n>>>> ";
    for (size_t at = log.find(head); at != std::string::npos;) {
        const size_t name_start = at + head.size();
        const size_t name_end = log.find(' ', name_start);
        const size_t body = log.find("<<<<\n", name_start);
        if (name_end == std::string::npos || body == std::string::npos) break;
        size_t next = log.find(head, body);
        size_t end = next;
        const size_t dump = log.find("\n>>>>>>> DIAG DATA", body);
        if (dump != std::string::npos && (end == std::string::npos || dump < end)) end = dump;
        steps.emplace_back(
            log.substr(name_start, name_end - name_start),
            log.substr(body + 5, end == std::string::npos ? std::string::npos : end - body - 5));
        at = next;
    }
    return steps;
}
