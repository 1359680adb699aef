// The word classes of the text that uploads put into shell commands and into
// the FTP script, and the shape of an upload URL. Pure checks with no log
// and no state, inline, so that a management tool can judge a URL before it
// hands it to the library, by the same rules.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "engine/util.h"
#include "zq_diag.h"

namespace zq {

// Every piece of text that an upload puts into a shell command or into the
// FTP script has a word class; `accept_upload_word` refuses (with a log line
// naming the field) whatever is not one plain word of its class.
enum class upload_word : uint8_t {
    url,         // the whole URL: scheme, credentials, host, port and path characters
    credential,  // FTP user name or password
    host,        // host name or address
    server_path, // directory on the server, from '/'
    local_path,  // full path of a file on the gateway
    file_name,   // one name without a directory
};

// What an upload's log lines say when it fails, for the tools that read the
// log to name the cause.
namespace upload_log {
constexpr const char *REFUSED = "refused ";
constexpr const char *NO_ARCHIVE = "does not exist and cannot be renamed or uploaded";
constexpr const char *FILE_MISSING = "is not exist";
constexpr const char *HOST_UNRESOLVED = "Can't parse Upload Hostname";
constexpr const char *URL_NOT_PARSED = "wput url parse error";
constexpr const char *UNKNOWN_PROTOCOL = "unknown protocol";
constexpr const char *FTP_SCRIPT_FAILED = "run_ftp_sh error";
constexpr const char *FTP_FAILED = "ftp upload error";
constexpr const char *FTP_SILENT = "ftp buffer is empty";
constexpr const char *WPUT_FAILED = "wput upload error";
constexpr const char *TFTP_FAILED = "tftp error";
constexpr const char *CLOCK_UNSYNCED = "time_sync fail !!";
} // namespace upload_log

constexpr uint32_t MAX_UPLOAD_PORT = 65535;
// The host part of a URL (name and port) is read up to this length.
constexpr size_t MAX_UPLOAD_HOST_PART = 63;
constexpr size_t MAX_UPLOAD_CREDENTIAL = sizeof(upload_params::user) - 1;
// The parser keeps this much of the server path (for the FTP script); wput
// is handed the whole URL.
constexpr size_t MAX_UPLOAD_PATH = sizeof(upload_params::path) - 1;

struct upload_word_rule {
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
inline constexpr upload_word_rule UPLOAD_WORD_RULES[] = {
    {upload_word::url, "_.-/:@", false, false, true, true},
    {upload_word::credential, "_.-", false, false, false, false},
    {upload_word::host, "_.-:", false, false, true, false},
    {upload_word::server_path, "_.-/", true, false, false, true},
    {upload_word::local_path, "_.-/", true, false, false, true},
    {upload_word::file_name, "_.-", false, true, false, false},
};

// A ".." that stands between slashes (or at either end).
inline bool climbs(std::string_view path) {
    for (size_t at = path.find(".."); at != std::string_view::npos; at = path.find("..", at + 1)) {
        const bool starts = at == 0 || path[at - 1] == '/';
        const bool ends = at + 2 == path.size() || path[at + 2] == '/';
        if (starts && ends) return true;
    }
    return false;
}

// Why `text` is not one plain word of class `kind` ("not a plain word",
// "begins with '-'", "holds a '..' component"), or nullptr when it is.
inline const char *upload_word_problem(upload_word kind, std::string_view text) {
    for (const upload_word_rule &rule : UPLOAD_WORD_RULES) {
        if (rule.kind != kind) continue;
        bool plain = is_word_of(text, rule.extra) && (!rule.rooted || text.front() == '/') &&
                     (!rule.dots_forbidden || (text != "." && text != ".."));
        if (!plain) return "not a plain word";
        if (rule.no_option && text.front() == '-') return "begins with '-'";
        if (rule.no_climb && climbs(text)) return "holds a '..' component";
        return nullptr;
    }
    return "no word class";
}

// Why `url` cannot name an upload server, as a short reason, or nullptr
// when the library's parser takes it whole: "ftp://[USER:PASSWORD@]HOST
// [:PORT][/PATH]" or "tftp://..." in the 63 characters of the control
// block's field, each part one plain word of its class, the port 1 to
// 65535, and the server path (with the '/' the parser appends) within the
// 19 characters the parser keeps. Whether a host name resolves is for the
// gateway to find out.
inline const char *upload_url_problem(std::string_view url) {
    if (url.empty()) return "the URL is empty";
    if (url.size() >= sizeof(diag_exec_ctl::url)) return "the URL is longer than 63 characters";
    size_t scheme = 0;
    if (url.starts_with("ftp://"))
        scheme = 6;
    else if (url.starts_with("tftp://"))
        scheme = 7;
    else
        return "the URL must begin with ftp:// or tftp://";
    if (upload_word_problem(upload_word::url, url))
        return "the URL may hold only letters, digits and _ . - / : @, and no '..' component";
    // The parser appends a '/' to a URL that has room for it.
    const bool slash_added = url.back() != '/';
    if (slash_added && url.size() > sizeof(diag_exec_ctl::url) - 2)
        return "the URL has no room for its final '/'";

    size_t host_start = scheme;
    if (const size_t at = url.find('@'); at != std::string_view::npos) {
        const std::string_view auth = slice(url, scheme, at);
        const size_t colon = auth.find(':');
        if (colon == std::string_view::npos || colon == 0) return "the credentials must read USER:PASSWORD@";
        const std::string_view user = slice(auth, 0, colon);
        const std::string_view password = slice(auth, colon + 1);
        if (user.size() > MAX_UPLOAD_CREDENTIAL || password.size() > MAX_UPLOAD_CREDENTIAL)
            return "the user name and the password are at most 19 characters each";
        if (upload_word_problem(upload_word::credential, user) ||
            (!password.empty() && upload_word_problem(upload_word::credential, password)))
            return "the user name and the password may hold only letters, digits and _ . -";
        host_start = at + 1;
    }
    const size_t host_end = url.find('/', host_start);
    const std::string_view host_part = slice(url, host_start, host_end);
    if (host_part.empty()) return "the URL names no server";
    if (host_part.size() > MAX_UPLOAD_HOST_PART) return "the server's name is longer than 63 characters";
    const size_t colon = host_part.find(':');
    const std::string_view host = slice(host_part, 0, colon);
    if (host.empty() || upload_word_problem(upload_word::host, host))
        return "the server's name may hold only letters, digits and _ . -, and not begin with '-'";
    if (colon != std::string_view::npos) {
        const std::string_view port = slice(host_part, colon + 1);
        // The library reads the port as atoi does (trailing text ignored, 0
        // or none for the scheme's port); a URL meant for it holds a plain
        // port from 1 to 65535.
        if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != port.npos ||
            parse_u64_prefix(port) == 0 || parse_u64_prefix(port) > MAX_UPLOAD_PORT)
            return "the port must be a number from 1 to 65535";
    }
    const size_t path_size = (host_end == std::string_view::npos ? 0 : url.size() - host_end) + slash_added;
    if (path_size > MAX_UPLOAD_PATH)
        return "the server path (with its final '/') is longer than 19 characters";
    return nullptr;
}

} // namespace zq
