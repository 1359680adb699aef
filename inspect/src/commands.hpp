// The database commands of zqdiag-inspect, and what they share with main.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace zqinspect {

bool want_colour(const std::string &when, FILE *stream);
bool write_output(const std::string &path, const std::string &text);

int run_ingest(const std::vector<std::string> &args);
int run_query(const std::vector<std::string> &args, const std::string &colour);
int run_export(const std::vector<std::string> &args);

} // namespace zqinspect
