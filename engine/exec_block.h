// Access to the fields of a control block that cross threads: the caller's
// thread writes the request, workers write `state` and `worker` when they
// end. Each field is written and read whole, without a lock.
#pragma once

#include <cstdint>
#include <pthread.h>

#include "zq_diag.h"

namespace zq {

inline void set_state(diag_exec_ctl &block, uint32_t state) {
    __atomic_store_n(&block.state, state, __ATOMIC_RELEASE);
}
inline uint32_t get_state(const diag_exec_ctl &block) {
    return __atomic_load_n(&block.state, __ATOMIC_ACQUIRE);
}
// Moves `state` from `from` to `to` in one step: false (and nothing
// changed) when it did not hold `from`.
inline bool exchange_state(diag_exec_ctl &block, uint32_t from, uint32_t to) {
    return __atomic_compare_exchange_n(&block.state, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}
inline void clear_worker(diag_exec_ctl &block) { __atomic_store_n(&block.worker, 0UL, __ATOMIC_RELEASE); }
inline bool worker_busy(const diag_exec_ctl &block) {
    return __atomic_load_n(&block.worker, __ATOMIC_ACQUIRE) != 0;
}

// The worker slot is claimed (set non-zero) in one atomic step before an
// entry point acts on its block, so two threads of one process calling the
// same entry point cannot both start a worker: the second finds the slot
// taken and reports the block busy. No thread handle is ever all ones.
constexpr unsigned long WORKER_CLAIMED = ~0UL;
inline bool claim_worker(diag_exec_ctl &block) {
    unsigned long idle = 0;
    return __atomic_compare_exchange_n(&block.worker, &idle, WORKER_CLAIMED, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_ACQUIRE);
}

// Starts `fn` as the worker of a block whose slot this thread claimed,
// with `first_state` written before the thread runs (so a worker that ends
// at once leaves its own end state). The handle replaces the claim unless
// the worker has already ended and cleared the slot. On failure the slot
// and the state are put back and -1 is returned.
inline int start_worker(diag_exec_ctl &block, void *(*fn)(void *), uint32_t first_state) {
    const uint32_t previous = get_state(block);
    set_state(block, first_state);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, fn, nullptr) != 0) {
        set_state(block, previous);
        clear_worker(block);
        return -1;
    }
    unsigned long claimed = WORKER_CLAIMED;
    __atomic_compare_exchange_n(&block.worker, &claimed, thread, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
    return 0;
}

} // namespace zq
