// The record chain: typed records of one diagnosis, kept as a doubly linked
// list behind the exported head node. Records of one type stay together in
// the order they were stored.
#include <cstdlib>
#include <cstring>

#include "engine/log.h"
#include "records/records.h"

// The exported functions below use the library's internals by name.
using namespace zq;

diag_data_node zq_diag_data_chain;

namespace zq {

namespace {

struct record_size {
    uint32_t type;
    uint64_t size;
};
// Searched in this order; the single-record types come last.
constexpr record_size RECORD_SIZES[] = {
    {WAN_DIAG_DATA, sizeof(zqSD_wan_diag)},   {PORT_DIAG_DATA, sizeof(zqSD_port_diag)},
    {DHCP_DIAG_DATA, sizeof(zqSD_dhcp_diag)}, {SYS_DIAG_DATA, sizeof(zqSD_sys_diag)},
    {PON_DIAG_DATA, sizeof(zqSD_pon_diag)},
};
// Types of which the chain keeps one record that a later store overwrites.
constexpr uint32_t SINGLE_RECORD_TYPES[] = {DHCP_DIAG_DATA, SYS_DIAG_DATA, PON_DIAG_DATA};
constexpr unsigned MAX_RECORDS_PER_TYPE = 8;

// Outside processes walk the chain without a lock: a node is complete
// before the pointer that makes it reachable is stored.
void publish(diag_data_node **link, diag_data_node *node) { __atomic_store_n(link, node, __ATOMIC_RELEASE); }

} // namespace

} // namespace zq

uint64_t get_diag_data_size(uint32_t type) {
    for (const record_size &entry : RECORD_SIZES)
        if (entry.type == type) return entry.size;
    return 0;
}

diag_data_node *zq_search_diag_record(uint32_t type) {
    for (diag_data_node *node = zq_diag_data_chain.next; node; node = node->next)
        if (node->type == type) return node;
    return nullptr;
}

namespace zq {

diag_data_node *search_single_record(uint32_t type) {
    for (uint32_t single : SINGLE_RECORD_TYPES)
        if (type == single) return zq_search_diag_record(type);
    return nullptr;
}

void chain_index_readjust(uint32_t type) {
    diag_data_node *run[MAX_RECORDS_PER_TYPE];
    unsigned n = 0;
    for (diag_data_node *node = zq_diag_data_chain.next; node && n < MAX_RECORDS_PER_TYPE; node = node->next)
        if (node->type == type) run[n++] = node;
    if (n == 0) {
        ZQ_LOG("error, there is no type[%d] to readjust", static_cast<int>(type));
        return;
    }
    for (unsigned i = 0; i < n; ++i) {
        run[i]->index = static_cast<uint8_t>(i);
        run[i]->count = static_cast<uint8_t>(n);
    }
}

int add_to_chain(uint32_t type, diag_data_node *node) {
    diag_data_node *last = &zq_diag_data_chain;
    diag_data_node *first = nullptr;
    for (diag_data_node *it = zq_diag_data_chain.next; it; it = it->next) {
        if (it->type == type) {
            first = it;
            break;
        }
        last = it;
    }
    if (!first) {
        node->prev = last;
        node->next = nullptr;
        publish(&last->next, node);
    } else {
        if (first->count >= MAX_RECORDS_PER_TYPE) {
            ZQ_LOG("data chain of type[%d] is reach max support num", static_cast<int>(type));
            return -1;
        }
        diag_data_node *run_end = first;
        while (run_end->next && run_end->next->type == type) run_end = run_end->next;
        node->prev = run_end;
        node->next = run_end->next;
        if (run_end->next) run_end->next->prev = node;
        publish(&run_end->next, node);
    }
    chain_index_readjust(type);
    return 0;
}

int zq_diag_record(uint32_t type, const void *data, uint64_t size) {
    if (size == 0 || !data || size != get_diag_data_size(type)) {
        ZQ_LOG("diag data does not match type[%d]", static_cast<int>(type));
        return -1;
    }
    if (diag_data_node *single = search_single_record(type)) {
        memcpy(single->data, data, size);
        return 0;
    }
    void *copy = malloc(size);
    auto *node = static_cast<diag_data_node *>(calloc(1, sizeof(diag_data_node)));
    if (copy && node) {
        memcpy(copy, data, size);
        node->type = type;
        node->size = size;
        node->data = copy;
        if (add_to_chain(type, node) == 0) return 0;
    } else {
        if (!copy) ZQ_LOG("malloc data_space fail");
        if (!node) ZQ_LOG("malloc chain_spcae fail");
    }
    free(copy);
    free(node);
    ZQ_LOG("diag record fail");
    return -1;
}

void clear_diag_chain() {
    diag_data_node *node = zq_diag_data_chain.next;
    publish(&zq_diag_data_chain.next, nullptr);
    while (node) {
        diag_data_node *next = node->next;
        free(node->data);
        free(node);
        node = next;
    }
}

diag_data_node *list_record_head(const char *reader, uint32_t type, const char *struct_name,
                                 const char *type_name, size_t struct_size) {
    uint64_t table_size = get_diag_data_size(type);
    if (table_size != struct_size) {
        ZQ_LOG_AS(reader, " sizeof(%s) = %lu", struct_name, static_cast<unsigned long>(struct_size));
        ZQ_LOG_AS(reader, " get_diag_data_size(%s) = %lu", type_name, static_cast<unsigned long>(table_size));
        ZQ_LOG_AS(reader, "list record fail");
        return nullptr;
    }
    return zq_search_diag_record(type);
}

} // namespace zq
