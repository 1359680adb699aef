// Benchmarks that need the gateway lab start one around themselves.
#pragma once

#include <cstdio>
#include <unistd.h>
#include <vector>

#include "zqlab.hpp"

namespace bench {

// Outside a lab, re-runs this program inside a fresh one started with
// `scenario` and never returns (1 when the lab cannot start); inside a lab
// it returns at once.
inline void enter_lab(int argc, char **argv, const char *scenario, const char *name) {
    if (zqlab::inside()) return;
    std::vector<char *> args = {const_cast<char *>(ZQ_LAB_RUN), const_cast<char *>("--scenario"),
                                const_cast<char *>(scenario), const_cast<char *>("--")};
    for (int i = 0; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    execv(ZQ_LAB_RUN, args.data());
    fprintf(stderr, "%s: cannot start the lab: ", name);
    perror(ZQ_LAB_RUN);
    _exit(1);
}

} // namespace bench
