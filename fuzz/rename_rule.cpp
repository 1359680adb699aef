// The archive renaming rule (stamped_path) on arbitrary paths, stamps,
// modes and name limits. Checks: `dst` (128 bytes, in a heap block of
// exactly that size) is always terminated; on failure it holds the source
// (cut to 127); on success it keeps the source's directory, the new base
// name is shorter than the limit, carries the stamp before the name's front
// (after it in mode 2) and ends in the source's extension.
//
// Input: [mode][max_len][stamp length][stamp...][path...]
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/fuzz_input.h"
#include "upload/upload.h"

using namespace zq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint32_t mode = in.byte() % 4;
    const uint64_t max_len = in.byte();
    const std::string stamp = in.bytes(in.byte() % 32);
    const std::string src = in.bytes(300);
    const std::string_view stamp_view(stamp.data(), strnlen(stamp.data(), stamp.size()));
    const std::string_view src_view(src.data(), strnlen(src.data(), src.size()));
    auto dst = std::make_unique<char[]>(128);
    const int rc = stamped_path(src_view, stamp_view, mode, max_len, dst.get());
    const size_t length = strnlen(dst.get(), 128);
    FUZZ_CHECK(length < 128);
    const std::string_view out(dst.get(), length);
    if (rc != 0) {
        FUZZ_CHECK(out == src_view.substr(0, 127));
        return 0;
    }
    FUZZ_CHECK(!stamp_view.empty() && mode != 0);
    const size_t slash = src_view.rfind('/');
    const size_t dir = slash == std::string_view::npos ? 0 : slash + 1;
    FUZZ_CHECK(out.substr(0, dir) == src_view.substr(0, dir));
    const std::string_view name = out.substr(dir);
    FUZZ_CHECK(name.size() < max_len);
    const std::string_view base = src_view.substr(dir).substr(0, 127);
    const size_t dot = base.find('.');
    const std::string_view extension =
        dot == std::string_view::npos ? std::string_view{} : base.substr(dot, 49);
    FUZZ_CHECK(name.size() >= extension.size() && name.substr(name.size() - extension.size()) == extension);
    if (mode == 2)
        FUZZ_CHECK(name.substr(name.size() - extension.size() - stamp_view.size(), stamp_view.size()) ==
                   stamp_view);
    else
        FUZZ_CHECK(name.substr(0, stamp_view.size()) == stamp_view);
    return 0;
}
