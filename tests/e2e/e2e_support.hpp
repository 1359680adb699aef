// What a management process does with the shipped library, and how the tests read the log and records it
// left.
#pragma once

#include <chrono>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace e2e {

// Whether `done` holds within `seconds`.
template <class Done> bool wait_until(Done done, int seconds = 60) {
    for (int i = 0; i < seconds * 50 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return done();
}

inline void wait_for_worker() {
    EXPECT_TRUE(wait_until([] { return __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE) == 0; }));
}

// Starts a run through the control block and waits for its end state, as a management process would.
inline int run_and_wait(uint32_t kind, uint32_t mode) {
    g_diag_exec.kind = kind;
    g_diag_exec.mode = mode;
    g_diag_exec.action = 0;
    int rc = diagnose_set();
    if (rc != 0) return rc;
    EXPECT_NE(__atomic_load_n(&g_diag_exec.state, __ATOMIC_ACQUIRE), EXEC_IDLE); // the worker runs
    wait_for_worker();
    return 0;
}

inline std::string diag_log() { return zqlab::read_file("/tmp/diag_file/diag_log"); }

// The log of a whole diagnosis of `scenario` (the lab as it stands when empty).
inline std::string diagnose(const std::string &scenario) {
    if (!scenario.empty()) zqlab::scenario(scenario);
    zqlab::set("ping.interval", "0.2"); // the verdicts, not the seconds the probes take, are under test
    EXPECT_EQ(run_and_wait(0, 0), 0);
    EXPECT_EQ(g_diag_exec.state, EXEC_DONE);
    return diag_log();
}

// The findings of one step in the log, up to the next header; "(no such step)" when it is not there.
inline std::string step_findings(const std::string &log, const std::string &method,
                                 const std::string &action = "diag") {
    const std::string header = "\n>>>> " + method + " " + action + " <<<<\n";
    const size_t start = log.find(header);
    if (start == std::string::npos) return "(no such step)";
    const size_t from = start + header.size();
    const size_t end = log.find("\n>>>>", from);
    return log.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

// The methods of the log's steps of one action, in order.
inline std::vector<std::string> step_names(const std::string &log, const std::string &action = "diag") {
    std::vector<std::string> names;
    const std::string head = ">>>> ", tail = " " + action + " <<<<";
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);)
        if (line.size() > head.size() + tail.size() && line.starts_with(head) && line.ends_with(tail))
            names.push_back(line.substr(head.size(), line.size() - head.size() - tail.size()));
    return names;
}

// Copies of the records of one type, in chain order, read the way an outside process reads them.
template <class T> std::vector<T> records(uint32_t type) {
    std::vector<T> out;
    const diag_data_node *node = zq_search_diag_record(type);
    EXPECT_TRUE(!node || node->size == sizeof(T));
    for (unsigned i = 0, n = node ? node->count : 0; node && i < n; ++i, node = node->next)
        out.push_back(*static_cast<const T *>(node->data));
    return out;
}

template <class T> T only_record(uint32_t type) {
    const std::vector<T> all = records<T>(type);
    EXPECT_EQ(all.size(), 1u) << "records of type " << type;
    return all.empty() ? T{} : all.front();
}

} // namespace e2e
