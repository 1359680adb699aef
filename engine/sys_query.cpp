// Small queries of the gateway's state used all over the library.
#include <cstring>
#include <unistd.h>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {
constexpr unsigned MKDIR_SETTLE_US = 20000;
}

} // namespace zq

// Names go into a shell command; anything but a plain process name is
// refused so a caller's text can never run as a command of its own, nor
// become a pattern (pgrep takes one) that matches every process.
uint64_t zq_get_pid(const char *name) {
    if (!zq::is_process_name(zq::view(name))) {
        ZQ_LOG("invalid process name");
        return 0;
    }
    char cmd[128] = {};
    char out[128] = {};
    ZQ_FORMAT(cmd, "pgrep %s", name);
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, sizeof(cmd), out, sizeof(out)));
    if (out[0] == '\0') return 0;
    return zq::parse_u64_prefix(zq::view(out));
}

namespace zq {

const char *get_pon_info(const char *key) {
    if (!zq::is_shell_word(zq::view(key))) {
        ZQ_LOG("invalid pon_info key");
        memset(zq_cmd_result_buff, 0, sizeof(zq_cmd_result_buff));
        return zq_cmd_result_buff;
    }
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "diagM get pon_info %s", key);
    return zq_get_cmd_result(cmd);
}

int make_dir(const char *dir) {
    if (zq::file_exists(dir)) return 0;
    if (!zq::is_shell_word(zq::view(dir))) {
        ZQ_LOG("invalid directory name");
        return -1;
    }
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "mkdir %s", dir);
    zq_system(cmd);
    usleep(MKDIR_SETTLE_US);
    return zq::file_exists(dir) ? 0 : -1;
}

} // namespace zq
