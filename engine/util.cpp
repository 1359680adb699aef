#include "engine/util.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace zq {

bool file_exists(const char *path) { return path && access(path, F_OK) == 0; }

bool process_alive_as(uint64_t pid, std::string_view name) {
    if (pid == 0) return false;
    char path[48] = {};
    snprintf(path, sizeof(path), "/proc/%llu/stat", static_cast<unsigned long long>(pid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char stat[128] = {};
    const ssize_t n = read(fd, stat, sizeof(stat) - 1);
    close(fd);
    return n > 0 && stat_names_live(std::string_view(stat, static_cast<size_t>(n)), name);
}

} // namespace zq
