// File upload: the URL parser, the three transfer methods (btftp, wput and
// the classic ftp client as wput's fallback), the protocol switch, the host
// route through a chosen WAN, and the checked entry zq_file_upload.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"
#include "upload/upload.h"

namespace zq {

namespace {

constexpr uint32_t TFTP_PORT = 69;
constexpr uint32_t FTP_PORT = 21;
static_assert(sizeof(upload_params::user) == sizeof(upload_params::password));

// What a finished wput prints either way: "FINISHED --time--" closes every
// run, followed by "Transmission of N file(s) failed." when the transfer
// failed or "Skipped N file(s)." when wput left a file of the same size on
// the server alone. Only a FINISHED without those is a transfer; a skipped
// file goes through the FTP fallback, which replaces it.
constexpr const char *WPUT_DONE = "FINISHED";
constexpr const char *WPUT_NOT_SENT[] = {"failed", "Skipped"};

// Runs `cmd` through the command method into `out`.
template <size_t N, size_t M> void run_cmd(const char (&cmd)[N], char (&out)[M]) {
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, N, out, M));
}

using zq::terminated;

// Every field that a transfer puts into a command or the FTP script; empty
// optional fields pass (the transfer methods test what they need).
bool transfer_fields_ok(const upload_params &p) {
    if (!terminated(p.url) || !terminated(p.host) || !terminated(p.user) || !terminated(p.password) ||
        !terminated(p.path) || !terminated(p.local_file) || !terminated(p.remote_file)) {
        ZQ_LOG("refused upload parameters: unterminated text");
        return false;
    }
    struct field {
        upload_word kind;
        const char *name;
        std::string_view text;
    };
    const field fields[] = {
        {upload_word::url, "url", zq::view(p.url)},
        {upload_word::host, "host", zq::view(p.host)},
        {upload_word::credential, "user", zq::view(p.user)},
        {upload_word::credential, "password", zq::view(p.password)},
        {upload_word::server_path, "path", zq::view(p.path)},
        {upload_word::local_path, "local_file", zq::view(p.local_file)},
        {upload_word::file_name, "remote_file", zq::view(p.remote_file)},
    };
    for (const field &f : fields)
        if (!f.text.empty() && !accept_upload_word(__func__, f.kind, f.name, f.text)) return false;
    return true;
}

// Credentials as the URL holds them: "user:password@" after the "//".
int parse_credentials(std::string_view url, size_t at, upload_params &p) {
    size_t slashes = url.find("//");
    if (slashes == std::string_view::npos || slashes + 2 > at) return -1;
    std::string_view auth = zq::slice(url, slashes + 2, at);
    if (auth.empty() || auth.front() == ':') return -1;
    size_t colon = auth.find(':');
    if (colon == std::string_view::npos) return -1;
    std::string_view user = zq::slice(auth, 0, colon);
    std::string_view password = zq::slice(auth, colon + 1);
    // A name that does not fit its field is refused, not cut: a cut
    // password only fails later, at the server, with a misleading error.
    if (user.size() > zq::MAX_UPLOAD_CREDENTIAL || password.size() > zq::MAX_UPLOAD_CREDENTIAL) {
        ZQ_LOG_AS("wput_url_parse", "refused %s: longer than %zu characters",
                  user.size() > zq::MAX_UPLOAD_CREDENTIAL ? "user" : "password", zq::MAX_UPLOAD_CREDENTIAL);
        return -1;
    }
    if (!accept_upload_word("wput_url_parse", upload_word::credential, "user", user)) return -1;
    zq::copy(p.user, user);
    if (password.empty()) return 0;
    if (!accept_upload_word("wput_url_parse", upload_word::credential, "password", password)) return -1;
    zq::copy(p.password, password);
    return 0;
}

} // namespace

// The host name as dotted IPv4 text, resolved when it is a name.
int resolve_host(std::string_view name, char (&out)[sizeof(upload_params::host)]) {
    char text[zq::MAX_UPLOAD_HOST_PART + 1] = {};
    zq::copy(text, name);
    if (inet_addr(text) != INADDR_NONE) {
        zq::copy(out, zq::view(text));
        return 0;
    }
    const hostent *entry = gethostbyname(text);
    char address[INET6_ADDRSTRLEN] = {};
    if (!entry || !entry->h_addr_list || !entry->h_addr_list[0] ||
        !inet_ntop(entry->h_addrtype, entry->h_addr_list[0], address, sizeof(address))) {
        ZQ_LOG_BREAK("%s", upload_log::HOST_UNRESOLVED);
        return -1;
    }
    zq::copy(out, zq::view(address));
    return 0;
}

namespace {

// The port written after the host, read as atoi reads it: 0 when there is
// no number, which keeps the scheme's port. The text itself reaches no
// command (the port is formatted as a number), so trailing characters are
// simply not read.
int parse_port(std::string_view text, uint32_t &port) {
    const int value = zq::to_int(text);
    // A negative port would stand in btftp's and ftp's command lines as a
    // word beginning with '-', which they would take for an option.
    if (value < 0) {
        ZQ_LOG_AS("wput_url_parse", "refused port: negative");
        return -1;
    }
    port = static_cast<uint32_t>(value);
    return 0;
}

bool wput_sent(const char (&out)[128]) {
    if (!zq::contains(out, WPUT_DONE)) return false;
    for (const char *marker : WPUT_NOT_SENT)
        if (zq::contains(out, marker)) return false;
    return true;
}

// Route commands, "diagM wan_route add|del HOST N".
int upload_route(const char *caller, const char *verb, const upload_params &p) {
    if (!terminated(p.host) || !accept_upload_word(caller, upload_word::host, "host", zq::view(p.host)))
        return -1;
    char cmd[128] = {};
    if (!format_cmd(caller, cmd, sizeof(cmd), "diagM wan_route %s %s %d", verb, p.host,
                    static_cast<int>(p.wan_index) - 1))
        return -1;
    // The answer is read into a buffer of this call rather than the shared
    // result buffer: route requests come from upload threads that run
    // beside each other and beside a capture.
    char out[64] = {};
    run_cmd(cmd, out);
    return zq::read_number(caller, "route answer", zq::view(out));
}

} // namespace

int url_add_slash(upload_params *p) {
    if (!p) return -1;
    const size_t len = strnlen(p->url, sizeof(p->url));
    if (len < 2 || len > sizeof(p->url) - 2) return -1;
    if (p->url[len - 1] != '/') {
        p->url[len] = '/';
        p->url[len + 1] = '\0';
    }
    return 0;
}

int wput_url_parse(upload_params *p) { return parse_upload_url(p, resolve_host); }

int parse_upload_url(upload_params *p, host_resolver resolve) {
    if (!p || !resolve) return -1;
    if (!terminated(p->url)) {
        ZQ_LOG_AS("wput_url_parse", "refused url: unterminated text");
        return -1;
    }
    url_add_slash(p);
    const std::string_view url = zq::view(p->url);
    if (!accept_upload_word("wput_url_parse", upload_word::url, "url", url)) return -1;

    if (zq::contains(url, "tftp://"))
        p->port = TFTP_PORT;
    else if (zq::contains(url, "ftp://"))
        p->port = FTP_PORT;
    else
        return -1;

    size_t host_start = 0;
    const size_t at = url.find('@');
    if (at != std::string_view::npos) {
        if (parse_credentials(url, at, *p) != 0) return -1;
        host_start = at + 1;
    } else {
        const size_t slashes = url.find("//");
        if (slashes == std::string_view::npos) return -1;
        host_start = slashes + 2;
    }
    const size_t host_end = url.find('/', host_start);
    if (host_start >= url.size() || host_end == std::string_view::npos || host_end == host_start) return -1;
    const std::string_view host_part = zq::slice(url, host_start, host_end);
    if (host_part.size() > zq::MAX_UPLOAD_HOST_PART) return -1;

    std::string_view host_name = host_part;
    std::string_view port_text;
    if (const size_t colon = host_part.find(':'); colon != std::string_view::npos) {
        host_name = zq::slice(host_part, 0, colon);
        port_text = zq::slice(host_part, colon + 1);
    }
    if (!accept_upload_word("wput_url_parse", upload_word::host, "host", host_name)) return -1;
    uint32_t port = 0;
    if (parse_port(port_text, port) != 0) return -1;

    zq::copy(p->path, zq::slice(url, host_end));
    if (resolve(host_name, p->host) != 0) return -1;
    if (port != 0) p->port = port;
    return 0;
}

int tftp_upload(upload_params *p) {
    if (!p || p->host[0] == '\0' || p->local_file[0] == '\0') return -1;
    char cmd[128] = {};
    if (!ZQ_FORMAT_CMD(cmd, "timeout -t 20 btftp %s %d -p -l %s -r %s -b 65535", p->host,
                       static_cast<int>(p->port), p->local_file, p->remote_file))
        return -1;
    char out[256] = {};
    run_cmd(cmd, out);
    if (zq::contains(out, "tftp success")) return 0;
    ZQ_LOG("%s cmd[%s]\n", upload_log::TFTP_FAILED, cmd);
    ZQ_LOG("%s:\n%s", upload_log::TFTP_FAILED, out);
    return -1;
}

int run_ftp_sh(upload_params *p) {
    if (!p) return -1;
    // A link counts as there too, dangling or not.
    struct stat st {};
    if (lstat(ZQ_FTP_SCRIPT_PATH, &st) == 0) zq_system("rm -rf /tmp/run_ftp.sh");
    // The script holds the password: created afresh for the owner only, and
    // never through a link that someone laid in /tmp meanwhile.
    const int fd = open(ZQ_FTP_SCRIPT_PATH, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return -1;
    FILE *script = fdopen(fd, "w");
    if (!script) {
        close(fd);
        return -1;
    }
    fprintf(script, "open %s %d \nuser %s %s\nprompt\ncd %s\nput %s %s\nby\n", p->host,
            static_cast<int>(p->port), p->user, p->password, p->path, p->local_file, p->remote_file);
    return fclose(script) == 0 ? 0 : -1;
}

int ftp_upload(upload_params *p) {
    if (!p || p->host[0] == '\0' || p->user[0] == '\0' || p->password[0] == '\0' || p->path[0] == '\0' ||
        p->local_file[0] == '\0' || p->remote_file[0] == '\0')
        return -1;
    if (run_ftp_sh(p) != 0) {
        ZQ_LOG("%s", upload_log::FTP_SCRIPT_FAILED);
        return -1;
    }
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "timeout -t 20  ftp -n -v -f %s", ZQ_FTP_SCRIPT_PATH);
    char out[512] = {};
    run_cmd(cmd, out);
    if (out[0] == '\0') {
        ZQ_LOG("%s", upload_log::FTP_SILENT);
        return -1;
    }
    if (zq::contains(out, "Transfer complete")) return 0;
    ZQ_LOG("%s", upload_log::FTP_FAILED);
    return -1;
}

int wput_upload(upload_params *p) {
    if (!p) return -1;
    char cmd[256] = {};
    if (!ZQ_FORMAT_CMD(cmd, "wput --waitretry=1 -t1 -T30 %s %s/%s", p->local_file, p->url, p->remote_file))
        return -1;
    char out[128] = {};
    run_cmd(cmd, out);
    if (out[0] == '\0') {
        ZQ_LOG("wput buffer is empty");
        return -1;
    }
    if (wput_sent(out)) return 0;
    ZQ_LOG("%s", upload_log::WPUT_FAILED);
    return -1;
}

// Every transfer passes here, so this is where the text of the block is
// checked before any of it reaches a command or the FTP script.
int upload_action(upload_params *p) {
    if (!p || !transfer_fields_ok(*p)) return -1;
    switch (p->protocol) {
    case UPLOAD_PROTOCOL_FTP:
        if (wput_upload(p) == 0) return 0;
        return ftp_upload(p);
    case UPLOAD_PROTOCOL_TFTP:
        return tftp_upload(p);
    default:
        ZQ_LOG("%s ", upload_log::UNKNOWN_PROTOCOL);
        return -1;
    }
}

int add_upload_route(upload_params *p) { return p ? upload_route(__func__, "add", *p) : -1; }

int del_upload_route(upload_params *p) { return p ? upload_route(__func__, "del", *p) : -1; }

int zq_file_upload(upload_params p) {
    if (!terminated(p.local_file) || !terminated(p.url) || !terminated(p.remote_file) ||
        p.local_file[0] == '\0' || p.url[0] == '\0' || p.remote_file[0] == '\0') {
        ZQ_LOG("file upload params error");
        return -1;
    }
    if (!zq::file_exists(p.local_file)) {
        ZQ_LOG(" error 3 %s %s", p.local_file, upload_log::FILE_MISSING);
        return -1;
    }
    if (wput_url_parse(&p) != 0) {
        ZQ_LOG("%s", upload_log::URL_NOT_PARSED);
        return -1;
    }
    if (add_upload_route(&p) != 0) return -1;
    const int result = upload_action(&p);
    del_upload_route(&p);
    return result;
}

} // namespace zq
