// The technical log: one line per event on standard output, prefixed with
// "![function line] ". A few busy notices are printed as plain lines.
#pragma once

namespace zq {

[[gnu::format(printf, 3, 4)]] void zq_log_line(const char *func, int line, const char *fmt, ...);
[[gnu::format(printf, 1, 2)]] void zq_log_plain(const char *fmt, ...);
// The same line as zq_log_line, after an empty line of its own (a few
// notices of the capture and upload threads stand out that way).
[[gnu::format(printf, 3, 4)]] void zq_log_line_break(const char *func, int line, const char *fmt, ...);

#define ZQ_LOG(...) ::zq::zq_log_line(__func__, __LINE__, __VA_ARGS__)
#define ZQ_LOG_BREAK(...) ::zq::zq_log_line_break(__func__, __LINE__, __VA_ARGS__)
// For lines written on behalf of a named caller (the record reading pattern).
#define ZQ_LOG_AS(func, ...) ::zq::zq_log_line((func), __LINE__, __VA_ARGS__)

} // namespace zq
