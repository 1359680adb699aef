// Checks of the text that goes into tcpdump's and grep's command lines.
//
// Three kinds of text reach tcpdump's command line, and each has its own
// rule:
// - an interface name (from the capture block or the diagnosis manager):
//   a plain name, nothing else (zq::is_interface_name);
// - a caller's filter expression (zq_get_tcpdump_file): only what a tcpdump
//   expression needs, and never anything the shell acts on or a word that
//   tcpdump would take for an option (-w, -z and -r write files or run
//   programs);
// - the decode filters of get_tcpdump_parse: these are options and an
//   expression together ("-tve '...'"), so the strict rule could never
//   accept them. They are not outside text at all: the only ones accepted
//   are the library's own templates, with a decimal number (a '-' sign
//   allowed) where the template has %d. A caller therefore cannot reach tcpdump's options
//   through the decode path, and the strict rule never has to admit them.
#include <cstddef>

#include "capture/capture.h"
#include "engine/util.h"

namespace {

bool is_alnum(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

bool in_set(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }

// Expression characters allowed anywhere, and those that are shell syntax
// or patterns unquoted but plain text inside single quotes.
constexpr std::string_view FILTER_PLAIN = " .:/!=+-,_'";
constexpr std::string_view FILTER_QUOTED = "()[]<>*%^";

constexpr const char *DECODE_FILTERS[] = {DHCP_DECODE_FILTER, PPPOE_DECODE_FILTER, DHCP_IFINDEX_FILTER,
                                          PPPOE_IFINDEX_FILTER};
constexpr size_t MAX_NUMBER_DIGITS = 10;

// No blank-separated word of the filter, its quotes taken away, starts
// with '-'.
bool has_option_word(std::string_view filter) {
    bool word_start = true;
    for (char c : filter) {
        if (c == ' ') {
            word_start = true;
        } else if (c != '\'') {
            if (word_start && c == '-') return true;
            word_start = false;
        }
    }
    return false;
}

// `text` is `pattern` with an int as %d prints it (an optional '-', at most
// 10 decimal digits) in place of each %d.
bool matches_template(std::string_view pattern, std::string_view text) {
    size_t t = 0;
    for (size_t p = 0; p < pattern.size(); ++p) {
        if (zq::slice(pattern, p, p + 2) == "%d") {
            if (t < text.size() && text[t] == '-') ++t;
            size_t digits = 0;
            while (t < text.size() && text[t] >= '0' && text[t] <= '9' && digits < MAX_NUMBER_DIGITS) {
                ++t;
                ++digits;
            }
            if (digits == 0) return false;
            ++p;
            continue;
        }
        if (t >= text.size() || text[t] != pattern[p]) return false;
        ++t;
    }
    return t == text.size();
}

} // namespace

bool is_capture_filter(std::string_view filter) {
    bool quoted = false;
    for (char c : filter) {
        if (c == '\'') quoted = !quoted;
        if (is_alnum(c) || in_set(c, FILTER_PLAIN)) continue;
        if (quoted && in_set(c, FILTER_QUOTED)) continue;
        return false; // ; | & $ ` \ " < > newline, controls, ... or a pattern unquoted
    }
    // ".." is no part of any expression, only of paths.
    return !quoted && !has_option_word(filter) && filter.find("..") == std::string_view::npos;
}

bool is_decode_filter(std::string_view filter) {
    for (const char *pattern : DECODE_FILTERS)
        if (matches_template(pattern, filter)) return true;
    return false;
}
