// The validators' one check: each method's validator is a row of rules
// (zq::envoy<Rules>) that its own file writes from its layouts.
#include "engine/engine.h"

namespace zq {

int envoy_check(const envoy_rules &rules, uint32_t action, const zq_diag_args &a) {
    if (action > ACTION_FIX) return 0;
    const envoy_rule &r = rules[action];
    bool ok = (!(r.checks & NEED_IN) || a.in_buf) && (!(r.checks & NEED_OUT) || a.out_buf) &&
              (!(r.checks & IN_EXACT) || a.in_size == r.in) && (!(r.checks & IN_MIN) || a.in_size >= r.in) &&
              (!(r.checks & OUT_EXACT) || a.out_size == r.out) &&
              (!(r.checks & OUT_MIN) || a.out_size >= r.out);
    return ok ? 0 : -4;
}

} // namespace zq
