// Small shared helpers of the library: bounded copies and formatting into
// fixed buffers, null-safe substring tests and prefix number parsing.
// Nothing here allocates; nothing reads or writes past a given size.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace zq {

// Length of the text in a fixed array, never past its end.
inline size_t bounded_len(const char *s, size_t cap) { return s ? strnlen(s, cap) : 0; }

// C string pointers (null allowed). The pointer overloads below are
// constrained templates so that a fixed array never decays into them: an
// array is only read up to its own size, even without a terminator.
template <class P>
concept c_string = std::is_same_v<P, const char *> || std::is_same_v<P, char *>;

template <size_t N> inline std::string_view view(const char (&arr)[N]) { return {arr, strnlen(arr, N)}; }
template <c_string P> inline std::string_view view(P s) {
    return s ? std::string_view{s} : std::string_view{};
}

// Copy at most size-1 characters of src into dst and terminate it.
inline void copy(char *dst, size_t size, std::string_view src) {
    if (!dst || size == 0) return;
    size_t n = src.size() < size - 1 ? src.size() : size - 1;
    if (n) memcpy(dst, src.data(), n);
    dst[n] = '\0';
}
template <size_t N> inline void copy(char (&dst)[N], std::string_view src) { copy(dst, N, src); }
template <size_t N, c_string P> inline void copy(char (&dst)[N], P src) { copy(dst, N, view(src)); }
template <size_t N, size_t M> inline void copy(char (&dst)[N], const char (&src)[M]) {
    copy(dst, N, view(src));
}

// Bounded formatting into a fixed buffer; returns what vsnprintf returns.
[[gnu::format(printf, 3, 4)]] inline int format(char *dst, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(dst, size, fmt, ap);
    va_end(ap);
    return n;
}
#define ZQ_FORMAT(buf, ...) ::zq::format((buf), sizeof(buf), __VA_ARGS__)

// The characters of s from `start` up to `end`, both clamped to its size
// (substr without the exception, which the library cannot have).
inline std::string_view slice(std::string_view s, size_t start, size_t end = std::string_view::npos) {
    if (end > s.size()) end = s.size();
    if (start > end) start = end;
    return {s.data() + start, end - start};
}

// Null-safe, case-sensitive substring test.
inline bool contains(std::string_view hay, std::string_view needle) {
    return hay.find(needle) != std::string_view::npos;
}
template <c_string P> inline bool contains(P hay, const char *needle) {
    return hay && needle && strstr(hay, needle) != nullptr;
}
template <size_t N> inline bool contains(const char (&arr)[N], const char *needle) {
    return needle && contains(view(arr), std::string_view{needle});
}

// A blank as the C library's scanners see one: space, \t \n \v \f \r.
inline bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Leading decimal integer as atoi reads it (blanks, sign, digits), with
// saturation instead of overflow.
inline long long parse_int_prefix(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && is_space(s[i])) ++i;
    bool neg = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
    // Accumulated as a negative number, so that INT64_MIN itself fits.
    long long v = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        const int digit = s[i] - '0';
        if (v < (INT64_MIN + digit) / 10) return neg ? INT64_MIN : INT64_MAX;
        v = v * 10 - digit;
    }
    if (neg) return v;
    return v == INT64_MIN ? INT64_MAX : -v;
}
// atoi with int range; out-of-range values clamp.
inline int to_int(std::string_view s) {
    long long v = parse_int_prefix(s);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int>(v);
}
template <c_string P> inline int to_int(P s) { return to_int(view(s)); }
template <size_t N> inline int to_int(const char (&arr)[N]) { return to_int(view(arr)); }

// Unsigned decimal digits at the very start of s; 0 when there are none or
// the number does not fit.
inline uint64_t parse_u64_prefix(std::string_view s) {
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') break;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (v > (UINT64_MAX - digit) / 10) return 0;
        v = v * 10 + digit;
    }
    return v;
}

bool file_exists(const char *path);

// A line of /proc/PID/stat ("PID (COMM) STATE ...") names a live process
// called `name`: COMM is read up to the last ')' (a name may hold blanks
// and parentheses) and a zombie ('Z') or dead ('X') process is no longer
// alive.
inline bool stat_names_live(std::string_view stat, std::string_view name) {
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return false;
    if (std::string_view(stat.data() + open + 1, close - open - 1) != name) return false;
    if (stat.size() < close + 3 || stat[close + 1] != ' ') return false;
    const char state = stat[close + 2];
    return state != 'Z' && state != 'X';
}
// True while process `pid` lives and is called `name`.
bool process_alive_as(uint64_t pid, std::string_view name);

// A text field filled outside the library (a control block, a caller's
// structure): true when it ends inside its array, so it can be used as a C
// string. A field filled to its last byte was cut by whoever filled it.
template <size_t N> bool terminated(const char (&field)[N]) { return strnlen(field, N) < N; }

inline bool is_ascii_alnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// True when `s` is a non-empty word of letters, digits and the characters
// of `extra` only. Text that goes into a shell command is checked against
// the word class of its field; what fails is refused, never escaped.
inline bool is_word_of(std::string_view s, std::string_view extra) {
    if (s.empty()) return false;
    for (char c : s)
        if (!is_ascii_alnum(c) && extra.find(c) == std::string_view::npos) return false;
    return true;
}

// True when `s` is a non-empty word that can stand unquoted in a shell
// command: letters, digits and _ . - / : only, and never a leading '-',
// which the command would take for an option. Names and keys that callers
// hand to the library's command templates are checked with it.
inline bool is_shell_word(std::string_view s) { return is_word_of(s, "_.-/:") && s.front() != '-'; }

// True when `s` is a plain address or host name: what may stand as ping's
// host. Letters and digits, then also . - _ : % (IPv6 texts, scoped
// addresses); never a leading '-', which a command would take for an
// option.
inline bool is_host_word(std::string_view s) {
    if (s.empty() || (!is_ascii_alnum(s[0]) && s[0] != ':')) return false;
    for (char c : s)
        if (!is_ascii_alnum(c) && c != '.' && c != '-' && c != '_' && c != ':' && c != '%') return false;
    return true;
}

} // namespace zq
