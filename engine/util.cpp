#include "engine/util.h"

#include <unistd.h>

namespace zq {
bool file_exists(const char *path) { return path && access(path, F_OK) == 0; }
} // namespace zq
