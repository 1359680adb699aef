// The route -n parser on any text, into a table whose count the caller may
// have left at any value. Nothing outside the text or the table may be read
// or written, and:
//   - the count never shrinks, grows by one per kept line up to 31, and
//     never grows past 31;
//   - every destination and mask slot stays a terminated text of at most
//     15 characters with no whitespace in it.
//
// Input: [initial count][text...]
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/fuzz_input.h"
#include "methods/methods.h"

using namespace zq;

namespace {

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool clean_slot(const char (&slot)[16]) {
    const size_t len = strnlen(slot, sizeof(slot));
    if (len == sizeof(slot)) return false;
    for (size_t i = 0; i < len; ++i)
        if (is_space(slot[i])) return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint8_t initial = in.byte();
    const std::string text = in.rest();
    std::unique_ptr<char[]> exact(new char[text.size()]);
    memcpy(exact.get(), text.data(), text.size());

    auto table = std::make_unique<route_table>();
    memset(table.get(), 0, sizeof(route_table));
    table->count = initial;
    parse_route_table(std::string_view(exact.get(), text.size()), *table);

    size_t lines = 0;
    for (size_t at = 0; at < text.size();) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos) nl = text.size();
        if (nl > at) ++lines;
        at = nl + 1;
    }
    FUZZ_CHECK(table->count >= initial);
    if (initial <= 31) FUZZ_CHECK(table->count <= 31);
    if (initial < 31) FUZZ_CHECK(table->count - initial <= (lines > 0 ? lines - 1 : 0));
    if (initial >= 31) FUZZ_CHECK(table->count == initial);
    for (int i = 0; i < 32; ++i)
        FUZZ_CHECK(clean_slot(table->destinations[i]) && clean_slot(table->masks[i]));
    return 0;
}
