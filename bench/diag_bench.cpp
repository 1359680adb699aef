// Whole-diagnosis benchmark: runs a complete diagnosis (mode 0 by default)
// of the lab's healthy gateway N times through the shipped library and
// prints, per run and as medians, side by side:
//   wall            the run's wall time;
//   own cpu         the CPU time of this process (getrusage RUSAGE_SELF, so
//                   the library's work, without its commands);
//   children cpu    the CPU time of the commands it ran (RUSAGE_CHILDREN);
//   in commands     the wall time spent inside the commands: from each
//                   popen() to its pclose(), and each system() call;
//   outside         wall minus in commands: the library's own share of the
//                   run, and its percentage of the wall time;
//   commands        the commands run, and how many lab tools the lab's
//                   journal saw starting meanwhile (the journal notes each
//                   simulated tool's start, at 10 ms resolution, so the
//                   spans themselves are taken here, where the library
//                   starts and ends them).
// Goals: own cpu <= 10 ms per diagnosis; outside <= 5 % of wall.
//
// Usage: diag_bench [--runs N] [--mode M]
// Outside a lab it re-runs itself in one (lab/run --scenario healthy-gpon),
// with the lab's real timing (no ping.interval).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "bench/bench_lab.hpp"
#include "zq_diag.h"
#include "zqlab.hpp"

namespace {

double now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) * 1e-6;
}

double cpu_ms(int who) {
    rusage ru{};
    getrusage(who, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3 +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-3;
}

// The commands' spans, collected by the wrappers below while `counting`.
bool counting = false;
double in_commands_ms = 0;
int commands = 0;
struct open_command {
    FILE *stream;
    double start;
};
open_command open_commands[16];

template <class Fn> Fn real(const char *name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

} // namespace

// The library runs every command through popen()/pclose() or system();
// these wrappers in the executable take their place for the library too.
extern "C" FILE *popen(const char *cmd, const char *type) {
    static auto next = real<FILE *(*)(const char *, const char *)>("popen");
    const double start = now_ms();
    FILE *stream = next(cmd, type);
    if (counting && stream) {
        for (open_command &c : open_commands)
            if (!c.stream) {
                c = {stream, start};
                break;
            }
    }
    return stream;
}

extern "C" int pclose(FILE *stream) {
    static auto next = real<int (*)(FILE *)>("pclose");
    const int rc = next(stream);
    for (open_command &c : open_commands)
        if (c.stream == stream) {
            in_commands_ms += now_ms() - c.start;
            ++commands;
            c.stream = nullptr;
        }
    return rc;
}

extern "C" int system(const char *cmd) {
    static auto next = real<int (*)(const char *)>("system");
    const double start = now_ms();
    const int rc = next(cmd);
    if (counting && cmd) {
        in_commands_ms += now_ms() - start;
        ++commands;
    }
    return rc;
}

namespace {

struct sample {
    double wall, own_cpu, children_cpu, in_commands, outside, outside_percent;
    int commands;
    size_t journaled;
};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

sample run_once(uint32_t mode) {
    const size_t journal_before = zqlab::journal_lines().size();
    in_commands_ms = 0;
    commands = 0;
    const double own0 = cpu_ms(RUSAGE_SELF), children0 = cpu_ms(RUSAGE_CHILDREN), wall0 = now_ms();
    counting = true;
    run_spec_entire_diag(mode);
    counting = false;
    sample s{};
    s.wall = now_ms() - wall0;
    s.own_cpu = cpu_ms(RUSAGE_SELF) - own0;
    s.children_cpu = cpu_ms(RUSAGE_CHILDREN) - children0;
    s.in_commands = in_commands_ms;
    s.outside = s.wall - s.in_commands;
    s.outside_percent = s.wall > 0 ? 100.0 * s.outside / s.wall : 0;
    s.commands = commands;
    s.journaled = zqlab::journal_lines().size() - journal_before;
    return s;
}

void print_row(FILE *out, const char *label, const sample &s) {
    fprintf(out, "%-7s %9.1f %9.2f %13.2f %12.1f %10.1f %8.2f %%  %8d %9zu\n", label, s.wall, s.own_cpu,
            s.children_cpu, s.in_commands, s.outside, s.outside_percent, s.commands, s.journaled);
}

} // namespace

int main(int argc, char **argv) {
    int runs = 5;
    uint32_t mode = 0;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--runs") && i + 1 < argc) {
            runs = atoi(argv[++i]);
        } else if (!strcmp(argv[i], "--mode") && i + 1 < argc) {
            mode = static_cast<uint32_t>(atoi(argv[++i]));
        } else {
            fprintf(stderr, "usage: diag_bench [--runs N] [--mode M]\n");
            return 2;
        }
    }
    if (runs < 1) runs = 1;
    bench::enter_lab(argc, argv, "healthy-gpon", "diag_bench");
    FILE *table = bench::report_stream();
    if (!table) return 1;

    run_once(mode); // warm-up: caches, the lab's first lookups
    std::vector<sample> samples;
    for (int i = 0; i < runs; ++i) samples.push_back(run_once(mode));

    fprintf(table, "whole diagnosis, mode %u, %d runs (times in ms)\n", mode, runs);
    fprintf(table, "%-7s %9s %9s %13s %12s %10s %10s  %8s %9s\n", "run", "wall", "own cpu", "children cpu",
            "in commands", "outside", "outside", "commands", "journaled");
    for (size_t i = 0; i < samples.size(); ++i) print_row(table, std::to_string(i + 1).c_str(), samples[i]);
    auto med = [&](double sample::*field) {
        std::vector<double> v;
        for (const sample &s : samples) v.push_back(s.*field);
        return median(v);
    };
    sample m = samples.front();
    for (double sample::*field : {&sample::wall, &sample::own_cpu, &sample::children_cpu,
                                  &sample::in_commands, &sample::outside, &sample::outside_percent})
        m.*field = med(field);
    print_row(table, "median", m);
    fprintf(table, "\nown cpu per diagnosis: %.2f ms (goal <= 10 ms: %s)\n", m.own_cpu,
            m.own_cpu <= 10 ? "met" : "missed");
    fprintf(table, "outside the commands: %.2f %% of wall (goal <= 5 %%: %s)\n", m.outside_percent,
            m.outside_percent <= 5 ? "met" : "missed");
    fclose(table);
    return 0;
}
