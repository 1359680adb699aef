// The small text helpers every parser of tool output leans on: the leading
// number parsers, the shell-word and host-word tests, bounded copies, substring
// tests and the /proc/PID/stat reader.
// Each is compared with a plain model; each is handed heap blocks of exactly
// the size it is told, so a read or write past them is caught.
//
// Input: [copy size][split][text...]
//   copy size: destination size for zq::copy (0 to 255);
//   split:     where the text is cut into haystack and needle.
//
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "engine/util.h"
#include "fuzz/fuzz_input.h"

using namespace zq;

namespace {

// ---- models ----------------------------------------------------------------

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The exact value of the leading number (blanks, sign, digits) as a sign and
// a magnitude; the magnitude stops growing once it is past every bound.
struct leading_number {
    bool negative = false;
    unsigned __int128 magnitude = 0;
};
constexpr unsigned __int128 BIG = static_cast<unsigned __int128>(1) << 70;

leading_number signed_number(std::string_view s) {
    leading_number n;
    size_t i = 0;
    while (i < s.size() && is_space(s[i])) ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) n.negative = s[i++] == '-';
    for (; i < s.size() && is_digit(s[i]); ++i)
        if (n.magnitude < BIG) n.magnitude = n.magnitude * 10 + static_cast<unsigned>(s[i] - '0');
    return n;
}

__int128 clamp(const leading_number &n, __int128 lo, __int128 hi) {
    if (n.negative)
        return n.magnitude > static_cast<unsigned __int128>(-lo) ? lo : -static_cast<__int128>(n.magnitude);
    return n.magnitude > static_cast<unsigned __int128>(hi) ? hi : static_cast<__int128>(n.magnitude);
}

long long model_int_prefix(std::string_view s) {
    return static_cast<long long>(clamp(signed_number(s), INT64_MIN, INT64_MAX));
}

int model_to_int(std::string_view s) {
    return static_cast<int>(clamp(signed_number(s), INT32_MIN, INT32_MAX));
}

// Digits at the very start; 0 when there are none or the value is too big.
unsigned __int128 leading_digits(std::string_view s) {
    unsigned __int128 v = 0;
    for (size_t i = 0; i < s.size() && is_digit(s[i]); ++i)
        if (v < BIG) v = v * 10 + static_cast<unsigned>(s[i] - '0');
    return v;
}
uint64_t model_u64_prefix(std::string_view s) {
    unsigned __int128 v = leading_digits(s);
    return v > UINT64_MAX ? 0 : static_cast<uint64_t>(v);
}

// A shell word: letters, digits and _ . - / : only, never a leading '-'.
bool model_shell_word(std::string_view s) {
    static const char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-/:";
    if (s.empty() || s[0] == '-') return false;
    for (char c : s)
        if (!memchr(allowed, c, sizeof(allowed) - 1)) return false;
    return true;
}

// A host word: a letter, digit or ':' first (never an option's '-'), then
// letters, digits and . - _ : %.
bool model_host_word(std::string_view s) {
    static const char first[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:";
    static const char rest[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:%";
    if (s.empty() || !memchr(first, s[0], sizeof(first) - 1)) return false;
    for (char c : s)
        if (!memchr(rest, c, sizeof(rest) - 1)) return false;
    return true;
}

bool model_contains(std::string_view hay, std::string_view needle) {
    if (needle.size() > hay.size()) return false;
    for (size_t i = 0; i + needle.size() <= hay.size(); ++i)
        if (memcmp(hay.data() + i, needle.data(), needle.size()) == 0) return true;
    return false;
}

// ---- heap blocks of an exact size ---------------------------------------------

std::unique_ptr<char[]> exact_copy(std::string_view s) {
    std::unique_ptr<char[]> p(new char[s.size() ? s.size() : 1]);
    if (!s.empty()) memcpy(p.get(), s.data(), s.size());
    return p;
}

std::unique_ptr<char[]> c_string(std::string_view s) {
    std::unique_ptr<char[]> p(new char[s.size() + 1]);
    memcpy(p.get(), s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

// ---- checks -------------------------------------------------------------------

void check_numbers(std::string_view text) {
    std::unique_ptr<char[]> block = exact_copy(text);
    const std::string_view s{block.get(), text.size()};

    FUZZ_CHECK(zq::parse_int_prefix(s) == model_int_prefix(s));
    FUZZ_CHECK(zq::to_int(s) == model_to_int(s));

    FUZZ_CHECK(zq::parse_u64_prefix(s) == model_u64_prefix(s));

    FUZZ_CHECK(zq::is_shell_word(s) == model_shell_word(s));
    FUZZ_CHECK(zq::is_host_word(s) == model_host_word(s));

    // The C-string form reads up to the first NUL.
    std::unique_ptr<char[]> cs = c_string(text);
    FUZZ_CHECK(zq::to_int(cs.get()) == model_to_int(std::string_view{cs.get()}));
}

void check_copy(std::string_view src, size_t size) {
    std::unique_ptr<char[]> block = exact_copy(src);
    const std::string_view s{block.get(), src.size()};
    constexpr char FILL = '\x7e';

    std::unique_ptr<char[]> dst(new char[size ? size : 1]);
    memset(dst.get(), FILL, size ? size : 1);
    zq::copy(dst.get(), size, s);
    if (size == 0) {
        FUZZ_CHECK(dst[0] == FILL);
    } else {
        const size_t n = s.size() < size - 1 ? s.size() : size - 1;
        FUZZ_CHECK(memcmp(dst.get(), s.data(), n) == 0);
        FUZZ_CHECK(dst[n] == '\0');
        for (size_t i = n + 1; i < size; ++i) FUZZ_CHECK(dst[i] == FILL);
    }
    zq::copy(nullptr, size, s); // must not crash

    // The fixed-array forms, at the sizes of the record text fields.
    auto fixed = [&](auto &arr) {
        constexpr size_t N = sizeof(arr);
        zq::copy(arr, s);
        const size_t n = s.size() < N - 1 ? s.size() : N - 1;
        FUZZ_CHECK(memcmp(arr, s.data(), n) == 0 && arr[n] == '\0');
        std::unique_ptr<char[]> cs = c_string(src);
        zq::copy(arr, cs.get());
        const size_t m = strnlen(cs.get(), N - 1);
        FUZZ_CHECK(memcmp(arr, cs.get(), m) == 0 && arr[m] == '\0');
        zq::copy(arr, static_cast<const char *>(nullptr));
        FUZZ_CHECK(arr[0] == '\0');
    };
    std::unique_ptr<char[]> a8(new char[8]);
    std::unique_ptr<char[]> a32(new char[32]);
    fixed(*reinterpret_cast<char(*)[8]>(a8.get()));
    fixed(*reinterpret_cast<char(*)[32]>(a32.get()));
}

void check_contains(std::string_view hay_text, std::string_view needle_text) {
    std::unique_ptr<char[]> hb = exact_copy(hay_text);
    std::unique_ptr<char[]> nb = exact_copy(needle_text);
    const std::string_view hay{hb.get(), hay_text.size()};
    const std::string_view needle{nb.get(), needle_text.size()};
    FUZZ_CHECK(zq::contains(hay, needle) == model_contains(hay, needle));

    std::unique_ptr<char[]> hc = c_string(hay_text);
    std::unique_ptr<char[]> nc = c_string(needle_text);
    const std::string_view hay_c{hc.get()};
    const std::string_view needle_c{nc.get()};
    FUZZ_CHECK(zq::contains(hc.get(), nc.get()) == model_contains(hay_c, needle_c));
    FUZZ_CHECK(!zq::contains(static_cast<const char *>(nullptr), nc.get()));
    FUZZ_CHECK(!zq::contains(hc.get(), static_cast<const char *>(nullptr)));

    // A fixed array that may lack a terminator: only its text up to the
    // first NUL or its end is searched, and nothing past its end is read.
    auto fixed = [&](auto &arr) {
        constexpr size_t N = sizeof(arr);
        constexpr size_t fill = N; // the array may lack a terminator
        const size_t n = hay_text.size() < fill ? hay_text.size() : fill;
        memset(arr, 0, N);
        memcpy(arr, hay_text.data(), n);
        const std::string_view text{arr, strnlen(arr, N)};
        FUZZ_CHECK(zq::contains(arr, nc.get()) == model_contains(text, needle_c));
        FUZZ_CHECK(!zq::contains(arr, static_cast<const char *>(nullptr)));
        FUZZ_CHECK(zq::view(arr) == text);
        const auto &const_arr = arr; // record fields read through a const reference
        FUZZ_CHECK(zq::view(const_arr) == text);
        FUZZ_CHECK(zq::contains(const_arr, nc.get()) == model_contains(text, needle_c));
        FUZZ_CHECK(zq::bounded_len(arr, N) == text.size());
    };
    std::unique_ptr<char[]> a8(new char[8]);
    std::unique_ptr<char[]> a32(new char[32]);
    fixed(*reinterpret_cast<char(*)[8]>(a8.get()));
    fixed(*reinterpret_cast<char(*)[32]>(a32.get()));
}

} // namespace

// A /proc/PID/stat line names a live `name`: the model reads COMM between
// the first '(' and the last ')' and the state one blank after it.
void check_stat(std::string_view stat, std::string_view name) {
    const std::unique_ptr<char[]> exact(new char[stat.size() ? stat.size() : 1]);
    std::memcpy(exact.get(), stat.data(), stat.size());
    const bool got = zq::stat_names_live(std::string_view(exact.get(), stat.size()), name);
    const std::string line(stat);
    const size_t open = line.find('('), close = line.rfind(')');
    bool want = open != std::string::npos && close != std::string::npos && close > open &&
                line.compare(open + 1, close - open - 1, name) == 0 && close + 2 < line.size() &&
                line[close + 1] == ' ' && line[close + 2] != 'Z' && line[close + 2] != 'X';
    FUZZ_CHECK(got == want);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const size_t copy_size = in.byte();
    const size_t split = in.byte();
    const std::string text = in.rest();

    check_numbers(text);
    // Numbers behind a prefix of the text, as a parser meets them mid-line.
    for (size_t i = 1; i < text.size() && i <= 8; ++i) check_numbers(std::string_view{text}.substr(i));

    check_copy(text, copy_size);

    const size_t cut = split < text.size() ? split : text.size();
    const std::string_view all{text};
    check_contains(all.substr(cut), all.substr(0, cut));
    check_contains(all.substr(0, cut), all.substr(cut));
    check_stat(all.substr(cut), all.substr(0, cut));

    FUZZ_CHECK(zq::to_int(static_cast<const char *>(nullptr)) == 0);
    FUZZ_CHECK(zq::bounded_len(nullptr, 5) == 0);
    return 0;
}
