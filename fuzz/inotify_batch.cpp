// The reader of inotify event batches of the continuous upload
// (find_finished_capture) on arbitrary batches of up to 64 bytes, in a heap
// block of exactly the size read. Checks: the name it takes is terminated,
// non-empty, holds ".pcap" and is the name of an event of the batch that
// closes a written file, the first such one; without one the name is
// untouched.
//
// Input: the batch bytes.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <sys/inotify.h>

#include "capture/continuous.h"
#include "fuzz/fuzz_input.h"

using namespace zq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 64) size = 64;
    auto batch = std::make_unique<char[]>(size ? size : 1);
    if (size) memcpy(batch.get(), data, size);
    char name[ZQ_FINISHED_NAME_SIZE];
    memset(name, 'x', sizeof(name));
    const int rc = find_finished_capture(batch.get(), size, name);

    // The model: walk the events as the kernel lays them out.
    std::string_view expected;
    for (size_t at = 0; size - at >= 16;) {
        uint32_t header[4];
        memcpy(header, batch.get() + at, sizeof(header));
        at += 16;
        if (header[3] > size - at) break;
        const std::string_view event(batch.get() + at, strnlen(batch.get() + at, header[3]));
        at += header[3];
        if ((header[1] & IN_CLOSE_WRITE) && header[3] != 0 && event.find(".pcap") != std::string_view::npos) {
            expected = event;
            break;
        }
    }
    if (expected.empty()) {
        FUZZ_CHECK(rc == -1);
        for (char c : name) FUZZ_CHECK(c == 'x');
        return 0;
    }
    FUZZ_CHECK(rc == 0);
    FUZZ_CHECK(std::string_view(name, strnlen(name, sizeof(name))) == expected.substr(0, sizeof(name) - 1));
    return 0;
}
