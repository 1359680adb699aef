// Checks of the text that the gateway's tools print and its small status
// files hold, before the library uses it: how such text is shown in a log
// line, numbers that must be plain, and addresses that must be addresses.
#pragma once

#include <cstddef>
#include <string_view>

namespace zq {

// A value as a log line shows it. Outside text may hold line ends,
// control bytes or megabytes: the log line shows at most its first 40
// characters, every byte that is not printable ASCII as '?', and "..." when
// it was cut, so that one event stays one line.
struct shown_text {
    char text[48];
};
shown_text shown(std::string_view value);

// A number that a tool printed or a file holds, read as atoi reads it (the
// leading number, 0 when there is none). Text that is more than a plain
// decimal number (blanks around it are fine) gets a log line under `caller`
// naming `what` and saying what it was read as: the rest is refused, never
// used. Empty text is no answer and reads as 0 without a line.
int read_number(const char *caller, const char *what, std::string_view text);

// A network interface name as the kernel takes one: 1 to 15 letters,
// digits, '_', '.' or '-', never a leading '-' (an option to the program it
// is handed to), and neither "." nor "..".
bool is_interface_name(std::string_view name);

// A process name as the process list matches it: the same rule, since the
// kernel keeps 15 characters of a process's name.
inline bool is_process_name(std::string_view name) { return is_interface_name(name); }

// Exactly one IPv4 address in dotted-quad form.
bool is_ipv4_address(std::string_view text);
// Exactly one IPv6 address, optionally with a "%interface" scope.
bool is_ipv6_address(std::string_view text);

} // namespace zq
