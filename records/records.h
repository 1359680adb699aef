// Internal interface of the record chain and the diagnosis log files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "engine/engine.h"
#include "engine/files.h"
#include "engine/log.h"
#include "zq_diag.h"

namespace zq {

// ---- Record chain --------------------------------------------------------
int zq_diag_record(uint32_t type, const void *data, uint64_t size);
diag_data_node *search_single_record(uint32_t type);
int add_to_chain(uint32_t type, diag_data_node *node);
void chain_index_readjust(uint32_t type);
// clear_diag_chain, like the log's diag_file_init, diag_log_record and
// load_chain_data_in_log, is declared by the engine that calls it.

// The record type of each record structure, with the names its log lines use.
template <class T> struct zq_record_traits;
#define ZQ_RECORD_TRAITS(T, code)                                                                            \
    template <> struct zq_record_traits<T> {                                                                 \
        static constexpr uint32_t type = code;                                                               \
        static constexpr const char *struct_name = #T;                                                       \
        static constexpr const char *type_name = #code;                                                      \
    };
ZQ_RECORD_TRAITS(zqSD_wan_diag, WAN_DIAG_DATA)
ZQ_RECORD_TRAITS(zqSD_port_diag, PORT_DIAG_DATA)
ZQ_RECORD_TRAITS(zqSD_pon_diag, PON_DIAG_DATA)
ZQ_RECORD_TRAITS(zqSD_dhcp_diag, DHCP_DIAG_DATA)
ZQ_RECORD_TRAITS(zqSD_sys_diag, SYS_DIAG_DATA)
#undef ZQ_RECORD_TRAITS

// First node of the records of type T after the size check, or null. On a
// size mismatch the three log lines are written under `reader`'s name.
diag_data_node *list_record_head(const char *reader, uint32_t type, const char *struct_name,
                                 const char *type_name, size_t struct_size);

// The reading pattern every reader of records uses: size check, then the
// records of type T in chain order, at most `count` of the first node.
// `visit(T &record)` returns true to stop the walk early.
template <class T, class Visit> void list_diag_record(const char *reader, Visit &&visit) {
    using traits = zq_record_traits<T>;
    diag_data_node *node =
        list_record_head(reader, traits::type, traits::struct_name, traits::type_name, sizeof(T));
    if (!node) return;
    const unsigned count = node->count;
    for (unsigned i = 0; i < count && node; ++i, node = node->next) {
        if (!node->data) continue;
        if (visit(*static_cast<T *>(node->data))) return;
    }
}

// True when some record of type T satisfies `pred`.
template <class T, class Pred> bool any_diag_record(const char *reader, Pred &&pred) {
    bool found = false;
    list_diag_record<T>(reader, [&](T &rec) { return found = pred(rec); });
    return found;
}

// ---- Diagnosis log and package --------------------------------------------
void load_port_diag(FILE *file);
void load_pon_diag(FILE *file);
void load_wan_diag(FILE *file);
void load_dhcp_diag(FILE *file);
void load_sys_diag(FILE *file);

} // namespace zq
