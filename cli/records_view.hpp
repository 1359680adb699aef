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

// The JSON output's schema (cli/zqdiag-records.schema.json), named in the
// output; its number grows with every change a reader must know of.
inline constexpr const char *RECORDS_SCHEMA = "zqdiag-records/1";

// One block per record: "TYPE_NAME index/count" and one line per field. A
// verdict that a later step writes shows "not run" until one of `steps` (the
// steps of the diagnosis that made the records) has judged the record.
void print_records_text(const std::vector<const diag_data_node *> &records,
                        const std::vector<std::string> &steps);

// {"schema": "zqdiag-records/1", "mode": N, "steps": [...], "records":
// [{"type", "code", "index", "count", "fields": {...}}]}; text values without
// their line ending, a verdict not run null.
void print_records_json(const std::vector<const diag_data_node *> &records, uint32_t mode,
                        const std::vector<std::string> &steps);

} // namespace zqcli
