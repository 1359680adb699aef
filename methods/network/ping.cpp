// ping: whether one host answers and how fast, from the statistics that the
// firmware's ping prints. The three actions are stacked through the
// dispatcher: the verdict asks for the result, the result for the text, and
// the text for the command.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "methods/result_word.h"

namespace zq {

namespace {

constexpr size_t PING_TEXT_SIZE = 256;
constexpr size_t NUMBER_SIZE = 32;
constexpr uint32_t SLOW_AVG_MS = 200;
constexpr uint32_t JITTER_MIN_MS = 10;
constexpr double JITTER_RATIO = 0.1;

bool is_number_char(char c) { return (c >= '0' && c <= '9') || c == '.'; }
bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// The number that ends just before `end`: the run of digits and '.' before
// it, read as atoi reads it (12.871 gives 12). A run longer than the 31
// characters its buffer holds is no number of ping's: it reads as 0.
uint32_t number_before(std::string_view text, size_t end) {
    size_t start = end;
    while (start > 0 && is_number_char(text[start - 1])) --start;
    if (end - start > NUMBER_SIZE - 1) return 0;
    return static_cast<uint32_t>(zq::to_int(std::string_view(text.data() + start, end - start)));
}

// One value of the round-trip line, found by its name in the label: the
// label's slashes before the name say which of the '/'-separated values
// after the '=' it is ("min/avg/max = 1.1/2.2/3.3 ms": avg is the 2nd).
uint32_t round_trip_value(std::string_view text, std::string_view name) {
    const size_t match = text.find(name);
    if (match == std::string_view::npos) return 0;
    unsigned position = 1;
    for (size_t i = match; i > 0 && (is_letter(text[i - 1]) || text[i - 1] == '/'); --i)
        if (text[i - 1] == '/') ++position;

    size_t at = text.find('=');
    if (at == std::string_view::npos) return 0;
    while (at < text.size() && !is_number_char(text[at])) ++at;
    while (position > 0) {
        const size_t slash = text.find('/', at);
        if (slash == std::string_view::npos) {
            // The last value of the list ends at a blank.
            const size_t blank = text.find(' ', at);
            if (blank == std::string_view::npos || blank == 0 || !is_number_char(text[blank - 1])) return 0;
            return number_before(text, blank);
        }
        at = slash;
        if (--position > 0) ++at;
    }
    return number_before(text, at);
}

} // namespace

void parse_ping_output(std::string_view text, ping_result &result) {
    const size_t percent = text.find('%');
    if (percent == std::string_view::npos) {
        result.no_stats = 1;
        result.loss = 100;
    } else {
        result.no_stats = 0;
        result.loss = static_cast<uint8_t>(number_before(text, percent));
    }
    if (result.loss == 100) return;
    result.avg = round_trip_value(text, "avg");
    result.min = round_trip_value(text, "min");
    result.max = round_trip_value(text, "max");
    result.jitter = result.max - result.min;
}

uint32_t ping_verdict(const ping_result &r) {
    if (r.no_stats == 1) return PING_NO_STATS;
    if (r.loss == 100) return PING_UNREACHABLE;
    if (r.loss != 0) return PING_LOSS;
    const double ratio = r.jitter && r.avg ? static_cast<double>(r.jitter) / r.avg : 0.0;
    if (ratio > JITTER_RATIO && r.jitter > JITTER_MIN_MS) return PING_JITTER;
    if (r.avg > SLOW_AVG_MS) return PING_SLOW;
    return PING_NORMAL;
}

// The host and the source come from outside (the diagnosis manager's
// addresses, a management process's record): only a plain address or host
// name, and as the source only an address or an interface name, reach the
// command line; anything else counts as empty.
int zq_get_ping_raw_data(zq_diag_args args) {
    ping_request req;
    memcpy(&req, args.in_buf, sizeof(req));
    const std::string_view host = zq::view(req.host);
    const std::string_view source = zq::view(req.source);

    char option[64] = {};
    if (zq::is_ipv4_address(source) || zq::is_ipv6_address(source) || zq::is_interface_name(source))
        ZQ_FORMAT(option, "-I %.*s", static_cast<int>(source.size()), source.data());
    else if (!source.empty())
        ZQ_LOG("source [%s] is no address or interface: pinged without it", zq::shown(source).text);
    if (host.empty()) return 0;
    if (!zq::is_host_word(host)) {
        ZQ_LOG("host [%s] is no address or host name: not pinged", zq::shown(host).text);
        return 0;
    }

    char cmd[256] = {};
    ZQ_FORMAT(cmd, "timeout -t 10 ping %s -c 5 -W 1 %.*s %s | grep transmit -A 2",
              req.family == 6 ? "-6" : "-4", static_cast<int>(host.size()), host.data(), option);
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, sizeof(cmd), args.out_buf, args.out_size));
    return 0;
}

int zq_get_ping_struct(zq_diag_args args) {
    char text[PING_TEXT_SIZE] = {};
    zq_get_sys_diag("ping", ACTION_RAW_DATA, zq_args(args.in_buf, args.in_size, text, sizeof(text)));
    ping_result result;
    memcpy(&result, args.out_buf, sizeof(result));
    parse_ping_output(zq::view(text), result);
    memcpy(args.out_buf, &result, sizeof(result));
    return 0;
}

int zq_get_ping_diag(zq_diag_args args) {
    ping_result result = {};
    zq_get_sys_diag("ping", ACTION_STRUCT, zq_args(args.in_buf, args.in_size, &result, sizeof(result)));
    zq::write_result(args, ping_verdict(result));
    return 0;
}

uint32_t ping_request_verdict(uint8_t family, std::string_view host, std::string_view source) {
    ping_request request = {};
    request.family = family;
    zq::copy(request.host, host);
    zq::copy(request.source, source);
    uint32_t verdict = PING_UNREACHABLE;
    zq_get_sys_diag("ping", ACTION_DIAG, zq_args(&request, sizeof(request), &verdict, sizeof(verdict)));
    return verdict;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
// The raw output needs room for ping's statistics lines.
constexpr zq::envoy_rules PING_RULES = {
    {zq::NEED_IN | zq::NEED_OUT | zq::IN_EXACT | zq::OUT_MIN, sizeof(ping_request), 256},
    zq::in_out_exact(sizeof(ping_request), sizeof(ping_result)),
    zq::in_out_exact(sizeof(ping_request), zq::RESULT_WORD_SIZE),
    zq::ANY_BLOCK,
};
} // namespace

const zq::method_descriptor ping_method = {
    .entry = {.name = "ping",
              .raw_data = zq_get_ping_raw_data,
              .get_struct = zq_get_ping_struct,
              .diag = zq_get_ping_diag,
              .envoy = zq::envoy<PING_RULES>},
};

} // namespace zq
