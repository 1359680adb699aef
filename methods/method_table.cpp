// The registry the engine walks: the method table in its fixed order (an
// entry's index is its place here) and the paths and diagnosis modes, all
// made of the descriptors that each method's file defines.
#include "engine/engine.h"
#include "methods/methods.h"

namespace zq {

namespace {

constexpr const method_descriptor *TABLE[] = {
    &cmd_method,         &port_status_method,  &ping_method,         &wan_status_method,
    &sys_status_method,  &pon_status_method,   &wan_params_method,   &dns_status_method,
    &dhcp_config_method, &pppoe_status_method, &route_status_method, &dhcp_status_method,
};
// Each method's index in the table, for the paths and modes below.
enum : uint8_t {
    PORT_STATUS = 1,
    PING,
    WAN_STATUS,
    SYS_STATUS,
    PON_STATUS,
    WAN_PARAMS,
    DNS_STATUS,
    DHCP_CONFIG,
    PPPOE_STATUS,
    ROUTE_STATUS,
    DHCP_STATUS,
};
static_assert(sizeof(TABLE) / sizeof(TABLE[0]) == 12, "the method table has twelve entries");
static_assert(TABLE[PORT_STATUS] == &port_status_method && TABLE[PING] == &ping_method &&
                  TABLE[WAN_STATUS] == &wan_status_method && TABLE[SYS_STATUS] == &sys_status_method &&
                  TABLE[PON_STATUS] == &pon_status_method && TABLE[WAN_PARAMS] == &wan_params_method &&
                  TABLE[DNS_STATUS] == &dns_status_method && TABLE[DHCP_CONFIG] == &dhcp_config_method &&
                  TABLE[PPPOE_STATUS] == &pppoe_status_method &&
                  TABLE[ROUTE_STATUS] == &route_status_method && TABLE[DHCP_STATUS] == &dhcp_status_method,
              "the indexes name the table's entries");

// The diagnosis path, in the order its steps are taken.
constexpr uint8_t DIAG_PATH[] = {PORT_STATUS,  PON_STATUS,  WAN_STATUS, ROUTE_STATUS, DNS_STATUS,
                                 PPPOE_STATUS, DHCP_STATUS, WAN_PARAMS, DHCP_CONFIG,  SYS_STATUS};
constexpr uint8_t FIX_PATH[] = {SYS_STATUS, PON_STATUS};
// The methods whose repair is_zq_fix_available offers, asked in this order.
constexpr uint8_t FIX_OFFERS[] = {DHCP_CONFIG, SYS_STATUS};

// The filter list of each diagnosis mode (0: none).
constexpr mode_filter MODES[] = {
    {0, {}},
    {1, {PORT_STATUS}},
    {1, {PON_STATUS}},
    {2, {PON_STATUS, WAN_STATUS}},
    {1, {SYS_STATUS}},
    {3, {PON_STATUS, WAN_STATUS, WAN_PARAMS}},
    {3, {PON_STATUS, WAN_STATUS, DNS_STATUS}},
    {1, {DHCP_CONFIG}},
    {3, {PON_STATUS, WAN_STATUS, PPPOE_STATUS}},
    {3, {PON_STATUS, WAN_STATUS, ROUTE_STATUS}},
    {3, {PORT_STATUS, PON_STATUS, WAN_STATUS}},
};

template <class T, uint64_t N> constexpr table_view<T> view_of(const T (&items)[N]) { return {items, N}; }

// A path's visited flags hold one more entry for its end step.
static_assert(sizeof(DIAG_PATH) < PATH_SLOTS && sizeof(FIX_PATH) < PATH_SLOTS, "the paths fit their flags");

} // namespace

const method_registry registry = {
    .table = view_of(TABLE),
    .diag_path = view_of(DIAG_PATH),
    .fix_path = view_of(FIX_PATH),
    .fix_offers = view_of(FIX_OFFERS),
    .modes = view_of(MODES),
};

} // namespace zq
