// The result word of a diagnosis step, which a diag action reaches through
// its out_buf. It is read and written with memcpy, whatever its alignment,
// and only when the block has room for it.
#pragma once

#include <cstdint>
#include <cstring>

#include "zq_diag.h"

namespace zq {

// The word is 4 bytes: what a diagnosis or fix step's block must hold.
constexpr uint64_t RESULT_WORD_SIZE = sizeof(uint32_t);

inline uint32_t read_result(const zq_diag_args &args) {
    uint32_t result = 0;
    if (args.out_buf && args.out_size >= sizeof(result)) memcpy(&result, args.out_buf, sizeof(result));
    return result;
}

inline void write_result(const zq_diag_args &args, uint32_t result) {
    if (args.out_buf && args.out_size >= sizeof(result)) memcpy(args.out_buf, &result, sizeof(result));
}

} // namespace zq
