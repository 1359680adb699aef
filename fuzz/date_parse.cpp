// The timestamp read from the text `date` printed (timestamp_from_date).
// Checks: `out` is untouched on failure; on success it is terminated, made of
// digits only (it becomes part of a file name and of a command), and starts
// with a month number from 1 to 12.
//
// Input: the text, up to 200 bytes (the library reads at most 100).
#include <cstdint>
#include <cstring>
#include <string_view>

#include "fuzz/fuzz_input.h"
#include "upload/upload.h"

using namespace zq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const std::string text = in.bytes(200);
    char out[ZQ_TIMESTAMP_SIZE];
    memset(out, 'x', sizeof(out));
    out[sizeof(out) - 1] = '\0';
    const int rc = timestamp_from_date(text, out);
    if (rc != 0) {
        for (size_t i = 0; i + 1 < sizeof(out); ++i) FUZZ_CHECK(out[i] == 'x');
        return 0;
    }
    const size_t length = strnlen(out, sizeof(out));
    FUZZ_CHECK(length > 0 && length < sizeof(out));
    for (size_t i = 0; i < length; ++i) FUZZ_CHECK(out[i] >= '0' && out[i] <= '9');
    FUZZ_CHECK(out[0] != '0');
    return 0;
}
