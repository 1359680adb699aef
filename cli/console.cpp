#include "console.hpp"

#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace zqcli {

Console &console() {
    static Console instance;
    return instance;
}

namespace {

// A duplicate that the library's child processes do not inherit.
int private_dup(int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, 3); }

FILE *private_stream(int fd) {
    const int copy = private_dup(fd);
    if (copy < 0) return nullptr;
    FILE *stream = fdopen(copy, "w");
    if (!stream) close(copy);
    return stream;
}

bool use_colour(ColourMode mode, bool tty) {
    switch (mode) {
    case ColourMode::always:
        return true;
    case ColourMode::never:
        return false;
    case ColourMode::automatic:
        break;
    }
    const char *term = getenv("TERM");
    return tty && !getenv("NO_COLOR") && !(term && std::string_view(term) == "dumb");
}

// Descriptors 1 and 2 for the library and its children.
bool redirect_library_output(bool verbose) {
    fflush(stdout);
    fflush(stderr);
    if (verbose) return dup2(STDERR_FILENO, STDOUT_FILENO) >= 0;
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0) return false;
    const bool ok = dup2(null, STDOUT_FILENO) >= 0 && dup2(null, STDERR_FILENO) >= 0;
    close(null);
    return ok;
}

const char *escape_code(Paint paint) {
    switch (paint) {
    case Paint::plain:
        return "";
    case Paint::bold:
        return "\033[1m";
    case Paint::dim:
        return "\033[2m";
    case Paint::green:
        return "\033[32m";
    case Paint::yellow:
        return "\033[33m";
    case Paint::red:
        return "\033[1;31m";
    case Paint::cyan:
        return "\033[1;36m";
    }
    return "";
}

} // namespace

bool console_init(ColourMode mode, bool verbose) {
    Console &c = console();
    FILE *out = private_stream(STDOUT_FILENO);
    FILE *err = private_stream(STDERR_FILENO);
    if (!out || !err || !redirect_library_output(verbose)) {
        if (out) fclose(out);
        if (err) fclose(err);
        return false;
    }
    setvbuf(err, nullptr, _IOLBF, 0);
    c.out = out;
    c.err = err;
    c.out_is_tty = isatty(fileno(out)) == 1;
    c.colour = use_colour(mode, c.out_is_tty);
    return true;
}

std::string paint(Paint p, std::string_view text) {
    if (!console().colour || p == Paint::plain) return std::string(text);
    std::string painted = escape_code(p);
    painted.append(text);
    painted.append("\033[0m");
    return painted;
}

std::string printable(std::string_view text) {
    std::string safe;
    size_t i = 0;
    for (; i < text.size() && text[i] == '\t'; ++i) safe.append("    ");
    for (; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte < 0x20 && byte != '\t') || byte == 0x7f) {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", byte);
            safe.append(hex);
        } else {
            safe.push_back(static_cast<char>(byte));
        }
    }
    return safe;
}

void say(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vfprintf(console().out, format, ap);
    va_end(ap);
}

void progress(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    vfprintf(console().err, format, ap);
    va_end(ap);
}

void warn(const char *format, ...) {
    FILE *err = console().err;
    fputs("zqdiag: ", err);
    va_list ap;
    va_start(ap, format);
    vfprintf(err, format, ap);
    va_end(ap);
    fputc('\n', err);
}

void console_flush() {
    fflush(console().out);
    fflush(console().err);
}

} // namespace zqcli
