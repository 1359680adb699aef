// The word classes of the text that uploads put into shell commands and into
// the FTP script. Outside text (the URL and its parts, the control block's
// file name, names built from them) must be one plain word of its class; the
// rest is refused with a log line, never quoted or escaped.
#include <cstdarg>
#include <cstdio>

#include "engine/log.h"
#include "engine/util.h"
#include "upload/upload.h"

namespace {

struct word_rule {
    upload_word kind;
    const char *extra;   // allowed besides letters and digits
    bool rooted;         // must begin with '/'
    bool dots_forbidden; // "." and ".." alone are refused
    bool no_option;      // must not begin with '-' (a program would take it for an option)
    bool no_climb;       // no ".." between slashes: a path never climbs out of where it points
};

// Credentials keep to letters, digits and "_.-": wput reads the URL with
// its own escapes (%XX) and separators (: @ /), so anything more would
// reach the server differently through wput than through the FTP script.
// The URL is wput's last argument, the host the route command's: either
// beginning with '-' would be read as an option.
constexpr word_rule WORD_RULES[] = {
    {upload_word::url, "_.-/:@", false, false, true, true},
    {upload_word::credential, "_.-", false, false, false, false},
    {upload_word::host, "_.-:", false, false, true, false},
    {upload_word::server_path, "_.-/", true, false, false, true},
    {upload_word::local_path, "_.-/", true, false, false, true},
    {upload_word::file_name, "_.-", false, true, false, false},
};

// A ".." that stands between slashes (or at either end).
bool climbs(std::string_view path) {
    for (size_t at = path.find(".."); at != std::string_view::npos; at = path.find("..", at + 1)) {
        const bool starts = at == 0 || path[at - 1] == '/';
        const bool ends = at + 2 == path.size() || path[at + 2] == '/';
        if (starts && ends) return true;
    }
    return false;
}

} // namespace

bool accept_upload_word(const char *caller, upload_word kind, const char *field, std::string_view text) {
    for (const word_rule &rule : WORD_RULES) {
        if (rule.kind != kind) continue;
        bool ok = zq::is_word_of(text, rule.extra) && (!rule.rooted || text.front() == '/') &&
                  (!rule.dots_forbidden || (text != "." && text != ".."));
        if (!ok) {
            ZQ_LOG_AS(caller, "refused %s: not a plain word", field);
        } else if (rule.no_option && text.front() == '-') {
            ZQ_LOG_AS(caller, "refused %s: begins with '-'", field);
            ok = false;
        } else if (rule.no_climb && climbs(text)) {
            ZQ_LOG_AS(caller, "refused %s: holds a '..' component", field);
            ok = false;
        }
        return ok;
    }
    ZQ_LOG_AS(caller, "refused %s: no word class", field);
    return false;
}

bool format_cmd(const char *caller, char *cmd, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(cmd, size, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        ZQ_LOG_AS(caller, "refused command: longer than %zu bytes", size - 1);
        if (size) cmd[0] = '\0';
        return false;
    }
    return true;
}
