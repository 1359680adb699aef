// Command-line options: tables of option definitions and a small parser.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zqcli {

struct OptionDef {
    const char *name;       // long name, without "--"
    char short_name;        // 0 when there is none
    const char *value_name; // null for a flag
    const char *help;
};

struct ParsedArgs {
    std::map<std::string, std::string> options; // by long name; flags hold ""
    std::vector<std::string> positionals;

    bool has(const std::string &name) const { return options.count(name) != 0; }
    const std::string *value(const std::string &name) const;
};

// Parses `args` against `defs` ("--name VALUE", "--name=VALUE", "-x VALUE",
// "--" ends the options). With `stop_at_positional` the first positional
// argument and everything after it are left in `positionals` unparsed.
// Returns false with a reason in `error` on an unknown option or a missing
// or unexpected value.
bool parse_args(std::span<char *const> args, std::span<const OptionDef> defs, bool stop_at_positional,
                ParsedArgs &parsed, std::string &error);

// A decimal number in [min, max]: digits only, no sign, no blanks.
std::optional<uint32_t> parse_number(const std::string &text, uint32_t min, uint32_t max);

// The "Options:" lines of a help text.
std::string options_help(std::span<const OptionDef> defs);

} // namespace zqcli
