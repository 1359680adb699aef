// The diagnosis and fix path searches: each call names the next step of a
// run, walking the registry's paths of methods, whose conditions read the
// records that earlier steps of the run stored.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"

// The exported functions below use the library's internals by name.
using namespace zq;

char zq_running_method[32];

namespace zq {

char custom_path_list[ZQ_CUSTOM_PATH_SLOTS][32];

namespace {

using zq::method_descriptor;
using path_view = zq::table_view<uint8_t>;
using zq::condition_fn;

using zq::END_STEP;

// Visited flags: an entry is decided (taken or skipped) once per run.
uint8_t diag_visited[zq::PATH_SLOTS];
uint8_t fix_visited[zq::PATH_SLOTS];

void choose(zq_diag_step *step, const char *method, uint32_t action) {
    set_next_step(step, method, action);
    zq::copy(zq_running_method, method);
}

// Takes the first undecided entry that passes the filter and its condition.
// Conditions are evaluated only for entries the walk actually reaches.
// `when` picks the condition that this path asks of a method (null: taken).
bool take_next(path_view path, condition_fn method_descriptor::*when, uint8_t *visited, zq_diag_step *step,
               uint32_t action) {
    for (uint64_t i = 0; i < path.count; ++i) {
        if (visited[i]) continue;
        visited[i] = 1;
        const method_descriptor &m = *registry.table.items[path.items[i]];
        const condition_fn condition = m.*when;
        if (is_in_custom_path(m.entry.name) && (!condition || condition())) {
            choose(step, m.entry.name, action);
            return true;
        }
    }
    return false;
}

// A run starts with an empty step name; its first call takes the permit and
// resets the run's visited flags. False when the permit was refused.
bool start_run(const char *search, uint8_t (&visited)[zq::PATH_SLOTS]) {
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
    const auto &modes = zq::registry.modes;
    if (mode == 0 || mode >= modes.count) return;
    const zq::mode_filter &filter = modes.items[mode];
    char names[3][32] = {};
    for (uint64_t i = 0; i < filter.count; ++i)
        zq::copy(names[i], registry.table.items[filter.methods[i]]->entry.name);
    custom_path(names[0], filter.count);
}

int is_in_custom_path(const char *method) {
    if (custom_path_list[0][0] == '\0') return 1;
    const std::string_view name = zq::view(method);
    for (const auto &slot : custom_path_list)
        if (zq::view(slot) == name) return 1;
    return 0;
}

} // namespace zq

int zq_diag_path_search(zq_diag_step *step) {
    if (!step) return 0; // no step to fill: the path is over before it starts
    if (starts_run(step)) {
        if (!start_run(__func__, diag_visited)) return 0;
        diag_file_init();
        clear_diag_chain();
    }
    const path_view path = zq::registry.diag_path;
    if (take_next(path, &method_descriptor::diag_when, diag_visited, step, ACTION_DIAG)) return 1;
    if (diag_visited[path.count]) return 0;
    // Before the end step: dump the run's records, drop the filter and the
    // decoded capture.
    load_chain_data_in_log();
    memset(custom_path_list, 0, sizeof(custom_path_list));
    remove_if_present(ZQ_CAPTURE_PARSE);
    return take_end(diag_visited[path.count], step, ACTION_DIAG) ? 1 : 0;
}

int zq_fix_path_search(zq_diag_step *step) {
    if (!step) return 0; // as in zq_diag_path_search
    if (starts_run(step) && !start_run(__func__, fix_visited)) return 0;
    const path_view path = zq::registry.fix_path;
    if (take_next(path, &method_descriptor::fix_when, fix_visited, step, ACTION_FIX)) return 1;
    return take_end(fix_visited[path.count], step, ACTION_FIX) ? 1 : 0;
}

// A repair is on offer when one of the methods that offer one finds
// something to repair.
int is_zq_fix_available() {
    for (const uint8_t index : registry.fix_offers) {
        const method_descriptor *m = registry.table.items[index];
        if (m->fix_when && m->fix_when()) return 1;
    }
    return 0;
}
