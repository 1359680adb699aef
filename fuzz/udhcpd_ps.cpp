// The process list "ps | grep udhcpd" is judged by counting "/bin/udhcpd"
// in it with count_substr, overlapping matches included. The count must
// equal a plain model for any text and any needle, reading only the bytes
// of the two C strings.
//
// Input: [split][bytes...]: the text, and a needle cut from it at `split`
// (the listing is also counted for "/bin/udhcpd" itself).
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_input.h"
#include "methods/methods.h"

using namespace zq;

namespace {

std::unique_ptr<char[]> c_string(const std::string &s) {
    std::unique_ptr<char[]> p(new char[s.size() + 1]);
    memcpy(p.get(), s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

int model_count(const std::string &text, const std::string &needle) {
    const std::string hay(text.c_str()), pin(needle.c_str()); // up to the first NUL
    if (pin.empty()) return 0;
    int n = 0;
    for (size_t i = 0; i + pin.size() <= hay.size(); ++i)
        if (hay.compare(i, pin.size(), pin) == 0) ++n;
    return n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const size_t split = in.byte();
    const std::string text = in.rest();
    const std::string needle = text.substr(0, split < text.size() ? split : text.size());

    const auto listing = c_string(text);
    const auto pin = c_string(needle);
    FUZZ_CHECK(count_substr(listing.get(), "/bin/udhcpd") == model_count(text, "/bin/udhcpd"));
    FUZZ_CHECK(count_substr(listing.get(), pin.get()) == model_count(text, needle));
    FUZZ_CHECK(count_substr(nullptr, pin.get()) == 0);
    FUZZ_CHECK(count_substr(listing.get(), nullptr) == 0);
    return 0;
}
