// One uploaded archive read as a report: what the upload's name says, the
// gateway's facts, each step's findings, the commands with their output,
// and the DHCP and PPPoE ladders of its captures.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "archive.hpp"
#include "exchange.hpp"
#include "logs.hpp"

namespace zqinspect {

// The JSON report's schema: its name and version are the first two keys of
// every report and NDJSON line (inspect/README.md describes it).
inline constexpr const char *REPORT_SCHEMA = "zqdiag-inspect.report";
inline constexpr int REPORT_SCHEMA_VERSION = 1;

struct CaptureInfo {
    std::string name;
    std::string link_type;
    uint64_t size = 0;
    uint64_t dhcp_messages = 0;
    uint64_t pppoe_messages = 0;
};

struct Report {
    std::string name; // the upload's file name
    uint64_t size = 0;
    std::string sha256;
    UploadKind kind = UploadKind::unknown;
    UploadName upload;
    std::vector<std::pair<std::string, uint64_t>> members;
    DiagLog log;
    std::vector<Command> commands;
    std::vector<CaptureInfo> captures;
    std::vector<Exchange> exchanges;
    std::vector<std::string> notes; // text files that were not clean text, and the like
};

std::string sha256_hex(std::string_view data);

// Reads the upload `data` named `name` (refusing hostile input: Refusal).
Report build_report(std::string_view data, const std::string &name, const ArchiveCaps &caps = {});

// The gateway's facts most asked for, from the record dump: "" when absent.
std::string fact(const Report &report, std::string_view key, unsigned record = 1);

nlohmann::ordered_json report_json(const Report &report);
std::string render_text(const Report &report, bool colour);
std::string render_json(const Report &report);
std::string render_html(const Report &report);

} // namespace zqinspect
