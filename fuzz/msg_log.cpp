// The message log writer: random sequences of entries (levels, texts,
// a few of the formats the methods use) and resets, each followed by a
// comparison of the whole buffer and the write offset with a model of the
// three stages (prefix, text, newline).
//
// Input: a list of entries, each [op][length][text bytes]
//   op bits 7-6: 0 "%s", 1 "%s %d", 2 "... %s [... %.2f dBm]", 3 special;
//   op bits 1-0: the level (0 to 3);
//   special: op bit 5 set empties the buffer, else an unknown level
//            (4 + bits 4-2) is written, which must change nothing.
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "engine/engine.h"
#include "fuzz/fuzz_input.h"

using namespace zq;

namespace {

constexpr uint64_t SIZE = ZQ_DIAG_MSG_SIZE;
const char *const PREFIX[] = {"[normal ]", "[success]", "[warn   ]", "[error  ]"};

// The buffer as the writer must leave it.
struct model {
    std::array<char, SIZE> buf{};
    uint64_t offset = 0;

    void reset() {
        buf.fill('\0');
        offset = 0;
    }

    // One stage: writes what fits of `text` at the offset, always
    // terminated, and reports the full length, as a bounded formatter does.
    // Returns false when the entry must stop here.
    bool stage(const std::string &text) {
        if (offset > SIZE - 1) return false;
        const uint64_t room = SIZE - offset;
        const uint64_t n = text.size() < room - 1 ? text.size() : room - 1;
        memcpy(buf.data() + offset, text.data(), n);
        buf[offset + n] = '\0';
        if (text.empty()) return false;
        offset += text.size();
        return true;
    }

    void entry(uint32_t level, const std::string &text) {
        if (level > 3) return;
        if (offset > SIZE - 1) return;
        if (!stage(PREFIX[level])) return;
        if (!stage(text)) return;
        stage("\n");
    }
};

model expected;

[[gnu::format(printf, 1, 2)]] std::string formatted(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    int n = vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string s(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) vsnprintf(s.data(), s.size() + 1, fmt, ap2);
    va_end(ap2);
    return s;
}

void check_buffer() {
    FUZZ_CHECK(zq_diag_msg_offset == expected.offset);
    FUZZ_CHECK(memcmp(zq_diag_msg, expected.buf.data(), SIZE) == 0);
    // Always a terminated text of at most 4095 characters, as long as the
    // offset or up to the end once the offset has run past it.
    FUZZ_CHECK(zq_diag_msg[SIZE - 1] == '\0');
    const size_t len = strlen(zq_diag_msg);
    FUZZ_CHECK(len <= SIZE - 1);
    FUZZ_CHECK(len == (zq_diag_msg_offset < SIZE - 1 ? zq_diag_msg_offset : SIZE - 1));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    zq_diag_msg_reset();
    expected.reset();
    check_buffer();

    while (!in.empty()) {
        const uint8_t op = in.byte();
        const size_t length = in.byte();
        const std::string raw = in.bytes(length);
        const std::string text = raw.c_str(); // "%s" stops at the first NUL
        const uint32_t level = op & 3u;
        const int number = static_cast<int>(length) * (op & 4 ? -37 : 1013);
        const double power = -static_cast<double>(length) / 7.0;

        switch (op >> 6) {
        case 0:
            zq_diag_msg_printf(level, "%s", text.c_str());
            expected.entry(level, text);
            break;
        case 1:
            zq_diag_msg_printf(level, "%s %d", text.c_str(), number);
            expected.entry(level, formatted("%s %d", text.c_str(), number));
            break;
        case 2:
            zq_diag_msg_printf(level, "Optical power is %s [rx_power: %.2f dBm] %d%%", text.c_str(), power,
                               number);
            expected.entry(level, formatted("Optical power is %s [rx_power: %.2f dBm] %d%%", text.c_str(),
                                            power, number));
            break;
        default:
            if (op & 0x20) {
                zq_diag_msg_reset();
                expected.reset();
            } else {
                const uint32_t unknown = 4u + ((op >> 2) & 7u);
                zq_diag_msg_printf(unknown, "%s", text.c_str());
                expected.entry(unknown, text);
            }
            break;
        }
        check_buffer();
    }
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // An unknown level leaves a technical log line on standard output each
    // time; keep the fuzzer's own output readable.
    if (!freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}
