#include "logs.hpp"

#include <algorithm>
#include <cstdio>

#include "text.hpp"
#include "zq_diag.h"

namespace zqinspect {

namespace {

constexpr const char *LEVEL_PREFIXES[] = {"[normal ]", "[success]", "[warn   ]", "[error  ]"};
static_assert(std::size(LEVEL_PREFIXES) == DIAG_MSG_ERROR + 1);
constexpr size_t PREFIX_LEN = 9;
constexpr std::string_view STEP_OPEN = ">>>> ";
constexpr std::string_view STEP_CLOSE = " <<<<";
constexpr std::string_view DUMP_HEADER = ">>>>>>> DIAG DATA <<<<<<<";

int leading_level(std::string_view text) {
    for (unsigned level = 0; level < std::size(LEVEL_PREFIXES); ++level)
        if (text.starts_with(LEVEL_PREFIXES[level])) return static_cast<int>(level);
    return -1;
}

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> out;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        out.push_back(text.substr(0, nl));
        if (nl == std::string_view::npos) break;
        text.remove_prefix(nl + 1);
    }
    return out;
}

} // namespace

const char *level_name(unsigned level) {
    static constexpr const char *NAMES[] = {"normal", "success", "warn", "error"};
    return level < std::size(NAMES) ? NAMES[level] : "unknown";
}

DiagLog parse_diag_log(std::string_view text) {
    DiagLog log;
    bool in_dump = false;
    std::string section;
    unsigned record = 0;
    std::vector<std::string> keys;
    for (std::string_view line : lines_of(text)) {
        if (line == DUMP_HEADER) {
            in_dump = true;
            continue;
        }
        if (line.starts_with(STEP_OPEN) && line.ends_with(STEP_CLOSE) &&
            line.size() >= STEP_OPEN.size() + STEP_CLOSE.size()) {
            std::string_view inner =
                line.substr(STEP_OPEN.size(), line.size() - STEP_OPEN.size() - STEP_CLOSE.size());
            const size_t blank = inner.rfind(' ');
            Step step;
            step.method = std::string(blank == std::string_view::npos ? inner : inner.substr(0, blank));
            step.action = blank == std::string_view::npos ? "" : std::string(inner.substr(blank + 1));
            log.steps.push_back(std::move(step));
            in_dump = false;
            continue;
        }
        if (line.empty()) continue;
        if (in_dump) {
            if (line.starts_with("====")) {
                const size_t b = line.find_first_not_of("= "), e = line.find_last_not_of("= ");
                section = b == std::string_view::npos ? "" : std::string(line.substr(b, e - b + 1));
                record = 0;
                keys.clear();
                continue;
            }
            if (line.starts_with(">> ")) continue; // the port number: records are counted below
            const size_t eq = line.find(" = ");
            if (eq == std::string_view::npos) continue;
            const std::string key(line.substr(0, eq));
            // A key seen again starts the next record of the section.
            if (std::find(keys.begin(), keys.end(), key) != keys.end()) {
                ++record;
                keys.clear();
            }
            keys.push_back(key);
            log.facts.push_back({section, record + 1, key, std::string(line.substr(eq + 3))});
            continue;
        }
        int level = leading_level(line);
        if (level < 0) {
            // A detail line written without its own level, or text before
            // the first step: it continues the finding before it.
            if (!log.steps.empty() && !log.steps.back().findings.empty())
                log.steps.back().findings.back().text += "\n" + std::string(line);
            continue;
        }
        if (log.steps.empty()) log.steps.push_back({});
        // An entry whose text formatted to nothing has no newline, so the
        // next entry follows on the same line.
        while (level >= 0) {
            line.remove_prefix(PREFIX_LEN);
            const int next = leading_level(line);
            if (next < 0) {
                log.steps.back().findings.push_back({static_cast<unsigned>(level), std::string(line)});
                break;
            }
            log.steps.back().findings.push_back({static_cast<unsigned>(level), ""});
            level = next;
        }
    }
    return log;
}

std::vector<Command> parse_commands(std::string_view text, const std::string &source) {
    // Each entry: "cmd: [COMMAND]\n", the output, and (in the command log)
    // "\n\n". An output may itself hold blank lines, so an entry runs to
    // the next header at the start of a line.
    std::vector<Command> out;
    constexpr std::string_view HEAD = "cmd: [";
    size_t pos = text.starts_with(HEAD) ? 0 : text.find("\ncmd: [");
    if (pos != 0 && pos != std::string_view::npos) ++pos;
    while (pos != std::string_view::npos && pos < text.size()) {
        const size_t close = text.find("]\n", pos);
        const size_t line_end = text.find('\n', pos);
        if (close == std::string_view::npos || close > line_end) {
            // A header whose command holds "]" or that is cut short: the
            // command runs to the last "]" of the line.
            const std::string_view line = text.substr(pos, line_end - pos);
            const size_t last = line.rfind(']');
            if (last == std::string_view::npos || last < HEAD.size()) break;
            Command c{source, std::string(line.substr(HEAD.size(), last - HEAD.size())), {}};
            const size_t body = line_end == std::string_view::npos ? text.size() : line_end + 1;
            size_t next = text.find("\ncmd: [", body == 0 ? 0 : body - 1);
            c.output = std::string(
                text.substr(body, next == std::string_view::npos ? std::string_view::npos : next - body + 1));
            out.push_back(std::move(c));
            pos = next == std::string_view::npos ? next : next + 1;
            continue;
        }
        Command c{source, std::string(text.substr(pos + HEAD.size(), close - pos - HEAD.size())), {}};
        const size_t body = close + 2;
        size_t next = text.find("\ncmd: [", body - 1);
        std::string_view output =
            text.substr(body, next == std::string_view::npos ? std::string_view::npos : next - body + 1);
        while (output.ends_with('\n')) output.remove_suffix(1);
        c.output = std::string(output);
        out.push_back(std::move(c));
        pos = next == std::string_view::npos ? next : next + 1;
    }
    return out;
}

UploadName parse_upload_name(std::string_view name) {
    UploadName u;
    const size_t slash = name.rfind('/');
    if (slash != std::string_view::npos) name.remove_prefix(slash + 1);
    if (name.starts_with("cap_") && name.ends_with(".pcap")) {
        const std::string_view n = name.substr(4, name.size() - 9);
        if (!n.empty() && n.find_first_not_of("0123456789") == std::string_view::npos) {
            u.kind_hint = "capture_file";
            u.rotate_number = std::string(n);
        }
        return u;
    }
    size_t digits = 0;
    while (digits < name.size() && name[digits] >= '0' && name[digits] <= '9') ++digits;
    const std::string_view rest = name.substr(digits);
    if (rest.starts_with("dia"))
        u.kind_hint = "diagnosis";
    else if (rest.starts_with("cap"))
        u.kind_hint = "capture";
    if (digits < 6 || digits > 8) return u;
    u.stamp = std::string(name.substr(0, digits));
    // Hour and minute are always two digits each; month and day share what
    // is before them, the month without a leading zero.
    const std::string_view md = std::string_view(u.stamp).substr(0, digits - 4);
    const int hour = std::stoi(u.stamp.substr(digits - 4, 2));
    const int minute = std::stoi(u.stamp.substr(digits - 2, 2));
    if (hour > 23 || minute > 59) return u;
    for (size_t mlen = 1; mlen <= 2 && mlen < md.size(); ++mlen) {
        if (md[0] == '0') break;
        const int month = std::stoi(std::string(md.substr(0, mlen)));
        const std::string_view day_text = md.substr(mlen);
        if (day_text.size() > 2) continue;
        const int day = std::stoi(std::string(day_text));
        if (month < 1 || month > 12 || day < 1 || day > 31) continue;
        char buf[32];
        snprintf(buf, sizeof(buf), "%02d-%02d %02d:%02d", month, day, hour, minute);
        u.times.emplace_back(buf);
    }
    return u;
}

} // namespace zqinspect
