// The "free | grep Mem" line: label, total and used KiB, separated by runs
// of spaces. parse_mem_line must fill the memory fields as a plain model
// says (figures saturate at 32 bits, a figure that does not start with a
// digit is 0), touch nothing else, and read only the bytes it is given.
//
// Input: the command's output.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "methods/methods.h"

using namespace zq;

namespace {

uint32_t model_kib(const std::string &token) {
    unsigned __int128 v = 0;
    size_t i = 0;
    for (; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i)
        if (v <= UINT64_MAX) v = v * 10 + static_cast<unsigned>(token[i] - '0');
    if (v > UINT64_MAX) return 0; // no 64-bit figure at all
    return v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const std::string text = in.rest();
    std::unique_ptr<char[]> bytes(new char[text.size() ? text.size() : 1]);
    memcpy(bytes.get(), text.data(), text.size());

    zqSD_sys_diag block;
    memset(&block, 0x5a, sizeof(block));
    const zqSD_sys_diag before = block;
    parse_mem_line(std::string_view(bytes.get(), text.size()), block);

    std::vector<std::string> tokens;
    std::string token;
    for (char c : text) {
        if (c == ' ') {
            if (!token.empty()) tokens.push_back(token);
            token.clear();
        } else {
            token += c;
        }
    }
    if (!token.empty()) tokens.push_back(token);

    if (tokens.empty()) {
        FUZZ_CHECK(memcmp(&block, &before, sizeof(block)) == 0);
        return 0;
    }
    const uint32_t total = tokens.size() > 1 ? model_kib(tokens[1]) : 0;
    const uint32_t used = tokens.size() > 2 ? model_kib(tokens[2]) : 0;
    FUZZ_CHECK(block.sys_mem_total == total);
    FUZZ_CHECK(block.sys_mem_free == static_cast<uint32_t>(total - used));
    FUZZ_CHECK(block.sys_mem_usage ==
               (total ? static_cast<uint8_t>(static_cast<uint64_t>(used) * 100 / total) : 0));
    // Nothing past the memory fields.
    FUZZ_CHECK(memcmp(&block.sys_cpu_usage, &before.sys_cpu_usage,
                      sizeof(block) - offsetof(zqSD_sys_diag, sys_cpu_usage)) == 0);
    return 0;
}
