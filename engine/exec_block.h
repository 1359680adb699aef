// Access to the fields of a control block that cross threads: the caller's
// thread writes the request, workers write `state` and `worker` when they
// end. Each field is written and read whole, without a lock.
#pragma once

#include <cstdint>

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

} // namespace zq
