// The word classes of the text that uploads put into shell commands and into
// the FTP script. Outside text (the URL and its parts, the control block's
// file name, names built from them) must be one plain word of its class; the
// rest is refused with a log line, never quoted or escaped.
#include <cstdarg>
#include <cstdio>

#include "engine/log.h"
#include "engine/util.h"
#include "upload/upload.h"

namespace zq {

bool accept_upload_word(const char *caller, upload_word kind, const char *field, std::string_view text) {
    const char *problem = zq::upload_word_problem(kind, text);
    if (problem) ZQ_LOG_AS(caller, "refused %s: %s", field, problem);
    return problem == nullptr;
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

} // namespace zq
