// diagnose_set call latency, through the shipped library in the lab: how
// long the call itself takes a management process's thread, from the call
// to its return, not the diagnosis it starts. Two kinds of call, N each:
//   starts   the permit is free: the call checks the permit and the alarm
//            word, claims the block and starts the detached worker;
//   busy     a worker already runs: the call finds the block taken.
// Between two starting calls the benchmark waits (untimed) for the worker
// to end. Prints median, p99 and maximum per kind; goal p99 < 1 ms.
//
// Usage: latency_bench [--calls N] [--mode M]
// Outside a lab it re-runs itself in one (lab/run --scenario
// pon-unregistered: the WAN steps are skipped, so each diagnosis is short;
// mode 1, the port step alone, by default).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

#include "bench/bench_lab.hpp"
#include "zq_diag.h"

namespace {

using clock_type = std::chrono::steady_clock;

double call_ms() {
    const auto start = clock_type::now();
    diagnose_set();
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

void wait_for_worker() {
    while (__atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE) != 0) usleep(1000);
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    const auto at = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(at, v.size() - 1)];
}

void print_row(FILE *out, const char *kind, const std::vector<double> &v) {
    fprintf(out, "%-8s %8zu %10.3f %10.3f %10.3f\n", kind, v.size(), percentile(v, 0.5), percentile(v, 0.99),
            percentile(v, 1.0));
}

} // namespace

int main(int argc, char **argv) {
    int calls = 200;
    uint32_t mode = 1;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--calls") && i + 1 < argc) {
            calls = atoi(argv[++i]);
        } else if (!strcmp(argv[i], "--mode") && i + 1 < argc) {
            mode = static_cast<uint32_t>(atoi(argv[++i]));
        } else {
            fprintf(stderr, "usage: latency_bench [--calls N] [--mode M]\n");
            return 2;
        }
    }
    if (calls < 1) calls = 1;
    bench::enter_lab(argc, argv, "pon-unregistered", "latency_bench");
    FILE *report = bench::report_stream();
    if (!report) return 1;

    g_diag_exec = {};
    g_diag_exec.mode = mode;
    call_ms(); // warm-up: the manager's pid, the alarm word, the semaphore
    wait_for_worker();
    std::vector<double> starts, busy;
    for (int i = 0; i < calls; ++i) {
        starts.push_back(call_ms());
        busy.push_back(call_ms());
        wait_for_worker();
    }
    fprintf(report, "diagnose_set call latency, mode %u, %d calls of each kind (ms)\n", mode, calls);
    fprintf(report, "%-8s %8s %10s %10s %10s\n", "call", "calls", "median", "p99", "max");
    print_row(report, "starts", starts);
    print_row(report, "busy", busy);
    const double p99 = std::max(percentile(starts, 0.99), percentile(busy, 0.99));
    fprintf(report, "\ndiagnose_set p99: %.3f ms (goal < 1 ms: %s)\n", p99, p99 < 1.0 ? "met" : "missed");
    fclose(report);
    return 0;
}
