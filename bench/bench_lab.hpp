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

// The library's technical log lines go to standard output; they are sent
// to /dev/null, and the benchmark's own report to the stream returned (the
// former standard output), or null when that fails.
inline FILE *report_stream() {
    fflush(stdout);
    FILE *report = fdopen(dup(STDOUT_FILENO), "w");
    if (report && !freopen("/dev/null", "w", stdout)) {
        fclose(report);
        return nullptr;
    }
    return report;
}

} // namespace bench
