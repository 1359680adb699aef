#include "diag_log.hpp"

#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

#include "zq_diag.h"

namespace zqcli {

// ---- LogFollower ------------------------------------------------------------

LogFollower::~LogFollower() { close_file(); }

void LogFollower::close_file() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    offset_ = 0;
}

void LogFollower::start() {
    close_file();
    partial_.clear();
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) return;
    struct stat st {};
    offset_ = fstat(fd_, &st) == 0 ? st.st_size : 0;
}

bool LogFollower::replaced() const {
    struct stat open_file {
    }, named{};
    if (fstat(fd_, &open_file) != 0 || stat(path_.c_str(), &named) != 0) return true;
    return open_file.st_dev != named.st_dev || open_file.st_ino != named.st_ino;
}

void LogFollower::read_new(std::vector<std::string> &lines) {
    struct stat st {};
    if (fstat(fd_, &st) == 0 && st.st_size < offset_) offset_ = 0; // truncated in place
    char buf[4096];
    for (;;) {
        const ssize_t n = pread(fd_, buf, sizeof(buf), offset_);
        if (n <= 0) break;
        offset_ += n;
        partial_.append(buf, static_cast<size_t>(n));
    }
    size_t begin = 0;
    for (size_t nl; (nl = partial_.find('\n', begin)) != std::string::npos; begin = nl + 1)
        lines.emplace_back(partial_, begin, nl - begin);
    partial_.erase(0, begin);
}

void LogFollower::flush_partial(std::vector<std::string> &lines) {
    if (!partial_.empty()) lines.push_back(std::move(partial_));
    partial_.clear();
}

void LogFollower::poll(std::vector<std::string> &lines) {
    if (fd_ >= 0) {
        read_new(lines);
        if (!replaced()) return;
        // The rest of the old file is read; the new one is this run's.
        flush_partial(lines);
        close_file();
    }
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ >= 0) read_new(lines);
}

void LogFollower::finish(std::vector<std::string> &lines) {
    poll(lines);
    flush_partial(lines);
}

// ---- LogParser --------------------------------------------------------------

namespace {

static_assert(DIAG_MSG_ERROR + 1 == LEVEL_COUNT);
constexpr auto &LEVEL_PREFIXES = zq::ZQ_LEVEL_PREFIX;
static_assert(std::size(LEVEL_PREFIXES) == LEVEL_COUNT);
constexpr size_t PREFIX_LEN = zq::ZQ_LEVEL_PREFIX_LEN;
constexpr std::string_view STEP_OPEN = ">>>> ";
constexpr std::string_view STEP_CLOSE = " <<<<";
constexpr std::string_view DUMP_HEADER = ">>>>>>> DIAG DATA <<<<<<<";

// The level whose prefix starts `text`, or -1.
int leading_level(std::string_view text) {
    for (unsigned level = 0; level < LEVEL_COUNT; ++level)
        if (text.starts_with(LEVEL_PREFIXES[level])) return static_cast<int>(level);
    return -1;
}

bool parse_step(std::string_view line, LogLine &out) {
    if (!line.starts_with(STEP_OPEN) || !line.ends_with(STEP_CLOSE) ||
        line.size() < STEP_OPEN.size() + STEP_CLOSE.size())
        return false;
    std::string_view inner =
        line.substr(STEP_OPEN.size(), line.size() - STEP_OPEN.size() - STEP_CLOSE.size());
    const size_t blank = inner.rfind(' ');
    out.kind = LineKind::step;
    out.method = std::string(blank == std::string_view::npos ? inner : inner.substr(0, blank));
    out.action = std::string(blank == std::string_view::npos ? std::string_view{} : inner.substr(blank + 1));
    return true;
}

// An entry whose text formatted to nothing has no newline, so the next entry
// follows on the same line: "[error  ][normal ]text" holds two findings.
bool parse_findings(std::string_view line, LogLine &out) {
    int level = leading_level(line);
    if (level < 0) return false;
    out.kind = LineKind::finding;
    while (level >= 0) {
        line.remove_prefix(PREFIX_LEN);
        const int next = leading_level(line);
        if (next < 0) {
            out.findings.push_back({static_cast<unsigned>(level), std::string(line)});
            break;
        }
        out.findings.push_back({static_cast<unsigned>(level), std::string()});
        level = next;
    }
    return true;
}

} // namespace

const char *level_prefix(unsigned level) { return level < LEVEL_COUNT ? LEVEL_PREFIXES[level] : "[?      ]"; }

LogLine LogParser::parse(std::string_view line) {
    LogLine out;
    if (line == DUMP_HEADER) {
        in_dump_ = true;
        out.kind = LineKind::dump_header;
        return out;
    }
    if (parse_step(line, out)) {
        in_dump_ = false;
        return out;
    }
    if (line.empty()) return out;
    if (in_dump_) {
        out.kind = LineKind::dump;
        out.text = std::string(line);
        return out;
    }
    if (parse_findings(line, out)) return out;
    out.kind = LineKind::detail;
    out.text = std::string(line);
    return out;
}

} // namespace zqcli
