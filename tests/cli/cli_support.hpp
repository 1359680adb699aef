// Running zqdiag as a subprocess inside the gateway lab, and reading what it
// printed: shared by the command's test files.
#pragma once

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace cli_support {

// ---- Running the tool -------------------------------------------------------

struct CliResult {
    int status = -1; // exit status; 128 + N when signal N ended it
    std::string out;
    std::string err;
};

inline constexpr const char *OUT_FILE = "/tmp/zqdiag_cli.out";
inline constexpr const char *ERR_FILE = "/tmp/zqdiag_cli.err";

inline std::string quote(const std::string &arg) {
    std::string quoted = "'";
    for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

inline std::string command_line(const std::vector<std::string> &args) {
    std::string line = std::string("exec ") + ZQ_CLI_COMMAND;
    for (const std::string &arg : args) line += " " + quote(arg);
    return line + " >" + OUT_FILE + " 2>" + ERR_FILE;
}

inline int exit_status(int wait_status) {
    if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
    if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
    return -1;
}

// Starts the tool in the background; its output goes to OUT_FILE/ERR_FILE.
inline pid_t spawn(const std::vector<std::string> &args) {
    const std::string line = command_line(args);
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

// Waits for the tool, a minute at most: one still running then is killed, so
// that a hang fails the test instead of stalling it.
inline CliResult collect(pid_t pid) {
    CliResult result;
    int wait_status = 0;
    pid_t done = 0;
    for (int i = 0; i < 60000 && pid > 0 && (done = waitpid(pid, &wait_status, WNOHANG)) == 0; ++i)
        usleep(1000);
    if (done == 0 && pid > 0) {
        kill(pid, SIGKILL);
        done = waitpid(pid, &wait_status, 0);
    }
    if (done == pid) result.status = exit_status(wait_status);
    result.out = zqlab::read_file(OUT_FILE);
    result.err = zqlab::read_file(ERR_FILE);
    return result;
}

inline CliResult cli(const std::vector<std::string> &args) { return collect(spawn(args)); }

inline bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// ---- Findings ---------------------------------------------------------------

inline constexpr const char *LEVEL_PREFIXES[] = {"[normal ]", "[success]", "[warn   ]", "[error  ]"};

inline bool starts_with_level(const std::string &text) {
    for (const char *prefix : LEVEL_PREFIXES)
        if (text.rfind(prefix, 0) == 0) return true;
    return false;
}

// The findings of the diagnosis log, "[level  ]text" (no line of the record
// dump starts so).
inline std::vector<std::string> log_findings(const std::string &log) {
    std::vector<std::string> findings;
    for (const std::string &line : lines_of(log))
        if (starts_with_level(line)) findings.push_back(line);
    return findings;
}

// The findings the tool showed, back in the log's form: the tool indents
// them and puts a blank between the level and the text.
inline std::vector<std::string> shown_findings(const std::string &out) {
    std::vector<std::string> findings;
    for (const std::string &line : lines_of(out)) {
        const size_t start = line.find_first_not_of(' ');
        if (start == std::string::npos || !starts_with_level(line.substr(start))) continue;
        std::string finding = line.substr(start);
        if (finding.size() > 9 && finding[9] == ' ') finding.erase(9, 1);
        findings.push_back(finding);
    }
    return findings;
}

// ---- The permit and the lab -------------------------------------------------

inline bool permit_taken() { return is_diag_permit_holding() == 1; }

// diagM answers nothing and hangs: a diagnosis stays in its first step.
inline void hang_diagnosis_manager() {
    zqlab::write_file("/run/zqlab/override/diagM", "#!/bin/sh\nexec sleep 60\n");
    ASSERT_EQ(zqlab::run_status("chmod +x /run/zqlab/override/diagM"), 0);
}

// The WAN steps ping; what they find, not how long it takes, is tested here.
inline void fast_pings() { zqlab::set("ping.interval", "0.2"); }

} // namespace cli_support
