#include "engine/log.h"

#include <cstdarg>
#include <cstdio>

#include "engine/util.h"

namespace zq {

namespace {

// Each line is formatted into one buffer and written with a single call, so
// lines of concurrent threads do not interleave inside a line.
void write_log_line(const char *lead, const char *func, int line, const char *fmt, va_list ap) {
    char buf[1024];
    int n = ZQ_FORMAT(buf, "%s![%s %d] ", lead, func ? func : "?", line);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(buf)) n = 0;
    int m = vsnprintf(buf + n, sizeof(buf) - static_cast<size_t>(n), fmt, ap);
    size_t len = static_cast<size_t>(n);
    if (m > 0) len += static_cast<size_t>(m);
    if (len > sizeof(buf) - 2) len = sizeof(buf) - 2;
    buf[len++] = '\n';
    fwrite(buf, 1, len, stdout);
    fflush(stdout);
}

} // namespace

void zq_log_line(const char *func, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    write_log_line("", func, line, fmt, ap);
    va_end(ap);
}

void zq_log_line_break(const char *func, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    write_log_line("\n", func, line, fmt, ap);
    va_end(ap);
}

void zq_log_plain(const char *fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int m = vsnprintf(buf, sizeof(buf) - 1, fmt, ap);
    va_end(ap);
    size_t len = m > 0 ? static_cast<size_t>(m) : 0;
    if (len > sizeof(buf) - 2) len = sizeof(buf) - 2;
    buf[len++] = '\n';
    fwrite(buf, 1, len, stdout);
    fflush(stdout);
}

} // namespace zq
