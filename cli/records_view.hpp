// The record chain (zq_diag_data_chain) as text or JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zq_diag.h"

namespace zqcli {

// Walks the chain from its head along `next` and keeps the nodes whose type
// this tool knows and whose size matches the library's get_diag_data_size;
// a note goes to `skipped` for every other node.
std::vector<const diag_data_node *> collect_records(std::vector<std::string> &skipped);

// One block per record: "TYPE_NAME index/count" and one line per field.
void print_records_text(const std::vector<const diag_data_node *> &records);

// {"mode": N, "records": [{"type", "code", "index", "count", "fields": {...}}]}
void print_records_json(const std::vector<const diag_data_node *> &records, uint32_t mode);

} // namespace zqcli
