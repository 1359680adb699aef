// pppoe_status: why a PPPoE WAN is down, read from the decoded capture of
// a WAN restart the way an engineer reads it: discovery first (PADI, PADO,
// PADT), then, session by session, LCP, authentication and IPCP, quoting
// the options the server asked for where a negotiation failed.
#include <cstring>

#include "capture/capture.h"
#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "methods/network/pppoe_analysis.h"
#include "methods/result_word.h"
#include "records/records.h"

namespace zq {

namespace {

enum : uint32_t { PPPOE_ANALYSED = 0, PPPOE_NO_EXCHANGE = 4, PPPOE_NO_SERVER = 5, PPPOE_CAME_UP = 6 };

constexpr size_t LINE_READ = 200;      // 199 characters per line read
constexpr size_t LINE_KEPT = 128;      // characters of a line kept in a block
constexpr size_t PIECE_READ = 128;     // 127 characters per piece of the whole text
constexpr size_t BEFORE_REQUEST = 25;  // where the packet's direction is looked for
constexpr size_t BEFORE_NEXT_LINE = 6; // the cut before the next packet's direction
constexpr int MAX_OCCURRENCES = 50;
constexpr size_t SERVICE_CMD_SIZE = 128;
constexpr size_t SERVICE_OUT_SIZE = 256;

constexpr const char *IPCP_CONF_ACK = "IPCP, Conf-Ack";
constexpr const char *LCP_CONF_ACK = "LCP, Conf-Ack";
// Log lines of the helpers below are those of the functions they belong to.
constexpr const char *DIAG_ACTION = "zq_get_pppoe_diag";
constexpr const char *TEXT_ANALYSIS = "zq_check_pppoe_error";
constexpr const char *IPCP_OPTION_NAMES[] = {"IP-Addr Option", "Pri-DNS Option", "Sec-DNS Option"};

// Found, and found again from one character after the first match.
bool occurs_twice(const char *text, const char *needle) {
    const char *first = strstr(text, needle);
    return first && strstr(first + 1, needle);
}

bool has(const char *text, const char *needle) { return strstr(text, needle) != nullptr; }

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The word after `from` (leading white space skipped) into `out`, cut to
// fit; false when there is none.
template <size_t N> bool read_word(const char *from, char (&out)[N]) {
    while (*from && is_blank(*from)) ++from;
    size_t n = 0;
    while (from[n] && !is_blank(from[n])) ++n;
    if (n == 0) return false;
    zq::copy(out, std::string_view(from, n));
    return true;
}

// The rest of the line after `from`, unchanged, into `out`, cut to fit.
template <size_t N> bool read_line_rest(const char *from, char (&out)[N]) {
    const size_t n = strcspn(from, "\n");
    if (n == 0) return false;
    zq::copy(out, std::string_view(from, n));
    return true;
}

// The text after the first ':' that follows `name` in `text`, or null.
const char *value_of(const char *text, const char *name) {
    const char *at = strstr(text, name);
    const char *colon = at ? strchr(at, ':') : nullptr;
    return colon ? colon + 1 : nullptr;
}

template <size_t N> void finding(uint32_t level, const char (&text)[N]) {
    zq_diag_msg_printf(level, "%s", text);
}

// ---- One session block ------------------------------------------------------

void report_ipcp_failure(char *block) {
    finding(DIAG_MSG_ERROR, "\tIPCP  fail");
    ipcp_options options{};
    if (!parse_ipcp_options(block, options)) return;
    finding(DIAG_MSG_WARN, "\t\tRejected some Ipcp configuration of server!");
    zq_diag_msg_printf(DIAG_MSG_NORMAL, "\t\tIp_addr:%s Pri_dns:%s Sec_dns:%s", options.addr, options.pri_dns,
                       options.sec_dns);
}

void report_lcp_failure(char *block) {
    finding(DIAG_MSG_ERROR, "\tLCP  fail!");
    lcp_options options{};
    if (!parse_lcp_options(block, options)) return;
    finding(DIAG_MSG_WARN, "\t\tRejected some configuration of server!");
    zq_diag_msg_printf(DIAG_MSG_WARN, "\t\tMTU:%s, Auth:%s", options.mru, options.auth);
}

void report_auth_failure(char *) { finding(DIAG_MSG_ERROR, "\tAuth fail!"); }

// What a session block shows, in order; the first rule that applies decides.
struct session_rule {
    bool (*applies)(const char *block);
    void (*report)(char *block); // null: nothing to report
};
constexpr session_rule SESSION_RULES[] = {
    {[](const char *b) { return has(b, IPCP_CONF_REQUEST) && occurs_twice(b, IPCP_CONF_ACK); }, nullptr},
    {[](const char *b) { return has(b, IPCP_CONF_REQUEST); }, report_ipcp_failure},
    {[](const char *b) { return has(b, "CHAP, Fail") || has(b, "PAP, Auth-NACK"); }, report_auth_failure},
    {[](const char *b) { return has(b, LCP_CONF_REQUEST) && occurs_twice(b, LCP_CONF_ACK); }, nullptr},
    {[](const char *b) { return has(b, LCP_CONF_REQUEST); }, report_lcp_failure},
};

void judge_session(char *block) {
    for (const session_rule &rule : SESSION_RULES) {
        if (!rule.applies(block)) continue;
        if (rule.report) rule.report(block);
        return;
    }
}

// Every session of the decoded text, each requested service once.
uint32_t analyse_sessions() {
    FILE *file = fopen(ZQ_CAPTURE_PARSE, "r");
    if (!file) {
        ZQ_LOG_AS(TEXT_ANALYSIS, "create fp fail");
        return PPPOE_ANALYSED;
    }
    server_list servers{};
    unsigned number = 1;
    char block[PPPOE_TEXT_SIZE] = {};
    while (read_session_block(file, block, sizeof(block))) {
        service_name name{};
        if (get_padr_service_name(block, name) && server_list_add(servers, name)) {
            zq_diag_msg_printf(DIAG_MSG_NORMAL, "Requested server%u (%s): ", number++, name);
            judge_session(block);
        }
        memset(block, 0, sizeof(block));
    }
    fclose(file);
    return PPPOE_ANALYSED;
}

// The service the gateway asked for in its PADIs, when no server answered.
uint32_t report_requested_service() {
    char cmd[SERVICE_CMD_SIZE] = {};
    char out[SERVICE_OUT_SIZE] = {};
    ZQ_FORMAT(cmd, "cat %s | grep \"%s\" ", ZQ_CAPTURE_PARSE, "PADI");
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, sizeof(cmd), out, sizeof(out)));
    service_name name{};
    if (get_padi_service_name(out, name))
        zq_diag_msg_printf(DIAG_MSG_WARN, "\tIt has a specified service-name: %s", name);
    return PPPOE_NO_SERVER;
}

// The rules on the whole decoded text, in order; the first that applies
// decides the verdict.
struct text_rule {
    const char *needle;
    bool twice; // applies when found twice; otherwise when absent
    const char *finding;
    uint32_t level;
    uint32_t verdict;
    uint32_t (*then)(); // further analysis that gives the verdict, or null
};
constexpr text_rule TEXT_RULES[] = {
    {IPCP_CONF_ACK, true, "\tIt may be normal this time!", DIAG_MSG_NORMAL, PPPOE_CAME_UP, nullptr},
    {"PPPoE", false, "\tNot found any pppoe packets!", DIAG_MSG_WARN, PPPOE_NO_EXCHANGE, nullptr},
    {"PADI", false, nullptr, DIAG_MSG_WARN, PPPOE_NO_EXCHANGE, nullptr},
    {"PADO", false, "\tNo servers respond!", DIAG_MSG_WARN, PPPOE_NO_SERVER, report_requested_service},
    {"PADT", false, "\tInteraction process not found!", DIAG_MSG_WARN, PPPOE_NO_EXCHANGE, nullptr},
};

constexpr uint32_t CONNECTED_MAX = WAN_CONNECT_UNSTABLE;

void diagnose_connection(zqSD_wan_diag &wan, const zq_diag_args &args) {
    const std::string_view name = zq::view(wan.wan_name);
    const bool up = wan.v4_conn_state <= CONNECTED_MAX;
    zq_diag_msg_printf(up ? DIAG_MSG_NORMAL : DIAG_MSG_ERROR,
                       "%.*s[ipv4] PPPoE:", static_cast<int>(name.size()), name.data());
    if (up || zq_diag_capture(&wan) != 0) return;
    get_tcpdump_parse(PPPOE_DECODE_FILTER);
    if (zq_get_file_size(ZQ_CAPTURE_PARSE) == 0) {
        ZQ_LOG_AS(DIAG_ACTION, "Can not find any pppoed pppoes packets within specified time");
        zq_diag_msg_printf(DIAG_MSG_ERROR, "\tCan not find any pppoed pppoes packets within specified time");
        return;
    }
    char interface[sizeof(wan.nas_interface) + 1] = {};
    zq::copy(interface, wan.nas_interface);
    if (pppoe_filter_special(interface) != 0) {
        ZQ_LOG_AS(DIAG_ACTION, "filter_special_error!");
        return;
    }
    const uint32_t verdict = zq_check_pppoe_error();
    zq::write_result(args, verdict);
    wan.pppoe_state = verdict;
}

} // namespace

// ---- Reading the decoded text -------------------------------------------------

int zq_file_to_buffer(text_buffer *buffer, const char *path) {
    if (!buffer || !buffer->text || buffer->capacity == 0 || !path) return 0;
    FILE *file = fopen(path, "r");
    if (!file) {
        ZQ_LOG("fp popen failed");
        return 0;
    }
    size_t length = strnlen(buffer->text, buffer->capacity - 1);
    char piece[PIECE_READ + 1] = {};
    while (fgets(piece, PIECE_READ, file)) {
        size_t n = strlen(piece);
        if (n == 0 || piece[n - 1] != '\n') {
            piece[n++] = '\n';
            piece[n] = '\0';
        }
        // The line end counts too: the text never reaches the capacity.
        if (length + n >= buffer->capacity) break;
        memcpy(buffer->text + length, piece, n);
        length += n;
        buffer->text[length] = '\0';
    }
    fclose(file);
    return 1;
}

int read_session_block(FILE *file, char *buffer, uint32_t capacity) {
    if (!file || !buffer || capacity < 1) return 0;
    char line[LINE_READ + 1] = {};
    const char *padi = nullptr;
    while (!padi) {
        if (!fgets(line, LINE_READ, file)) return 0;
        padi = strstr(line, "PADI");
    }
    zq::copy(buffer, capacity, zq::view(padi));
    size_t length = strlen(buffer);
    for (;;) {
        if (!fgets(line, LINE_READ, file)) return 0; // a block without PADT is dropped
        size_t n = strlen(line);
        if (n == 0 || line[n - 1] != '\n') {
            line[n++] = '\n';
            line[n] = '\0';
        }
        // The added line end counts too, so the block and its terminator
        // always fit.
        if (n + length >= capacity) return 0;
        const size_t kept = n < LINE_KEPT ? n : LINE_KEPT;
        memcpy(buffer + length, line, kept);
        length += kept;
        buffer[length] = '\0';
        if (strstr(line, "PADT")) return 1;
    }
}

int parse_service_name(const char *text, service_name &out) {
    const char *tag = text ? strstr(text, "Service-Name") : nullptr;
    if (!tag) return 0;
    const char *value = tag + strlen("Service-Name");
    while (*value && is_blank(*value)) ++value;
    if (*value != '"') return 0;
    ++value;
    const size_t n = strcspn(value, "\"");
    if (n == 0) return 0;
    zq::copy(out, std::string_view(value, n));
    return 1;
}

namespace {
int service_name_after(const char *text, const char *code, service_name &out) {
    const char *at = text ? strstr(text, code) : nullptr;
    return at && parse_service_name(at, out) == 1 ? 1 : 0;
}
} // namespace

int get_padr_service_name(const char *text, service_name &out) {
    return service_name_after(text, "PADR", out);
}

int get_padi_service_name(const char *text, service_name &out) {
    return service_name_after(text, "PADI", out);
}

int server_list_add(server_list &list, const char *name) {
    if (!name) return 0;
    for (const service_name &slot : list)
        if (slot[0] && strstr(slot, name)) return 0;
    for (service_name &slot : list) {
        if (slot[0] == '\0') {
            zq::copy(slot, name);
            return 1;
        }
    }
    return 1; // full: new, but not kept
}

char *find_last(char *text, const char *needle) {
    if (!text || !needle || text[0] == '\0') return nullptr;
    char *last = nullptr;
    char *at = strstr(text + 1, needle);
    for (int step = 0; at && step < MAX_OCCURRENCES; ++step) {
        last = at;
        at = strstr(at + 1, needle);
    }
    return last;
}

char *last_conf_request(char *text, const char *kind) {
    if (!text || !kind || (strcmp(kind, LCP_CONF_REQUEST) != 0 && strcmp(kind, IPCP_CONF_REQUEST) != 0))
        return nullptr;
    char *request = find_last(text, kind);
    if (!request) return nullptr;
    // The packet starts at its direction ("In" or "Out") when that stands
    // shortly before the request; when neither is found there, at the
    // request itself. A request near the block's start is looked at from
    // the start: nothing before the block is read.
    char *from = static_cast<size_t>(request - text) > BEFORE_REQUEST ? request - BEFORE_REQUEST : text;
    char *start = request;
    char *in = strstr(from, "In");
    char *out = strstr(from, "Out");
    if (in && in <= request)
        start = in;
    else if (out && out <= request)
        start = out;
    // It ends before the next packet's line, found by its direction. A cut
    // that falls before the start leaves the packet text running to the
    // block's end; one that would fall before the block is not made.
    char *next_in = strstr(start + 1, "In");
    char *next_out = strstr(start + 1, "Out");
    if (next_in && next_out) {
        char *nearer = next_in < next_out ? next_in : next_out;
        if (static_cast<size_t>(nearer - text) >= BEFORE_NEXT_LINE) *(nearer - BEFORE_NEXT_LINE) = '\0';
    }
    return start;
}

int parse_lcp_options(char *block, lcp_options &out) {
    const char *request = last_conf_request(block, LCP_CONF_REQUEST);
    if (!request || !has(request, "In")) return 0; // not received from the server
    const char *auth = value_of(request, "Auth-Prot Option");
    if (!auth) return 0;
    read_line_rest(auth, out.auth);
    const char *mru = value_of(request, "MRU Option");
    if (!mru) return 0;
    read_word(mru, out.mru);
    return 1;
}

int parse_ipcp_options(char *block, ipcp_options &out) {
    const char *request = last_conf_request(block, IPCP_CONF_REQUEST);
    if (!request || !has(request, "In")) return 0;
    char(*const fields[])[20] = {&out.addr, &out.pri_dns, &out.sec_dns};
    for (size_t i = 0; i < sizeof(fields) / sizeof(fields[0]); ++i) {
        const char *value = value_of(request, IPCP_OPTION_NAMES[i]);
        if (!value) return 0;
        memset(*fields[i], 0, sizeof(*fields[i]));
        read_word(value, *fields[i]);
    }
    return 1;
}

// ---- The method ---------------------------------------------------------------

uint32_t zq_check_pppoe_error() {
    char text[PPPOE_TEXT_SIZE] = {};
    text_buffer buffer{text, sizeof(text)};
    if (!zq_file_to_buffer(&buffer, ZQ_CAPTURE_PARSE)) {
        ZQ_LOG("read file to buffer failed");
        return PPPOE_ANALYSED;
    }
    for (const text_rule &rule : TEXT_RULES) {
        if (rule.twice ? !occurs_twice(text, rule.needle) : has(text, rule.needle)) continue;
        if (rule.finding) zq_diag_msg_printf(rule.level, "%s", rule.finding);
        return rule.then ? rule.then() : rule.verdict;
    }
    return analyse_sessions();
}

int pppoe_filter_special(const char *interface) { return filter_special(interface, PPPOE_IFINDEX_FILTER); }

int zq_get_pppoe_diag(zq_diag_args args) {
    zq::write_result(args, PPPOE_ANALYSED);
    list_diag_record<zqSD_wan_diag>(DIAG_ACTION, [&](zqSD_wan_diag &wan) {
        if (zq::contains(wan.type, "route-ppp")) diagnose_connection(wan, args);
        return false;
    });
    return 0;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules PPPOE_RULES = {zq::ANY_BLOCK, zq::ANY_BLOCK, out_exact(zq::RESULT_WORD_SIZE),
                                         zq::ANY_BLOCK};

int pppoe_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__, [](const zqSD_wan_diag &r) {
        return zq::contains(r.type, "ppp") && r.v4_conn_state > WAN_CONNECT_UNSTABLE;
    });
}
} // namespace

const zq::method_descriptor pppoe_status_method = {
    .entry = {.name = "pppoe_status", .diag = zq_get_pppoe_diag, .envoy = zq::envoy<PPPOE_RULES>},
    .diag_when = pppoe_status_condition,
};

} // namespace zq
