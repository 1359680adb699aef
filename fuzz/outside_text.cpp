// The checks of text that the gateway's tools print and its status files
// hold (engine/outside_text.h): read_number, shown, is_interface_name,
// is_ipv4_address and is_ipv6_address. Each is compared with a plain model
// and handed a heap block of exactly the text's size, so a read past it is
// caught.
//
// Input: the text, whole.
#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "engine/outside_text.h"
#include "engine/util.h"
#include "fuzz/fuzz_input.h"

using namespace zq;

namespace {

bool printable(char c) { return c >= ' ' && c <= '~'; }

bool model_interface_name(std::string_view s) {
    static const char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-";
    if (s.empty() || s.size() > 15 || s[0] == '-' || s == "." || s == "..") return false;
    for (char c : s)
        if (!memchr(allowed, c, sizeof(allowed) - 1)) return false;
    return true;
}

// libc's own reading of a terminated copy; a NUL inside the text, or a
// text longer than any address, is no address.
bool model_address(int family, std::string_view s) {
    if (s.empty() || s.size() > 63 || s.find('\0') != std::string_view::npos) return false;
    const std::string copy(s);
    unsigned char out[16];
    return inet_pton(family, copy.c_str(), out) == 1;
}

bool model_ipv6(std::string_view s) {
    const size_t percent = s.find('%');
    if (percent == std::string_view::npos) return model_address(AF_INET6, s);
    return model_interface_name(s.substr(percent + 1)) && model_address(AF_INET6, s.substr(0, percent));
}

void check_shown(std::string_view s) {
    const zq::shown_text out = zq::shown(s);
    const std::string_view text{out.text, strnlen(out.text, sizeof(out.text))};
    FUZZ_CHECK(text.size() < sizeof(out.text));
    const size_t n = s.size() < 40 ? s.size() : 40;
    FUZZ_CHECK(text.size() == (s.size() > 40 ? n + 3 : n));
    for (size_t i = 0; i < n; ++i) FUZZ_CHECK(text[i] == (printable(s[i]) ? s[i] : '?'));
    if (s.size() > 40) FUZZ_CHECK(text.substr(n) == "...");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::unique_ptr<char[]> block(new char[size ? size : 1]);
    if (size) memcpy(block.get(), data, size);
    const std::string_view s{block.get(), size};

    FUZZ_CHECK(zq::read_number("fuzz", "text", s) == zq::to_int(s));
    check_shown(s);
    FUZZ_CHECK(zq::is_interface_name(s) == model_interface_name(s));
    FUZZ_CHECK(zq::is_process_name(s) == model_interface_name(s));
    FUZZ_CHECK(zq::is_ipv4_address(s) == model_address(AF_INET, s));
    FUZZ_CHECK(zq::is_ipv6_address(s) == model_ipv6(s));
    return 0;
}
