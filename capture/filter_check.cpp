// Checks of the text that goes into tcpdump's and grep's command lines.
//
// Three kinds of text reach tcpdump's command line, and each has its own
// rule:
// - an interface name (from the capture block or the diagnosis manager):
//   a plain name, nothing else (zq::is_interface_name);
// - a caller's filter expression (zq_get_tcpdump_file): any expression an
//   operator may type, parentheses, '!', '&&', brackets and backslashes
//   included. It is not checked against a list of characters: it goes into
//   the command line as one single-quoted shell word, so the shell reads
//   none of it, and tcpdump, which compiles it, is the judge of its
//   grammar. Refused are only what no expression can be: a control
//   character, and a word that tcpdump would take for its options (-w, -z
//   and -r write files or run programs);
// - the decode filters of get_tcpdump_parse: these are options and an
//   expression together ("-tve '...'"), so they are not outside text at
//   all: the only ones accepted are the library's own templates, with a
//   decimal number (a '-' sign allowed) where the template has %d. A
//   caller therefore cannot reach tcpdump's options through the decode
//   path.
#include <cstddef>

#include "capture/capture.h"
#include "engine/util.h"

namespace zq {

namespace {

constexpr const char *DECODE_FILTERS[] = {DHCP_DECODE_FILTER, PPPOE_DECODE_FILTER, DHCP_IFINDEX_FILTER,
                                          PPPOE_IFINDEX_FILTER};
constexpr size_t MAX_NUMBER_DIGITS = 10;

// An embedded single quote: close the quoted text, an escaped quote, open
// it again.
constexpr std::string_view QUOTE_IN_WORD = "'\\''";

// Blanks between the tokens of an expression.
bool is_blank(char c) { return c == ' ' || c == '\t'; }

// Bytes that no expression holds: the C0 controls but the tab, and DEL.
// (A NUL cannot occur: the filter is a C string and ends there.)
bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7f;
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

std::string_view unwrap_capture_filter(std::string_view filter) {
    // Wrapped whole: the first and the last character are single quotes
    // and there is no other one between them. Only then is the text one
    // quoted word ('! host 192.0.2.5'); a text like 'a' and 'b' holds two
    // quoted words and is taken as it stands (tcpdump gets the quotes).
    if (filter.size() < 2 || filter.front() != '\'' || filter.back() != '\'') return filter;
    const std::string_view inside = zq::slice(filter, 1, filter.size() - 1);
    return inside.find('\'') == std::string_view::npos ? inside : filter;
}

const char *capture_filter_refusal(std::string_view filter) {
    const std::string_view expression = unwrap_capture_filter(filter);
    for (char c : expression)
        if (is_control(c)) return "it holds a control character";
    size_t first = 0;
    while (first < expression.size() && is_blank(expression[first])) ++first;
    if (first < expression.size() && expression[first] == '-') return "it begins with '-' (a tcpdump option)";
    return nullptr;
}

bool quote_capture_filter(std::string_view filter, char *out, size_t size) {
    if (!out || size == 0) return false;
    out[0] = '\0';
    if (capture_filter_refusal(filter)) return false;
    const std::string_view expression = unwrap_capture_filter(filter);
    if (expression.empty()) return true; // no filter: no word at all
    size_t n = 0;
    // Appends `text` if it fits with the terminator still to come.
    auto put = [&](std::string_view text) {
        if (text.size() >= size - n) return false;
        for (char c : text) out[n++] = c;
        return true;
    };
    bool fits = put("'");
    for (size_t i = 0; fits && i < expression.size(); ++i)
        fits = expression[i] == '\'' ? put(QUOTE_IN_WORD) : put(std::string_view(&expression[i], 1));
    fits = fits && put("'");
    out[fits ? n : 0] = '\0';
    return fits;
}

bool is_decode_filter(std::string_view filter) {
    for (const char *pattern : DECODE_FILTERS)
        if (matches_template(pattern, filter)) return true;
    return false;
}

} // namespace zq
