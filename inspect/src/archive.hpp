// Reading an uploaded archive in memory, with libarchive, never extracting
// anything to disk. Every archive comes from a device the ISP does not
// control: whatever is not a plain file of a sane name and size is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zqinspect {

// The caps that keep memory bounded whatever the input. A diagnosis package
// holds seven files and a capture archive two; a gateway's capture files are
// at most 3 million bytes each (its allowance) and its diagnosis capture
// 2000 packets, so these leave ample room for real uploads.
struct ArchiveCaps {
    uint64_t input_size = 64ull << 20;  // the uploaded file itself
    uint32_t members = 64;              // entries in one archive
    uint64_t member_size = 16ull << 20; // one member's bytes
    uint64_t total_size = 48ull << 20;  // all members' bytes together
    uint64_t ratio = 200;               // bytes read out per byte of the upload
};

struct Member {
    std::string name;
    std::string data;
};

enum class UploadKind { diagnosis, capture, capture_file, unknown };
const char *kind_name(UploadKind kind);

struct Upload {
    UploadKind kind = UploadKind::unknown;
    std::vector<Member> members; // in archive order; one for a bare capture file
};

// True when `data` starts with a capture file's magic (pcap or pcapng).
bool looks_like_pcap(std::string_view data);

// Reads the upload `data` (a tar archive, possibly compressed, or a single
// capture file) named `name`. Throws Refusal.
Upload read_upload(std::string_view data, std::string_view name, const ArchiveCaps &caps = {});

// Reads the file at `path` whole, refusing one over the input cap. Throws
// Refusal.
std::string read_input_file(const std::string &path, const ArchiveCaps &caps = {});

} // namespace zqinspect
