// zqdiag-inspect's archive walk: any bytes as an upload, read with small
// caps so that the fuzzer reaches every refusal. Either a clear refusal or
// members within every cap, with sane names and the kind decided.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "archive.hpp"
#include "refusal.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zqinspect::ArchiveCaps caps;
    caps.input_size = 1 << 20;
    caps.members = 8;
    caps.member_size = 64 << 10;
    caps.total_size = 128 << 10;
    caps.ratio = 50;
    const std::string_view in(reinterpret_cast<const char *>(data), size);
    try {
        const zqinspect::Upload u = zqinspect::read_upload(in, "11161621dia.tar", caps);
        if (u.members.empty() || u.members.size() > caps.members) abort();
        uint64_t total = 0;
        for (const zqinspect::Member &m : u.members) {
            if (m.name.empty() || m.name[0] == '/' || m.data.size() > caps.member_size) abort();
            if (m.name == ".." || m.name.starts_with("../") || m.name.find("/../") != std::string::npos ||
                m.name.ends_with("/.."))
                abort();
            total += m.data.size();
        }
        if (u.kind != zqinspect::UploadKind::capture_file && total > caps.total_size) abort();
    } catch (const zqinspect::Refusal &e) {
        if (std::string_view(e.what()).empty()) abort();
    }
    return 0;
}
