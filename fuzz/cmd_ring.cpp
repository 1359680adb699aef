// The command runner's ring: any byte stream read through cmd_collect_output
// into a buffer of any size must leave exactly what a plain model of the
// line-by-line rule gives, and nothing outside the buffer may be touched.
//
// Input: [size hi][size lo][repeat][output bytes...]
//   size hi bit 7 clear: the buffer size is one of a table of small and
//                        boundary sizes (1, 63, 64, 65, 4096, ...);
//   size hi bit 7 set:   the size is taken modulo the output length + 2,
//                        so outputs shorter than, equal to and longer than
//                        the buffer all come up;
//   repeat:              the output bytes are played 1 to 8 times, so short
//                        inputs still wrap the ring several times.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "fuzz/fuzz_input.h"

using namespace zq;

namespace {

constexpr size_t READ_LIMIT = 63; // one read of the runner: a 64-byte line buffer

constexpr uint64_t SIZES[] = {1, 2, 3, 62, 63, 64, 65, 66, 126, 127, 128, 129, 4095, 4096, 4097};

// What the runner keeps of the output: the output is cut into reads, each
// up to and including a newline or 63 bytes long, whichever comes first; of
// each read only the bytes before its first NUL count.
std::string kept_bytes(const std::string &output) {
    std::string kept;
    size_t i = 0;
    while (i < output.size()) {
        size_t end = i;
        while (end < output.size() && end - i < READ_LIMIT) {
            if (output[end++] == '\n') break;
        }
        size_t text = i;
        while (text < end && output[text] != '\0') ++text;
        kept.append(output, i, text - i);
        i = end;
    }
    return kept;
}

constexpr char FILL = '\x5a';

// The buffer the runner must leave: the kept bytes from the start when they
// are fewer than the buffer (the rest untouched), otherwise the newest
// `size` of them with the very last replaced by the terminator.
std::vector<char> expected_buffer(const std::string &kept, size_t size) {
    std::vector<char> out(size, FILL);
    if (kept.size() < size) {
        memcpy(out.data(), kept.data(), kept.size());
    } else {
        memcpy(out.data(), kept.data() + kept.size() - size, size);
        out[size - 1] = '\0';
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint16_t size_field = in.u16();
    const unsigned repeat = 1 + (in.byte() & 7u);
    const std::string piece = in.rest();
    std::string output;
    for (unsigned r = 0; r < repeat; ++r) output += piece;

    uint64_t buf_size;
    if (size_field & 0x8000u)
        buf_size = 1 + (size_field & 0x7fffu) % (output.size() + 2);
    else
        buf_size = SIZES[size_field % (sizeof(SIZES) / sizeof(SIZES[0]))];

    const int fd = fuzz_output_fd(output);
    FUZZ_CHECK(fd >= 0);
    // Exactly the buffer's size on the heap: any byte written or read outside
    // it is caught by the address sanitizer.
    char *buf = static_cast<char *>(malloc(buf_size));
    FUZZ_CHECK(buf != nullptr);
    memset(buf, FILL, buf_size);

    const int rc = cmd_collect_output(fd, buf, buf_size);
    close(fd);
    FUZZ_CHECK(rc == 0);

    const std::string kept = kept_bytes(output);
    const std::vector<char> want = expected_buffer(kept, buf_size);
    if (kept.size() >= buf_size) {
        // A full buffer is always terminated inside itself.
        FUZZ_CHECK(buf[buf_size - 1] == '\0');
        FUZZ_CHECK(memchr(buf, '\0', buf_size) != nullptr);
    }
    FUZZ_CHECK(memcmp(buf, want.data(), buf_size) == 0);
    free(buf);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Arguments the runner refuses without touching anything.
    char one = FILL;
    const int null = fuzz_output_fd("");
    FUZZ_CHECK(null >= 0);
    FUZZ_CHECK(cmd_collect_output(-1, &one, 1) == -1);
    FUZZ_CHECK(cmd_collect_output(null, nullptr, 1) == -1);
    FUZZ_CHECK(cmd_collect_output(null, &one, 0) == -1);
    FUZZ_CHECK(one == FILL);
    close(null);
    return 0;
}
