// zqdiag capture: start, stop and watch a packet capture through the
// capture control block g_cap_exec, and upload its archive.
#pragma once

#include "commands.hpp"

namespace zqcli {

extern const OptionDef CAPTURE_OPTIONS[8];
int run_capture(const Command &self, const ParsedArgs &args);

} // namespace zqcli
