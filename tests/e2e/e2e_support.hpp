// What a management process does with the shipped library, and how the
// end-to-end tests read what it left: the diagnosis log and the records.
#pragma once

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace e2e {

constexpr const char *DIAG_LOG = "/tmp/diag_file/diag_log";

// Starts a run through the control block and waits for its end state, as a
// management process would.
inline int run_and_wait(uint32_t kind, uint32_t mode) {
    g_diag_exec.kind = kind;
    g_diag_exec.mode = mode;
    g_diag_exec.action = 0;
    int rc = diagnose_set();
    if (rc != 0) return rc;
    EXPECT_NE(__atomic_load_n(&g_diag_exec.state, __ATOMIC_ACQUIRE), EXEC_IDLE); // the worker runs
    for (int i = 0; i < 6000 && __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(g_diag_exec.worker, 0ul);
    return 0;
}

inline std::string diag_log() { return zqlab::read_file(DIAG_LOG); }

// The findings of one step in the log: what follows its header up to the
// next header. "(no such step)" when the step is not in the log.
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
    const std::string head = "\n>>>> ", tail = " " + action + " <<<<\n";
    for (size_t at = log.find(head); at != std::string::npos; at = log.find(head, at + 1)) {
        const size_t end = log.find('\n', at + 1);
        const std::string line = log.substr(at, end == std::string::npos ? end : end + 1 - at);
        if (line.size() > head.size() + tail.size() &&
            line.compare(line.size() - tail.size(), tail.size(), tail) == 0)
            names.push_back(line.substr(head.size(), line.size() - head.size() - tail.size()));
    }
    return names;
}

// Copies of the records of one type, in chain order, read the way an
// outside process reads them.
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

inline uint64_t pid_of(const std::string &name) {
    const std::vector<int> ids = zqlab::pids(name);
    return ids.empty() ? 0 : static_cast<uint64_t>(ids.front());
}

// The record dump with the daemons' process ids replaced by "<pid>", each
// checked against the lab's first.
inline std::string masked_pids(std::string log) {
    const std::pair<const char *, std::vector<std::string>> lines[] = {
        {"sys_status.pid_boa = ", {"boa"}},
        {"sys_status.pid_cwmpClient = ", {"cwmpClient"}},
        {"sys_status.pid_omci_oam = ", {"omci_app", "eponoamd"}}};
    for (const auto &[label, names] : lines) {
        const size_t at = log.find(label);
        if (at == std::string::npos) continue;
        const size_t from = at + std::string(label).size();
        const size_t end = log.find('\n', from);
        const uint64_t pid = std::strtoull(log.substr(from, end - from).c_str(), nullptr, 10);
        if (pid == 0) continue;
        bool known = false;
        for (const std::string &name : names) known = known || pid_of(name) == pid;
        EXPECT_TRUE(known) << label << pid;
        log.replace(from, end - from, "<pid>");
    }
    return log;
}

// The expected text of a golden file; ZQ_UPDATE_GOLDEN=1 rewrites it.
inline std::string golden(const std::string &name, const std::string &actual) {
    const std::string path = std::string(ZQ_GOLDEN_DIR) + "/" + name;
    if (getenv("ZQ_UPDATE_GOLDEN")) std::ofstream(path) << actual;
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace e2e
