// Heap benchmark, through the shipped library in the lab, in two parts.
//
// Allocations of one whole diagnosis (mode 0) of the healthy gateway: the
// benchmark puts its own malloc, calloc, realloc and free in place of
// libc's (the library's calls land here too) and notes each call made from
// inside libzqdiag.so while the diagnosis runs. They are printed beside the
// goal, 2 per stored record (its node and its copy) + 1 per wrapped output
// (the runner's scratch buffer when a command printed more than its
// buffer), with the records counted on the library's chain afterwards and
// each scratch buffer checked against the bytes its command really printed
// (the benchmark also wraps popen, pclose and read to count them). libc's
// own allocations on the library's behalf (popen's and fopen's FILE) are
// shown apart.
//
// RSS over many diagnoses in one process (default 1000 whole diagnoses of
// the unregistered gateway, whose path is short): the resident set at the
// start, after 10, after 100 and at the end. Flat means within a few pages
// from the 100th run to the last.
//
// Usage: heap_bench [--runs N] [--mode M] [--skip-allocations] [--skip-rss]
// Outside a lab it re-runs itself in one (lab/run --scenario healthy-gpon).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "bench/bench_lab.hpp"
#include "zq_diag.h"
#include "zqlab.hpp"

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t n, size_t size);
void *__libc_realloc(void *p, size_t size);
void __libc_free(void *p);
}

namespace {

enum kind : uint8_t { MALLOC, CALLOC, REALLOC, FREE };
const char *const KIND_NAMES[] = {"malloc", "calloc", "realloc", "free"};

struct allocation {
    kind what;
    size_t size;
    void *caller;
    int command; // the command whose output was being read, -1 when none
};

struct command {
    FILE *stream;
    int fd;
    uint64_t bytes;
};

// Filled while `counting`; the diagnosis runs on this thread alone.
bool counting = false;
allocation allocations[4096];
size_t allocation_count = 0;
command commands[512];
int command_count = 0;
int open_command = -1;

void note(kind what, size_t size, void *caller) {
    if (!counting || allocation_count == sizeof(allocations) / sizeof(allocations[0])) return;
    allocations[allocation_count++] = {what, size, caller, open_command};
}

template <class Fn> Fn next(const char *name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

} // namespace

extern "C" void *malloc(size_t size) {
    note(MALLOC, size, __builtin_return_address(0));
    return __libc_malloc(size);
}
extern "C" void *calloc(size_t n, size_t size) {
    note(CALLOC, n * size, __builtin_return_address(0));
    return __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, size_t size) {
    note(REALLOC, size, __builtin_return_address(0));
    return __libc_realloc(p, size);
}
extern "C" void free(void *p) {
    if (p) note(FREE, 0, __builtin_return_address(0));
    __libc_free(p);
}

extern "C" FILE *popen(const char *cmd, const char *type) {
    static auto real = next<FILE *(*)(const char *, const char *)>("popen");
    FILE *stream = real(cmd, type);
    if (counting && stream && command_count < static_cast<int>(sizeof(commands) / sizeof(commands[0]))) {
        commands[command_count] = {stream, fileno(stream), 0};
        open_command = command_count++;
    }
    return stream;
}

extern "C" int pclose(FILE *stream) {
    static auto real = next<int (*)(FILE *)>("pclose");
    if (open_command >= 0 && commands[open_command].stream == stream) open_command = -1;
    return real(stream);
}

// The runner reads the pipe's descriptor itself.
extern "C" ssize_t read(int fd, void *buf, size_t size) {
    const auto n = static_cast<ssize_t>(syscall(SYS_read, fd, buf, size));
    if (n > 0 && open_command >= 0 && commands[open_command].fd == fd)
        commands[open_command].bytes += static_cast<uint64_t>(n);
    return n;
}

namespace {

bool from_library(void *caller) {
    static void *base = [] {
        Dl_info info{};
        return dladdr(reinterpret_cast<void *>(&run_spec_entire_diag), &info) ? info.dli_fbase : nullptr;
    }();
    Dl_info info{};
    return base && dladdr(caller, &info) && info.dli_fbase == base;
}

bool is_record_size(size_t size) {
    for (uint32_t type = WAN_DIAG_DATA; type <= SYS_DIAG_DATA; ++type)
        if (size == get_diag_data_size(type)) return true;
    return false;
}

int stored_records() {
    int n = 0;
    for (const diag_data_node *node = zq_diag_data_chain.next; node; node = node->next) ++n;
    return n;
}

void count_allocations(uint32_t mode, FILE *out) {
    run_spec_entire_diag(mode); // warm-up: the lab's first lookups, libc's first buffers
    allocation_count = 0;
    command_count = 0;
    counting = true;
    run_spec_entire_diag(mode);
    counting = false;

    int nodes = 0, copies = 0, scratch = 0, other = 0, frees = 0, libc = 0;
    for (size_t i = 0; i < allocation_count; ++i) {
        const allocation &a = allocations[i];
        if (!from_library(a.caller)) {
            libc += a.what == FREE ? 0 : 1;
            continue;
        }
        if (a.what == FREE) {
            ++frees;
        } else if (a.what == CALLOC && a.size == sizeof(diag_data_node)) {
            ++nodes;
        } else if (a.what == MALLOC && is_record_size(a.size)) {
            ++copies;
        } else if (a.what == MALLOC && a.command >= 0 && commands[a.command].bytes > a.size) {
            ++scratch; // a buffer the size of the runner's, for an output longer than it
        } else {
            ++other;
            fprintf(out, "  other: %s of %zu bytes\n", KIND_NAMES[a.what], a.size);
        }
    }
    const int records = stored_records();
    int longer = 0;
    for (int i = 0; i < command_count; ++i) longer += commands[i].bytes >= 4096 ? 1 : 0;
    const int allocated = nodes + copies + scratch + other;
    const int goal = 2 * records + scratch;
    fprintf(out, "heap allocations of one whole diagnosis, mode %u\n", mode);
    fprintf(out, "  records stored (the chain)           %6d\n", records);
    fprintf(out, "  commands run / printed >= 4096 bytes %6d / %d\n", command_count, longer);
    fprintf(out, "  library: nodes %d, record copies %d, scratch buffers %d, other %d; frees %d\n", nodes,
            copies, scratch, other, frees);
    fprintf(out, "  libc on the library's behalf (popen, fopen, ...): %d\n", libc);
    fprintf(out, "allocations per diagnosis: %d (goal 2 x %d records + %d wrapped outputs = %d: %s)\n",
            allocated, records, scratch, goal,
            allocated == goal && nodes == records && copies == records ? "met" : "missed");
}

long resident_kib() {
    FILE *statm = fopen("/proc/self/statm", "r");
    if (!statm) return -1;
    long size = 0, resident = 0;
    const int n = fscanf(statm, "%ld %ld", &size, &resident);
    fclose(statm);
    return n == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

void measure_rss(int runs, uint32_t mode, FILE *out) {
    // A short path keeps a thousand runs within minutes: the PON is not
    // registered, so the WAN steps (whose pings take seconds) are skipped.
    zqlab::scenario("pon-unregistered");
    const long page_kib = sysconf(_SC_PAGESIZE) / 1024;
    run_spec_entire_diag(mode);
    const long start = resident_kib();
    long after_10 = start, after_100 = start;
    for (int i = 1; i <= runs; ++i) {
        run_spec_entire_diag(mode);
        if (i == 10) after_10 = resident_kib();
        if (i == 100) after_100 = resident_kib();
    }
    const long end = resident_kib();
    // Flat is judged from the 100th run on; what the first runs add once
    // (pages touched for the first time) is shown beside it.
    const long growth_pages = (end - after_100) / page_kib;
    fprintf(out, "RSS over %d whole diagnoses, mode %u, in one process (KiB)\n", runs, mode);
    fprintf(out, "  start %ld, after 10 %ld, after 100 %ld, end %ld (start to end: %ld pages)\n", start,
            after_10, after_100, end, (end - start) / page_kib);
    fprintf(out, "RSS growth from run 100 to run %d: %ld pages (goal flat, within 4 pages: %s)\n", runs,
            growth_pages, growth_pages <= 4 ? "met" : "missed");
}

} // namespace

int main(int argc, char **argv) {
    int runs = 1000;
    uint32_t mode = 0;
    bool allocations_part = true, rss_part = true;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--runs") && i + 1 < argc) {
            runs = atoi(argv[++i]);
        } else if (!strcmp(argv[i], "--mode") && i + 1 < argc) {
            mode = static_cast<uint32_t>(atoi(argv[++i]));
        } else if (!strcmp(argv[i], "--skip-allocations")) {
            allocations_part = false;
        } else if (!strcmp(argv[i], "--skip-rss")) {
            rss_part = false;
        } else {
            fprintf(stderr, "usage: heap_bench [--runs N] [--mode M] [--skip-allocations] [--skip-rss]\n");
            return 2;
        }
    }
    if (runs < 100) runs = 100;
    bench::enter_lab(argc, argv, "healthy-gpon", "heap_bench");
    FILE *report = bench::report_stream();
    if (!report) return 1;
    if (allocations_part) count_allocations(mode, report);
    if (rss_part) measure_rss(runs, mode, report);
    fclose(report);
    return 0;
}
