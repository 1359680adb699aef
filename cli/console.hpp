// The tool's output streams and colours.
//
// The library writes its technical log to the process's standard output,
// and the shell commands it runs inherit the standard descriptors (daemons
// restarted by a repair keep them open for as long as they live). The tool
// therefore keeps private duplicates of its standard output and error for
// itself and points descriptors 1 and 2 elsewhere before it calls the
// library: its own output, JSON included, stays clean, and a pipe reading
// the tool ends when the tool ends.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace zqcli {

enum class ColourMode { automatic, always, never };
enum class Paint { plain, bold, dim, green, yellow, red, cyan };

struct Console {
    FILE *out = stdout;
    FILE *err = stderr;
    bool out_is_tty = false; // transient status lines only on a terminal
    bool colour = false;
};

Console &console();

// Takes over the standard streams (see above). The library's own output goes
// to the original standard error with `verbose`, else nowhere. Returns false
// when the descriptors cannot be duplicated; the streams stay as they were.
bool console_init(ColourMode mode, bool verbose);

// `text` wrapped in the escape codes of `paint` when colour is on.
std::string paint(Paint paint, std::string_view text);

// Text made safe for a terminal: control characters other than tab become
// \xNN, leading tabs become four blanks each.
std::string printable(std::string_view text);

[[gnu::format(printf, 1, 2)]] void say(const char *format, ...);  // to out
[[gnu::format(printf, 1, 2)]] void warn(const char *format, ...); // "zqdiag: " + text to err
// Progress of a long command (what it is doing, the states it passes
// through): to err, so that out carries only the command's answer.
[[gnu::format(printf, 1, 2)]] void progress(const char *format, ...);

// Writes everything still buffered; used before the process ends.
void console_flush();

} // namespace zqcli
