// The diagnosis and fix path searches: each call names the next step of a
// run, walking a fixed table of methods whose conditions are read from the
// records that earlier steps of the run stored.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "records/records.h"

char zq_running_method[32];
char custom_path_list[ZQ_CUSTOM_PATH_SLOTS][32];

namespace {

using condition_fn = int (*)();

struct path_entry {
    const char *method;
    condition_fn condition; // null: always taken
};

constexpr path_entry DIAG_PATH[] = {
    {"port_status", nullptr},
    {"pon_status", nullptr},
    {"wan_status", wan_status_condition},
    {"route_status", route_status_condition},
    {"dns_status", dns_status_condition},
    {"pppoe_status", pppoe_status_condition},
    {"dhcp_status", dhcp_status_condition},
    {"wan_params", wan_params_condition},
    {"dhcp_config", nullptr},
    {"sys_status", nullptr},
};
constexpr path_entry FIX_PATH[] = {
    {"sys_status", sys_status_fix_condition},
    {"pon_status", pon_status_fix_condition},
};
constexpr size_t DIAG_END = sizeof(DIAG_PATH) / sizeof(DIAG_PATH[0]);
constexpr size_t FIX_END = sizeof(FIX_PATH) / sizeof(FIX_PATH[0]);
constexpr const char *END_STEP = "end";
constexpr const char *CAPTURE_PARSE_PATH = "/tmp/capture_file/capture_parse";

// Visited flags: an entry is decided (taken or skipped) once per run.
uint8_t diag_visited[32];
uint8_t fix_visited[32];

// Filter lists of the diagnosis modes; mode 0 and unknown modes: no filter.
struct mode_filter {
    uint64_t count;
    const char *names[3];
};
constexpr mode_filter MODE_FILTERS[] = {
    {0, {}},
    {1, {"port_status"}},
    {1, {"pon_status"}},
    {2, {"pon_status", "wan_status"}},
    {1, {"sys_status"}},
    {3, {"pon_status", "wan_status", "wan_params"}},
    {3, {"pon_status", "wan_status", "dns_status"}},
    {1, {"dhcp_config"}},
    {3, {"pon_status", "wan_status", "pppoe_status"}},
    {3, {"pon_status", "wan_status", "route_status"}},
    {3, {"port_status", "pon_status", "wan_status"}},
};

void choose(zq_diag_step *step, const char *method, uint32_t action) {
    set_next_step(step, method, action);
    zq::copy(zq_running_method, method);
}

// Takes the first undecided entry that passes the filter and its condition.
// Conditions are evaluated only for entries the walk actually reaches.
bool take_next(const path_entry *path, size_t n, uint8_t *visited, zq_diag_step *step, uint32_t action) {
    for (size_t i = 0; i < n; ++i) {
        if (visited[i]) continue;
        visited[i] = 1;
        const path_entry &entry = path[i];
        if (is_in_custom_path(entry.method) && (!entry.condition || entry.condition())) {
            choose(step, entry.method, action);
            return true;
        }
    }
    return false;
}

// A run starts with an empty step name; its first call takes the permit and
// resets the run's visited flags. False when the permit was refused.
bool start_run(const char *search, uint8_t (&visited)[32]) {
    if (get_diag_permit() != 0) {
        ZQ_LOG_AS(search, "get diag permit fail");
        return false;
    }
    memset(visited, 0, sizeof(visited));
    return true;
}

bool starts_run(const zq_diag_step *step) { return step->method[0] == '\0'; }

// The end step closes the path; false when it was already taken.
bool take_end(uint8_t &end_visited, zq_diag_step *step, uint32_t action) {
    if (end_visited) return false;
    end_visited = 1;
    choose(step, END_STEP, action);
    return true;
}

} // namespace

void set_next_step(zq_diag_step *step, const char *method, uint32_t action) {
    memset(step->method, 0, sizeof(step->method));
    zq::copy(step->method, method);
    step->action = action;
    step->result = 0;
}

int custom_path(const char *names, uint64_t count) {
    // The filter list has 32 slots; a longer list is refused like an empty one
    // rather than written past the end.
    if (!names || names[0] == '\0' || count == 0 || count > ZQ_CUSTOM_PATH_SLOTS) {
        ZQ_LOG("invalid input");
        return -1;
    }
    memset(custom_path_list, 0, sizeof(custom_path_list));
    memcpy(custom_path_list, names, count * sizeof(custom_path_list[0]));
    return 0;
}

void init_diag_path(uint32_t mode) {
    memset(custom_path_list, 0, sizeof(custom_path_list));
    if (mode == 0 || mode >= sizeof(MODE_FILTERS) / sizeof(MODE_FILTERS[0])) return;
    const mode_filter &filter = MODE_FILTERS[mode];
    char names[3][32] = {};
    for (uint64_t i = 0; i < filter.count; ++i) zq::copy(names[i], filter.names[i]);
    custom_path(names[0], filter.count);
}

int is_in_custom_path(const char *method) {
    if (custom_path_list[0][0] == '\0') return 1;
    const std::string_view name = zq::view(method);
    for (const auto &slot : custom_path_list)
        if (zq::view(slot) == name) return 1;
    return 0;
}

int zq_diag_path_search(zq_diag_step *step) {
    if (!step) return 0; // no step to fill: the path is over before it starts
    if (starts_run(step)) {
        if (!start_run(__func__, diag_visited)) return 0;
        diag_file_init();
        clear_diag_chain();
    }
    if (take_next(DIAG_PATH, DIAG_END, diag_visited, step, ACTION_DIAG)) return 1;
    if (diag_visited[DIAG_END]) return 0;
    // Before the end step: dump the run's records, drop the filter and the
    // decoded capture.
    load_chain_data_in_log();
    memset(custom_path_list, 0, sizeof(custom_path_list));
    if (zq::file_exists(CAPTURE_PARSE_PATH)) zq_system("rm /tmp/capture_file/capture_parse");
    return take_end(diag_visited[DIAG_END], step, ACTION_DIAG) ? 1 : 0;
}

int zq_fix_path_search(zq_diag_step *step) {
    if (!step) return 0; // as in zq_diag_path_search
    if (starts_run(step) && !start_run(__func__, fix_visited)) return 0;
    if (take_next(FIX_PATH, FIX_END, fix_visited, step, ACTION_FIX)) return 1;
    return take_end(fix_visited[FIX_END], step, ACTION_FIX) ? 1 : 0;
}

// ---- Conditions: read from the records stored so far -----------------------

int wan_status_condition() {
    return any_diag_record<zqSD_pon_diag>(__func__, [](const zqSD_pon_diag &r) { return r.reg_state == 0; });
}

int route_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__,
                                          [](const zqSD_wan_diag &r) { return r.v4_gateway[0] != '\0'; });
}

int dns_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__, [](const zqSD_wan_diag &r) {
        return r.v4_conn_state <= WAN_CONNECT_UNSTABLE && zq::contains(r.service_type, "INTERNET") &&
               zq::contains(r.protocol, "v4");
    });
}

int pppoe_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__, [](const zqSD_wan_diag &r) {
        return zq::contains(r.type, "ppp") && r.v4_conn_state > WAN_CONNECT_UNSTABLE;
    });
}

int dhcp_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__, [](const zqSD_wan_diag &r) {
        return zq::contains(r.type, "dhcp") && r.v4_conn_state > WAN_CONNECT_UNSTABLE;
    });
}

int wan_params_condition() {
    return any_diag_record<zqSD_wan_diag>(
        __func__, [](const zqSD_wan_diag &r) { return zq::contains(r.protocol, "IPv4"); });
}

namespace {
constexpr uint32_t SYS_HIGH_MEMORY = 16;
constexpr uint32_t SYS_HIGH_CPU = 32;
constexpr uint32_t DHCP_SERVER_DOWN = 1;
constexpr uint32_t PON_NOT_REGISTERED = 2;
} // namespace

// A system under memory or CPU pressure is never repaired automatically.
int sys_status_fix_condition() {
    return any_diag_record<zqSD_sys_diag>(__func__, [](const zqSD_sys_diag &r) {
        return r.fault_flags != 0 && (r.fault_flags & (SYS_HIGH_MEMORY | SYS_HIGH_CPU)) == 0;
    });
}

int pon_status_fix_condition() {
    return any_diag_record<zqSD_pon_diag>(
        __func__, [](const zqSD_pon_diag &r) { return r.reg_state == PON_NOT_REGISTERED; });
}

int dhcp_config_fix_condition() {
    return any_diag_record<zqSD_dhcp_diag>(__func__, [](const zqSD_dhcp_diag &r) {
        return r.fault_flags != 0 && (r.fault_flags & DHCP_SERVER_DOWN) == 0;
    });
}

int is_zq_fix_available() { return dhcp_config_fix_condition() || sys_status_fix_condition() ? 1 : 0; }
