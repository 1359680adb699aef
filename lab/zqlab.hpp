// Helpers for tests that run inside the gateway lab (lab/run). They talk to
// the lab only through files and shell commands, so they work the same in a
// native build and in a cross build run under an emulator.
//
// A helper that cannot do what it is asked (not inside a lab, a bad key, a
// file that cannot be written) prints why on stderr and aborts the test
// process: each lab test case runs in a process of its own.
#pragma once

#include <string>
#include <vector>

namespace zqlab {

// True when the calling process runs inside a lab.
bool inside();

// Resets the whole gateway to a scenario: a name from lab/scenarios or the
// path of a scenario file (see lab/README.md).
void scenario(const std::string &name);

// Sets one key and applies it at once (files rewritten, daemons started or
// stopped, the alarm word stored, ...). Keys that start with '/' are files.
void set(const std::string &key, const std::string &value);
// Stores a key's value exactly as given (any bytes, NULs included) and
// applies nothing: the gateway's tools answer it from now on, but the
// network, daemons and derived files stay as they are. For feeding the
// library answers no real gateway would give (injection payloads), fast.
void put(const std::string &key, const std::string &value);
// Removes a key (a file key deletes the file).
void unset(const std::string &key);
// The key's value exactly as stored, "" when the key is not set.
std::string get(const std::string &key);
bool has(const std::string &key);

// The journal of the simulated tools, oldest first, as "TOOL ARGS..." (the
// timestamp dropped); with a tool name only that tool's lines.
std::vector<std::string> journal(const std::string &tool = "");
// The journal's raw lines: "UPTIME TOOL ARGS...".
std::vector<std::string> journal_lines();
void clear_journal();

// Whole file content, "" when it cannot be read.
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);
// Creates or replaces a file (parent directories are created).
void write_file(const std::string &path, const std::string &content);

// SIGUSR2 signals the diagnosis manager has received so far (every signal
// already sent is counted); -1 when no manager runs.
int sigusr2_count();

// Standard output of a shell command run with /bin/sh -c. Commands run this
// way are journaled like any other.
std::string run(const std::string &cmd);
// Exit status of a shell command (-1 when it did not exit normally).
int run_status(const std::string &cmd);

// The ISP side of the lab (lab/README.md, "The ISP side"): standard output
// and exit status of a shell command run in the ISP's network namespace,
// where the WAN gateways, the root servers and the ISP's name server live
// and where ISP-side programs keep their files (/run/zqlab/isp). Not
// journaled.
std::string isp_run(const std::string &cmd);
int isp_run_status(const std::string &cmd);

// Starts one more instance of a daemon / stops every instance ("diagM" is
// the diagnosis manager). Neither changes the "daemons" key.
void start(const std::string &daemon);
void stop(const std::string &daemon);
// Process ids whose name is exactly `name`, ascending.
std::vector<int> pids(const std::string &name);

// The alarm word as it stands in shared memory.
unsigned alarm_word();

} // namespace zqlab
