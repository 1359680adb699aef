// The capture entry points: capture_set starts, stops and uploads the user
// capture of g_cap_exec under the diagnosis permit; capture_abnormal_get is
// the watchdog that notices a capture whose tcpdump died.
#include <pthread.h>

#include "capture/capture.h"
#include "engine/engine.h"
#include "engine/exec_block.h"
#include "engine/log.h"
#include "engine/util.h"
#include "upload/upload.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {

enum : uint32_t { CAPTURE_STOP = 0, CAPTURE_START = 1, CAPTURE_UPLOAD = 2 };
constexpr uint64_t USER_CATCH_COUNT = 5000;

int start_single_capture(tcpdump_req req) {
    req.catch_count = USER_CATCH_COUNT;
    if (zq_get_tcpdump_file(req) != 0) return -1;
    note_user_capture();
    return 0;
}

struct capture_mode {
    uint32_t mode;
    int (*start)(tcpdump_req req);
};
constexpr capture_mode CAPTURE_MODES[] = {
    {CAPTURE_MODE_SINGLE, start_single_capture},
    {CAPTURE_MODE_ROTATE, start_rotate_capture},
};

// The capture's tcpdump may have ended by itself (a single capture after
// its packet count) before the stop request; the permit it took is still
// this process's then, unless another process freed it meanwhile. When
// another tcpdump runs by now, that is someone else's capture: it is not
// stopped and the permit is left to it; the block records the capture as
// ended, as the watchdog would.
void stop_capture() {
    if (zq::get_state(g_cap_exec) != EXEC_RUNNING) return;
    if (!user_capture_alive() && zq_get_pid("tcpdump") != 0) {
        ZQ_LOG_AS("capture_set",
                  "the capture's tcpdump is gone and another runs: it and the permit are left alone");
        forget_user_capture();
        zq::set_state(g_cap_exec, EXEC_DONE);
        return;
    }
    stop_tcpdump_catch();
    forget_user_capture();
    packet_capture_file();
    zq::set_state(g_cap_exec, g_cap_exec.mode == CAPTURE_MODE_ROTATE ? EXEC_IDLE : EXEC_DONE);
    zq::release_own_permit("capture_set");
}

// A start while a capture runs is refused: going on would lose track of
// the running capture and of the permit it holds.
int start_capture() {
    if (zq::get_state(g_cap_exec) == EXEC_RUNNING) {
        ZQ_LOG("capture is already running");
        return -1;
    }
    if (get_diag_permit() != 0) {
        ZQ_LOG("get diag permit fail");
        return -1;
    }
    if (start_tcpdump_process() != 0) {
        zq::release_own_permit("capture_set");
        return -1;
    }
    zq::set_state(g_cap_exec, EXEC_RUNNING);
    return 0;
}

// A worker that cannot start leaves the block as it was. An upload while
// the capture still runs is refused: it would send an old archive and leave
// the running capture unstoppable. Returns 1 when the worker runs (the
// claimed slot is then its own).
int start_capture_upload() {
    if (g_cap_exec.mode == CAPTURE_MODE_ROTATE) return -1;
    if (zq::get_state(g_cap_exec) == EXEC_RUNNING) {
        ZQ_LOG("capture is running, stop it before the upload");
        return -1;
    }
    if (zq::start_worker(g_cap_exec, capture_upload, EXEC_UPLOADING) != 0) {
        ZQ_LOG_AS("capture_set", "pthread_create fail - capture_upload");
        return -1;
    }
    return 1;
}

int act_on_capture_block() {
    switch (g_cap_exec.action) {
    case CAPTURE_STOP:
        stop_capture();
        return 0;
    case CAPTURE_START:
        return start_capture();
    case CAPTURE_UPLOAD:
        return start_capture_upload();
    default:
        ZQ_LOG_AS("capture_set", "invalid action");
        return -1;
    }
}

} // namespace

int convert_interface(uint32_t index, char *out, uint64_t size) {
    if (!out || size == 0) return 0;
    if (index == 0) {
        zq::copy(out, size, "any");
        return 0;
    }
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "diagM get wan_info nas_interface %u", index + 1);
    // The manager prints the name bare; a line end would only break the
    // command line it goes into.
    std::string_view name = zq::view(zq_get_cmd_result(cmd));
    while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.remove_suffix(1);
    zq::copy(out, size, name);
    return 0;
}

int start_tcpdump_process() {
    tcpdump_req req{};
    convert_interface(g_cap_exec.kind, req.interface, sizeof(req.interface));
    for (const capture_mode &entry : CAPTURE_MODES) {
        if (entry.mode == g_cap_exec.mode) {
            req.mode = entry.mode;
            return entry.start(req);
        }
    }
    ZQ_LOG("invalid mode");
    return -1;
}

} // namespace zq

// The block's worker slot is held while the request is carried out, so a
// second caller of this process meanwhile finds the block busy; it is
// handed on to the upload worker, or given back at the end.
int capture_set() {
    if (!zq::claim_worker(g_cap_exec)) {
        zq_log_plain("capture execution is busy");
        return 0;
    }
    const int result = act_on_capture_block();
    if (result == 1) return 0;
    zq::clear_worker(g_cap_exec);
    return result;
}

// Only records the death: the permit the capture took stays taken and its
// files stay as they are. By the time a caller polls, another process may
// have freed that permit and taken it, and nothing here can tell; giving
// it back is for the management process, which knows what it started.
int capture_abnormal_get() {
    if (g_cap_exec.action != CAPTURE_START || zq_get_pid("tcpdump") != 0) return 0;
    g_cap_exec.action = CAPTURE_STOP;
    zq::set_state(g_cap_exec, EXEC_DONE);
    return -1;
}

namespace zq {

namespace {
// The tcpdump of the user capture this process started last; 0 when none
// runs for it. Written by the start and by the end points, read by the
// rotate-mode threads.
uint64_t user_capture_pid;
} // namespace

void note_user_capture() { __atomic_store_n(&user_capture_pid, zq_get_pid("tcpdump"), __ATOMIC_RELEASE); }

void forget_user_capture() { __atomic_store_n(&user_capture_pid, 0, __ATOMIC_RELEASE); }

bool user_capture_alive() {
    return zq::process_alive_as(__atomic_load_n(&user_capture_pid, __ATOMIC_ACQUIRE), "tcpdump");
}

} // namespace zq
