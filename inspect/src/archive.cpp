#include "archive.hpp"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "refusal.hpp"
#include "text.hpp"

namespace zqinspect {

namespace {

using ArchivePtr = std::unique_ptr<archive, decltype(&archive_read_free)>;

[[noreturn]] void refuse(const std::string &reason) { throw Refusal(reason); }

std::string shown_name(std::string_view name) { return "'" + escaped(name.substr(0, 120)) + "'"; }

// A member name the tool accepts: relative, no ".." component, no empty
// name. Names are only ever looked at, never used as paths, but a name that
// tries to leave the archive's directory says the archive is hostile.
void check_name(std::string_view name) {
    if (name.empty()) refuse("member with an empty name");
    if (name.front() == '/') refuse("member with an absolute path " + shown_name(name));
    size_t begin = 0;
    while (begin <= name.size()) {
        size_t end = name.find('/', begin);
        if (end == std::string_view::npos) end = name.size();
        if (name.substr(begin, end - begin) == "..") refuse("member with a '..' path " + shown_name(name));
        begin = end + 1;
    }
}

const char *file_type_text(mode_t type) {
    switch (type) {
    case AE_IFLNK:
        return "a symbolic link";
    case AE_IFCHR:
        return "a character device";
    case AE_IFBLK:
        return "a block device";
    case AE_IFIFO:
        return "a FIFO";
    case AE_IFSOCK:
        return "a socket";
    case AE_IFDIR:
        return "a directory";
    default:
        return "not a plain file";
    }
}

UploadKind kind_of(const std::vector<Member> &members) {
    bool capture = false;
    for (const Member &m : members) {
        const std::string_view base = std::string_view(m.name).substr(m.name.rfind('/') + 1);
        if (base == "diag_log" || base == "cmd_log") return UploadKind::diagnosis;
        if (looks_like_pcap(m.data)) capture = true;
    }
    return capture ? UploadKind::capture : UploadKind::unknown;
}

} // namespace

const char *kind_name(UploadKind kind) {
    switch (kind) {
    case UploadKind::diagnosis:
        return "diagnosis";
    case UploadKind::capture:
        return "capture";
    case UploadKind::capture_file:
        return "capture_file";
    case UploadKind::unknown:
        break;
    }
    return "unknown";
}

bool looks_like_pcap(std::string_view data) {
    if (data.size() < 4) return false;
    uint32_t magic = 0;
    memcpy(&magic, data.data(), 4);
    switch (magic) {
    case 0xa1b2c3d4:
    case 0xd4c3b2a1: // microseconds
    case 0xa1b23c4d:
    case 0x4d3cb2a1: // nanoseconds
    case 0x0a0d0d0a: // pcapng section header
        return true;
    default:
        return false;
    }
}

Upload read_upload(std::string_view data, std::string_view name, const ArchiveCaps &caps) {
    if (data.size() > caps.input_size)
        refuse("upload of " + std::to_string(data.size()) + " bytes is over the cap of " +
               std::to_string(caps.input_size));
    Upload upload;
    if (looks_like_pcap(data)) {
        upload.kind = UploadKind::capture_file;
        upload.members.push_back({std::string(name), std::string(data)});
        return upload;
    }
    ArchivePtr a(archive_read_new(), archive_read_free);
    if (!a) refuse("out of memory");
    // Tar only, and only the filters that are built into the library:
    // enabling every filter would let an archive make libarchive run an
    // outside program.
    archive_read_support_format_tar(a.get());
    archive_read_support_filter_gzip(a.get());
    archive_read_support_filter_bzip2(a.get());
    archive_read_support_filter_xz(a.get());
    if (archive_read_open_memory(a.get(), data.data(), data.size()) != ARCHIVE_OK)
        refuse(std::string("not a tar archive: ") +
               escaped(archive_error_string(a.get()) ?: "unknown format"));
    uint64_t total = 0;
    const uint64_t ratio_budget = std::max<uint64_t>(data.size(), 512) * caps.ratio;
    for (;;) {
        archive_entry *entry = nullptr;
        const int r = archive_read_next_header(a.get(), &entry);
        if (r == ARCHIVE_EOF) break;
        if (r != ARCHIVE_OK)
            refuse(std::string("corrupt or truncated archive: ") +
                   escaped(archive_error_string(a.get()) ?: "unreadable header"));
        const char *raw_name = archive_entry_pathname(entry);
        const std::string_view member_name = raw_name ? raw_name : "";
        if (upload.members.size() >= caps.members)
            refuse("more than " + std::to_string(caps.members) + " members");
        check_name(member_name);
        if (archive_entry_hardlink(entry)) refuse("member " + shown_name(member_name) + " is a hard link");
        const mode_t type = archive_entry_filetype(entry);
        if (type != AE_IFREG) {
            // A directory entry carries nothing; anything else is refused.
            if (type == AE_IFDIR) continue;
            refuse("member " + shown_name(member_name) + " is " + file_type_text(type));
        }
        if (archive_entry_size_is_set(entry) &&
            static_cast<uint64_t>(archive_entry_size(entry)) > caps.member_size)
            refuse("member " + shown_name(member_name) + " of " + std::to_string(archive_entry_size(entry)) +
                   " bytes is over the cap of " + std::to_string(caps.member_size));
        Member member{std::string(member_name), {}};
        char buf[16384];
        for (;;) {
            const la_ssize_t n = archive_read_data(a.get(), buf, sizeof(buf));
            if (n == 0) break;
            if (n < 0)
                refuse("corrupt or truncated archive in " + shown_name(member_name) + ": " +
                       escaped(archive_error_string(a.get()) ?: "read error"));
            if (member.data.size() + static_cast<uint64_t>(n) > caps.member_size)
                refuse("member " + shown_name(member_name) + " is over the cap of " +
                       std::to_string(caps.member_size) + " bytes");
            total += static_cast<uint64_t>(n);
            if (total > caps.total_size)
                refuse("members over the cap of " + std::to_string(caps.total_size) + " bytes in all");
            if (total > ratio_budget)
                refuse("compression ratio over " + std::to_string(caps.ratio) + " (a compression bomb)");
            member.data.append(buf, static_cast<size_t>(n));
        }
        upload.members.push_back(std::move(member));
    }
    if (upload.members.empty()) refuse("archive holds no file");
    upload.kind = kind_of(upload.members);
    return upload;
}

std::string read_input_file(const std::string &path, const ArchiveCaps &caps) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) refuse("cannot open " + shown_name(path) + ": " + strerror(errno));
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        refuse(shown_name(path) + " is not a plain file");
    }
    if (static_cast<uint64_t>(st.st_size) > caps.input_size) {
        close(fd);
        refuse("upload of " + std::to_string(st.st_size) + " bytes is over the cap of " +
               std::to_string(caps.input_size));
    }
    std::string data(static_cast<size_t>(st.st_size), '\0');
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = read(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    data.resize(done);
    return data;
}

} // namespace zqinspect
