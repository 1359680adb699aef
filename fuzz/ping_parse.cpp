// The ping parser on any text, straight and through the command runner's
// 256-byte buffer as the struct action reads it. Nothing outside the text
// may be read (it lies in a heap block of exactly its size), and the result
// must keep the parser's rules:
//   - no_stats is 1 exactly when the text holds no '%', and then loss is 100;
//   - with loss 100 the four times are left as they were;
//   - otherwise jitter is max - min, and each time is 0, the saturated
//     INT32_MAX, or a number that the text spells out;
//   - the verdict is one of the six.
//
// Input: [mode][text...]; mode bit 0 set: the text goes through the ring.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "engine/engine.h"
#include "engine/util.h"
#include "fuzz/fuzz_input.h"
#include "methods/methods.h"

using namespace zq;

namespace {

constexpr uint32_t UNTOUCHED = 0xabababab;

bool spelled_out(std::string_view text, uint32_t value) {
    if (value == 0 || value == INT32_MAX) return true;
    return text.find(std::to_string(value)) != std::string_view::npos;
}

void check(std::string_view text) {
    ping_result r;
    memset(&r, 0xab, sizeof(r));
    parse_ping_output(text, r);
    const bool percent = text.find('%') != std::string_view::npos;
    FUZZ_CHECK(r.no_stats == (percent ? 0 : 1));
    if (!percent) FUZZ_CHECK(r.loss == 100);
    if (r.loss == 100) {
        FUZZ_CHECK(r.avg == UNTOUCHED && r.min == UNTOUCHED && r.max == UNTOUCHED && r.jitter == UNTOUCHED);
    } else {
        FUZZ_CHECK(r.jitter == r.max - r.min);
        FUZZ_CHECK(spelled_out(text, r.avg) && spelled_out(text, r.min) && spelled_out(text, r.max));
    }
    FUZZ_CHECK(ping_verdict(r) <= PING_NO_STATS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const bool through_ring = in.byte() & 1u;
    std::string text = in.rest();
    if (!through_ring) {
        std::unique_ptr<char[]> exact(new char[text.size()]);
        memcpy(exact.get(), text.data(), text.size());
        check(std::string_view(exact.get(), text.size()));
        return 0;
    }
    // As the struct action: a cleared 256-byte buffer, read up to its NUL.
    char buffer[256] = {};
    const int fd = fuzz_output_fd(text);
    if (fd < 0) return 0;
    cmd_collect_output(fd, buffer, sizeof(buffer));
    close(fd);
    check(zq::view(buffer));
    return 0;
}
