// The checks of text that goes into tcpdump's and grep's command lines,
// and the interface index read from a decoded line. An accepted interface
// name holds only name characters; an accepted decode filter nothing the
// shell acts on; a caller's capture filter is refused exactly when no
// expression can be it (filter_quote.cpp checks how it is quoted); the
// index reader must stay inside its line and its 16-byte words, and the
// decode filter of any index it gives must pass the decode-filter check.
//
// Input: [selector][text...]
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "capture/capture.h"
#include "fuzz/fuzz_input.h"

using namespace zq;

namespace {

bool has_any(std::string_view text, std::string_view chars) {
    return text.find_first_of(chars) != std::string_view::npos;
}

// The refusal of a caller's filter against a plain model: refused exactly
// when its expression (the text without quotes that wrap it whole) holds a
// control character or begins with '-' after its blanks.
void check_filter_refusal(std::string_view text) {
    std::string_view expression = text;
    if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'' &&
        text.substr(1, text.size() - 2).find('\'') == std::string_view::npos)
        expression = text.substr(1, text.size() - 2);
    FUZZ_CHECK(unwrap_capture_filter(text) == expression);
    bool control = false;
    for (char c : expression)
        control = control || (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
    const size_t first = expression.find_first_not_of(" \t");
    const bool option = first != std::string_view::npos && expression[first] == '-';
    FUZZ_CHECK((capture_filter_refusal(text) != nullptr) == (control || option));
}

void check_interface(std::string_view text) {
    if (!zq::is_interface_name(text)) return;
    FUZZ_CHECK(!text.empty() && text.size() <= 15 && text.front() != '-');
    for (char c : text)
        FUZZ_CHECK((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                   c == '.' || c == '-');
}

void check_decode(std::string_view text) {
    if (!is_decode_filter(text)) return;
    FUZZ_CHECK(!has_any(text, ";|&$`\\\n"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint8_t selector = in.byte();
    const std::string text = in.rest();
    switch (selector % 4) {
    case 0:
        check_filter_refusal(text);
        break;
    case 1:
        check_interface(text);
        break;
    case 2:
        check_decode(text);
        break;
    default: {
        // A terminated line in a block of exactly its size.
        std::unique_ptr<char[]> line(new char[text.size() + 1]);
        memcpy(line.get(), text.data(), text.size());
        line[text.size()] = '\0';
        // Whatever index a line gives, its decode filter is one of ours.
        const int index = interface_index_of(line.get());
        for (const char *pattern : {DHCP_IFINDEX_FILTER, PPPOE_IFINDEX_FILTER}) {
            char filter[256] = {};
            snprintf(filter, sizeof(filter), pattern, index);
            FUZZ_CHECK(is_decode_filter(filter));
        }
        break;
    }
    }
    return 0;
}
