// Run control: the exported control blocks, diagnose_set with its detached
// worker, and the runners that walk a whole diagnosis or fix path.
#include <cstring>
#include <pthread.h>
#include <type_traits>

#include "engine/engine.h"
#include "engine/exec_block.h"
#include "engine/log.h"
#include "engine/util.h"

// The exported functions below use the library's internals by name.
using namespace zq;

diag_exec_ctl g_diag_exec;
diag_exec_ctl g_cap_exec;

namespace zq {

static_assert(std::is_same_v<pthread_t, unsigned long>, "worker holds a pthread_t");

namespace {

enum : uint32_t { ACTION_RUN = 0, ACTION_UPLOAD = 1 };
enum : uint32_t { KIND_DIAGNOSE = 0, KIND_FIX = 1 };

using zq::clear_worker;
using zq::set_state;

void *diagnose_execution(void *) {
    pthread_detach(pthread_self());
    int result = -1;
    switch (g_diag_exec.kind) {
    case KIND_DIAGNOSE:
        result = run_spec_entire_diag(g_diag_exec.mode);
        break;
    case KIND_FIX: // a repair always runs without a filter list
        result = run_spec_entire_fix(0);
        break;
    default:
        ZQ_LOG("Invalid input");
        break;
    }
    if (result == 0) {
        set_state(g_diag_exec, EXEC_DONE);
    } else {
        ZQ_LOG("Diagnose may already exist in system.");
        set_state(g_diag_exec, EXEC_IDLE);
    }
    clear_worker(g_diag_exec);
    return nullptr;
}

// If the thread cannot be started, the block is put back as it was.
int start_diagnose_worker(void *(*worker)(void *), uint32_t first_state, const char *failure) {
    if (zq::start_worker(g_diag_exec, worker, first_state) != 0) {
        ZQ_LOG_AS("diagnose_set", "%s", failure);
        return -1;
    }
    return 0;
}

using path_search_fn = int (*)(zq_diag_step *);

int run_path(uint32_t mode, path_search_fn search) {
    zq_diag_step step{};
    if (!is_diag_avaliable()) return -1;
    init_diag_path(mode);
    while (search(&step) == 1) zq_intact_diag_run(&step);
    return 0;
}

} // namespace

} // namespace zq

int diagnose_set() {
    if (!zq::claim_worker(g_diag_exec)) {
        zq_log_plain("diagnose execution is busy");
        return 0;
    }
    if (!is_diag_avaliable()) {
        clear_worker(g_diag_exec);
        ZQ_LOG("!Diagnose is unavaliable");
        return -1;
    }
    switch (g_diag_exec.action) {
    case ACTION_RUN:
        return start_diagnose_worker(diagnose_execution, EXEC_RUNNING,
                                     "pthread_create fail - diagnose_execution");
    case ACTION_UPLOAD:
        return start_diagnose_worker(diagnose_upload, EXEC_UPLOADING,
                                     "pthread_create fail - diagnose_upload");
    default:
        clear_worker(g_diag_exec);
        ZQ_LOG("invalid action");
        return -1;
    }
}

int run_spec_entire_diag(uint32_t mode) { return run_path(mode, zq_diag_path_search); }

int run_spec_entire_fix(uint32_t mode) { return run_path(mode, zq_fix_path_search); }

int zq_intact_diag_run(zq_diag_step *step) {
    if (!step) return -1; // no step: nothing is cleared, run or logged
    zq_diag_msg_reset();
    notify_diag_manager();
    // A caller's step name may fill all 32 bytes; dispatch a terminated copy.
    char method[sizeof(step->method) + 1] = {};
    zq::copy(method, step->method);
    if (zq_get_sys_diag(method, step->action, zq_args(nullptr, 0, &step->result, sizeof(step->result))) != 0)
        zq_diag_msg_printf(DIAG_MSG_ERROR, "%s processing fail", method);
    diag_log_record(*step);
    return -1;
}
