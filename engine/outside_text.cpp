#include "engine/outside_text.h"

#include <arpa/inet.h>

#include "engine/log.h"
#include "engine/util.h"

namespace zq {

namespace {

constexpr size_t SHOWN_CHARS = 40;
constexpr size_t MAX_ADDRESS_TEXT = 63;

bool printable(char c) { return c >= ' ' && c <= '~'; }

// inet_pton wants a terminated text; one longer than any address is none,
// and so is one holding a NUL (inet_pton would judge only what precedes it).
template <size_t N> bool terminated_copy(std::string_view text, char (&out)[N]) {
    if (text.empty() || text.size() >= N || text.find('\0') != std::string_view::npos) return false;
    copy(out, text);
    return true;
}

} // namespace

shown_text shown(std::string_view value) {
    shown_text out{};
    const size_t n = value.size() < SHOWN_CHARS ? value.size() : SHOWN_CHARS;
    for (size_t i = 0; i < n; ++i) out.text[i] = printable(value[i]) ? value[i] : '?';
    if (n < value.size()) copy(out.text + n, sizeof(out.text) - n, "...");
    return out;
}

int read_number(const char *caller, const char *what, std::string_view text) {
    const int value = to_int(text);
    size_t i = 0;
    while (i < text.size() && is_space(text[i])) ++i;
    if (i == text.size()) return value;
    if (text[i] == '+' || text[i] == '-') ++i;
    const size_t digits = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    bool plain = i > digits;
    for (; plain && i < text.size(); ++i) plain = is_space(text[i]);
    if (!plain) ZQ_LOG_AS(caller, "%s [%s] is no plain number: read as %d", what, shown(text).text, value);
    return value;
}

bool is_interface_name(std::string_view name) {
    constexpr size_t MAX_INTERFACE_NAME = 15; // the kernel's limit (IFNAMSIZ - 1)
    return is_word_of(name, "_.-") && name.size() <= MAX_INTERFACE_NAME && name.front() != '-' &&
           name != "." && name != "..";
}

bool is_ipv4_address(std::string_view text) {
    char copy_of[MAX_ADDRESS_TEXT + 1] = {};
    in_addr address{};
    return terminated_copy(text, copy_of) && inet_pton(AF_INET, copy_of, &address) == 1;
}

bool is_ipv6_address(std::string_view text) {
    const size_t percent = text.find('%');
    if (percent != std::string_view::npos) {
        const std::string_view scope = slice(text, percent + 1);
        if (!is_interface_name(scope)) return false;
        text = slice(text, 0, percent);
    }
    char copy_of[MAX_ADDRESS_TEXT + 1] = {};
    in6_addr address{};
    return terminated_copy(text, copy_of) && inet_pton(AF_INET6, copy_of, &address) == 1;
}

} // namespace zq
