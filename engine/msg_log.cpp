// The message log: levelled findings of the current step, for the user.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"

// The exported functions below use the library's internals by name.
using namespace zq;

char zq_diag_msg[ZQ_DIAG_MSG_SIZE];

namespace zq {

uint64_t zq_diag_msg_offset;

namespace {
constexpr uint64_t LAST = ZQ_DIAG_MSG_SIZE - 1;

// The offset counts what each stage asked to write, so once an entry was
// cut off the offset stays past the end and later stages write nothing.
bool add_stage(int written) {
    if (written <= 0) return false;
    zq_diag_msg_offset += static_cast<uint64_t>(written);
    return zq_diag_msg_offset <= LAST;
}
char *at() { return zq_diag_msg + zq_diag_msg_offset; }
size_t room() { return ZQ_DIAG_MSG_SIZE - zq_diag_msg_offset; }
} // namespace

void zq_diag_msg_printf(uint32_t level, const char *format, ...) {
    // Levels beyond the four known ones are a caller's mistake: the entry is
    // dropped with a log line rather than printed under a wrong prefix.
    if (level > DIAG_MSG_ERROR) {
        ZQ_LOG("invalid message level %u", level);
        return;
    }
    if (zq_diag_msg_offset > LAST) return;
    if (!add_stage(snprintf(at(), room(), "%s", ZQ_LEVEL_PREFIX[level]))) return;
    va_list ap;
    va_start(ap, format);
    int text = format ? vsnprintf(at(), room(), format, ap) : 0;
    va_end(ap);
    if (!add_stage(text)) return;
    add_stage(snprintf(at(), room(), "%s", "\n"));
}

void zq_diag_msg_reset() {
    memset(zq_diag_msg, 0, sizeof(zq_diag_msg));
    zq_diag_msg_offset = 0;
}

} // namespace zq
