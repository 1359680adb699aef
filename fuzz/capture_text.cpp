// The checks of text that goes into tcpdump's and grep's command lines,
// and the interface index read from a decoded line. An accepted filter must
// hold nothing the shell acts on and no word that tcpdump would take for
// an option; an accepted interface name only name characters; the index
// reader must stay inside its line and its 16-byte words, and the decode
// filter of any index it gives must pass the decode-filter check.
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

namespace {

bool has_any(std::string_view text, std::string_view chars) {
    return text.find_first_of(chars) != std::string_view::npos;
}

void check_filter(std::string_view text) {
    if (!is_capture_filter(text)) return;
    FUZZ_CHECK(!has_any(text, ";|&$`\\\"\n\r"));
    bool word_start = true, quoted = false;
    for (char c : text) {
        FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
        if (c == '\'') {
            quoted = !quoted;
            continue;
        }
        if (!quoted) FUZZ_CHECK(!has_any(std::string_view(&c, 1), "()<>[]*?~#{}"));
        if (c == ' ') {
            word_start = true;
            continue;
        }
        FUZZ_CHECK(!(word_start && c == '-'));
        word_start = false;
    }
    FUZZ_CHECK(!quoted);
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
        check_filter(text);
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
