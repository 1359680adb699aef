// The text files of a diagnosis package: the diagnosis log (steps, their
// levelled findings, the record dump), the command log and the two
// listings, which use the command log's "cmd: [...]" headers.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zqinspect {

struct Finding {
    unsigned level = 0; // DIAG_MSG_NORMAL .. DIAG_MSG_ERROR
    std::string text;   // raw, as the gateway wrote it; escape to show
};

struct Step {
    std::string method;
    std::string action; // "diag", "fix" or ""
    std::vector<Finding> findings;
};

struct Fact {
    std::string section; // "PON_DIAG_DATA", "WAN_DIAG_DATA", ...
    unsigned record = 1; // 1-based number of the record within its section
    std::string key;     // "pon_status.pon_mode"
    std::string value;
};

struct DiagLog {
    std::vector<Step> steps;
    std::vector<Fact> facts;
};

struct Command {
    std::string source; // "cmd_log", "firewall_stat", "config_stat"
    std::string command;
    std::string output;
};

const char *level_name(unsigned level); // "normal", "success", "warn", "error"

DiagLog parse_diag_log(std::string_view text);
std::vector<Command> parse_commands(std::string_view text, const std::string &source);

// The time an upload's name carries: the gateway names it month, day, hour
// and minute (no year, no leading zero on the month), then the front of
// the archive's name.
struct UploadName {
    std::string kind_hint; // "diagnosis", "capture", "capture_file", "" when the name says nothing
    std::string stamp;     // the digits, "" when the name has none
    // Every reading of the stamp as MM-DD HH:MM; a seven-digit stamp can be
    // read two ways (1 + 2 or 2 + 1 digits of month and day).
    std::vector<std::string> times;
    std::string rotate_number; // "cap_N.pcap": N
};
UploadName parse_upload_name(std::string_view name);

} // namespace zqinspect
