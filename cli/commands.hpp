// The subcommands of zqdiag: one table entry each.
#pragma once

#include <span>

#include "options.hpp"

namespace zqcli {

struct Command {
    const char *name;
    const char *synopsis; // what follows "zqdiag NAME" in the usage line
    const char *summary;  // one line, for the tool's help
    const char *details;  // the body of the command's help
    std::span<const OptionDef> options;
    int (*run)(const Command &self, const ParsedArgs &args);
    bool starts_run; // runs a diagnosis or repair: run under a supervisor (see main.cpp)
};

std::span<const Command> commands();
const Command *find_command(const std::string &name);

void print_command_help(const Command &command);
// Prints the reason and the usage line on the error stream; returns 2.
int usage_error(const Command &command, const std::string &reason);

} // namespace zqcli
