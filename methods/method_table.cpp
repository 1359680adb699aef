// The registry the engine walks: the method table in its fixed order (an
// entry's index is its place here) and the paths and diagnosis modes, all
// made of the descriptors that each method's file defines.
#include "engine/engine.h"
#include "methods/methods.h"

namespace zq {

namespace {

using zq::method_descriptor;

constexpr const method_descriptor *TABLE[] = {
    &zq::cmd_method,         &zq::port_status_method,  &zq::ping_method,         &zq::wan_status_method,
    &zq::sys_status_method,  &zq::pon_status_method,   &zq::wan_params_method,   &zq::dns_status_method,
    &zq::dhcp_config_method, &zq::pppoe_status_method, &zq::route_status_method, &zq::dhcp_status_method,
};

// The diagnosis path, in the order its steps are taken.
constexpr const method_descriptor *DIAG_PATH[] = {
    &zq::port_status_method, &zq::pon_status_method,   &zq::wan_status_method,  &zq::route_status_method,
    &zq::dns_status_method,  &zq::pppoe_status_method, &zq::dhcp_status_method, &zq::wan_params_method,
    &zq::dhcp_config_method, &zq::sys_status_method,
};
constexpr const method_descriptor *FIX_PATH[] = {&zq::sys_status_method, &zq::pon_status_method};
// The methods whose repair is_zq_fix_available offers, asked in this order.
constexpr const method_descriptor *FIX_OFFERS[] = {&zq::dhcp_config_method, &zq::sys_status_method};

// The filter list of each diagnosis mode (0: none).
constexpr zq::mode_filter MODES[] = {
    {0, {}},
    {1, {&zq::port_status_method}},
    {1, {&zq::pon_status_method}},
    {2, {&zq::pon_status_method, &zq::wan_status_method}},
    {1, {&zq::sys_status_method}},
    {3, {&zq::pon_status_method, &zq::wan_status_method, &zq::wan_params_method}},
    {3, {&zq::pon_status_method, &zq::wan_status_method, &zq::dns_status_method}},
    {1, {&zq::dhcp_config_method}},
    {3, {&zq::pon_status_method, &zq::wan_status_method, &zq::pppoe_status_method}},
    {3, {&zq::pon_status_method, &zq::wan_status_method, &zq::route_status_method}},
    {3, {&zq::port_status_method, &zq::pon_status_method, &zq::wan_status_method}},
};

template <class T, uint64_t N> constexpr zq::table_view<T> view_of(const T (&items)[N]) { return {items, N}; }

static_assert(sizeof(TABLE) / sizeof(TABLE[0]) == 12, "the method table has twelve entries");
// A path's visited flags hold one more entry for its end step.
static_assert(sizeof(DIAG_PATH) / sizeof(DIAG_PATH[0]) < zq::PATH_SLOTS, "diagnosis path fits its flags");
static_assert(sizeof(FIX_PATH) / sizeof(FIX_PATH[0]) < zq::PATH_SLOTS, "fix path fits its flags");

} // namespace

const zq::method_registry registry = {
    .table = view_of(TABLE),
    .diag_path = view_of(DIAG_PATH),
    .fix_path = view_of(FIX_PATH),
    .fix_offers = view_of(FIX_OFFERS),
    .modes = view_of(MODES),
};

} // namespace zq
