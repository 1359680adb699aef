// The technical log: one line per event on standard output, prefixed with
// "![function line] ". A few busy notices are printed as plain lines.
#pragma once

[[gnu::format(printf, 3, 4)]] void zq_log_line(const char *func, int line, const char *fmt, ...);
[[gnu::format(printf, 1, 2)]] void zq_log_plain(const char *fmt, ...);

#define ZQ_LOG(...) zq_log_line(__func__, __LINE__, __VA_ARGS__)
// For lines written on behalf of a named caller (the record reading pattern).
#define ZQ_LOG_AS(func, ...) zq_log_line((func), __LINE__, __VA_ARGS__)
