// Reading the diagnosis log (/tmp/diag_file/diag_log) while a run writes it.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "engine/files.h"

namespace zqcli {

inline constexpr const char *DIAG_LOG_PATH = zq::ZQ_DIAG_LOG_PATH;

// Follows a file as it grows, from where it stood when start() was called.
// A diagnosis removes the log and writes a new one, a repair appends to it:
// the follower keeps the file it reads open, so it notices when the path
// names another file and goes on at the start of that one.
class LogFollower {
  public:
    explicit LogFollower(std::string path) : path_(std::move(path)) {}
    ~LogFollower();
    LogFollower(const LogFollower &) = delete;
    LogFollower &operator=(const LogFollower &) = delete;

    // Everything in the file now belongs to earlier runs.
    void start();
    // Appends the complete lines written since the last call.
    void poll(std::vector<std::string> &lines);
    // As poll(), plus a last line that has no newline yet.
    void finish(std::vector<std::string> &lines);

  private:
    void read_new(std::vector<std::string> &lines);
    bool replaced() const;
    void flush_partial(std::vector<std::string> &lines);
    void close_file();

    std::string path_;
    int fd_ = -1;
    off_t offset_ = 0;
    std::string partial_;
};

// One line of the log, classified.
enum class LineKind {
    blank,
    step,        // ">>>> method action <<<<"
    finding,     // one or more levelled entries
    detail,      // a line of a finding without a level prefix
    dump_header, // ">>>>>>> DIAG DATA <<<<<<<": the record dump follows
    dump,        // a line of the record dump
};

struct Finding {
    unsigned level; // DIAG_MSG_NORMAL .. DIAG_MSG_ERROR
    std::string text;
};

struct LogLine {
    LineKind kind = LineKind::blank;
    std::string method; // step
    std::string action; // step: "diag", "fix" or ""
    std::vector<Finding> findings;
    std::string text; // detail, dump
};

inline constexpr unsigned LEVEL_COUNT = 4;
// "[normal ]", "[success]", "[warn   ]", "[error  ]"
const char *level_prefix(unsigned level);

// Classifies the lines of one run in order; the record dump runs from its
// header to the next step header.
class LogParser {
  public:
    LogLine parse(std::string_view line);

  private:
    bool in_dump_ = false;
};

} // namespace zqcli
