// Exit statuses of the tool.
#pragma once

namespace zqcli {

inline constexpr int EXIT_OK = 0;
inline constexpr int EXIT_FINDING_ERROR = 1; // an error-level finding, or the command failed
inline constexpr int EXIT_USAGE = 2;
inline constexpr int EXIT_UNAVAILABLE = 3; // the diagnosis could not run
inline constexpr int EXIT_TIMEOUT = 4;
inline constexpr int EXIT_INTERRUPTED = 130;

} // namespace zqcli
