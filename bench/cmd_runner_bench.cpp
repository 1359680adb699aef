// Command runner benchmark: how long the runner takes to keep the last 4096
// bytes of a long output, next to `tail -c 4096` reading the same output
// through the same kind of pipe.
//
// The output is a prepared file of text lines 60 to 120 bytes long, played
// by `cat`. Every row runs `cat FILE` through a pipe, so the rows differ only
// in the reader:
//   generator > /dev/null    cat alone (the cost of producing the output)
//   pipe drain               this program read()s the pipe in 64 KiB blocks and
//                            drops them (the floor for any reader of the pipe)
//   tail -c 4096             `cat FILE | tail -c 4096`, its 4096 bytes read back
//   runner                   zq_get_cmd_buff("cat FILE", buf, 4096), the real
//                            path through the dispatcher, the validator and
//                            the ring, with the command log switched off
//
// Usage: cmd_runner_bench [--bytes N] [--reps N] [--keep N] [--dir DIR]
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include "engine/engine.h"
#include "zq_diag.h"

using namespace zq;

namespace {

struct options {
    uint64_t bytes = 100000000;
    int reps = 5;
    uint64_t keep = 4096;
    std::string dir;
};

double now_s() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// User plus system CPU time of this process (the runner reads in-process).
double self_cpu_s() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
}

// Deterministic text lines of 60 to 120 bytes that look like what the
// gateway's tools print: a time, a process tag and a few words.
uint64_t rng_state = 0x9e3779b97f4a7c15ULL;
uint64_t next_rand() {
    rng_state ^= rng_state << 13;
    rng_state ^= rng_state >> 7;
    rng_state ^= rng_state << 17;
    return rng_state;
}

const char *const WORDS[] = {"wan",     "pon",      "link",     "up",          "down",          "dhcp",
                             "lease",   "renew",    "ppp0",     "nas0_1",      "br0",           "route",
                             "0.0.0.0", "metric",   "omci_app", "eponoamd",    "rx_power",      "-18.52",
                             "dBm",     "state",    "NORMAL",   "timeout",     "retry",         "udhcpd",
                             "dnsmasq", "boa",      "iptables", "192.168.1.1", "255.255.255.0", "ok",
                             "fail",    "ifconfig", "RX",       "bytes:"};
constexpr size_t WORD_COUNT = sizeof(WORDS) / sizeof(WORDS[0]);

std::string make_line() {
    const size_t target = 60 + next_rand() % 61; // 60..120, newline included
    char head[48];
    snprintf(head, sizeof(head), "%02u:%02u:%02u.%03u kernel[%u]:", static_cast<unsigned>(next_rand() % 24),
             static_cast<unsigned>(next_rand() % 60), static_cast<unsigned>(next_rand() % 60),
             static_cast<unsigned>(next_rand() % 1000), static_cast<unsigned>(100 + next_rand() % 30000));
    std::string line = head;
    while (line.size() + 1 < target) {
        line += ' ';
        line += WORDS[next_rand() % WORD_COUNT];
    }
    line.resize(target - 1);
    line += '\n';
    return line;
}

bool write_sample(const std::string &path, uint64_t bytes) {
    FILE *f = fopen(path.c_str(), "w");
    if (!f) return false;
    std::string chunk;
    uint64_t written = 0;
    while (written < bytes) {
        chunk.clear();
        while (chunk.size() < (1u << 20)) chunk += make_line();
        size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), bytes - written));
        if (n == bytes - written && n > 0) chunk[n - 1] = '\n'; // the output ends with a whole line
        if (fwrite(chunk.data(), 1, n, f) != n) {
            fclose(f);
            return false;
        }
        written += n;
    }
    return fclose(f) == 0;
}

// Runs `cmd` and returns everything it prints.
bool read_all(const std::string &cmd, std::string &out) {
    out.clear();
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return false;
    char block[65536];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), p)) > 0) out.append(block, n);
    return pclose(p) == 0;
}

// Reads `cmd`'s output and throws it away; returns the byte count.
uint64_t drain(const std::string &cmd) {
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return 0;
    static char block[65536];
    uint64_t total = 0;
    const int fd = fileno(p);
    for (;;) {
        ssize_t n = read(fd, block, sizeof(block));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        total += static_cast<uint64_t>(n);
    }
    pclose(p);
    return total;
}

struct series {
    const char *name;
    std::vector<double> wall;
    std::vector<double> cpu; // this process's CPU time; empty when not meaningful
};

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}
double minimum(const std::vector<double> &v) { return v.empty() ? 0 : *std::min_element(v.begin(), v.end()); }

void usage() {
    fprintf(stderr, "usage: cmd_runner_bench [--bytes N] [--reps N] [--keep N] [--dir DIR]\n"
                    "  --bytes N  size of the output (default 100000000)\n"
                    "  --reps N   runs of each row; the median is compared (default 5)\n"
                    "  --keep N   bytes kept by the runner and by tail (default 4096)\n"
                    "  --dir DIR  where the sample output is prepared (default $TMPDIR or /tmp)\n");
}

bool parse_options(int argc, char **argv, options &opt) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") return false;
        if (i + 1 >= argc) return false;
        const char *v = argv[++i];
        if (a == "--bytes")
            opt.bytes = strtoull(v, nullptr, 10);
        else if (a == "--reps")
            opt.reps = atoi(v);
        else if (a == "--keep")
            opt.keep = strtoull(v, nullptr, 10);
        else if (a == "--dir")
            opt.dir = v;
        else
            return false;
    }
    return opt.bytes > 0 && opt.reps > 0 && opt.keep >= 64;
}

} // namespace

int main(int argc, char **argv) {
    options opt;
    if (!parse_options(argc, argv, opt)) {
        usage();
        return 2;
    }
    // The benchmark runs on a developer's machine: no command log, so nothing
    // is written under the gateway's diagnosis directory.
    do_not_generate_log = 1;

    if (opt.dir.empty()) {
        const char *t = getenv("TMPDIR");
        opt.dir = t && *t ? t : "/tmp";
    }
    std::string tmpl = opt.dir + "/zq_cmd_bench.XXXXXX";
    std::vector<char> dirbuf(tmpl.begin(), tmpl.end());
    dirbuf.push_back('\0');
    if (!mkdtemp(dirbuf.data())) {
        fprintf(stderr, "cannot make a directory under %s: %s\n", opt.dir.c_str(), strerror(errno));
        return 1;
    }
    const std::string workdir = dirbuf.data();
    const std::string sample = workdir + "/output.txt";

    printf("preparing %" PRIu64 " bytes of text lines (60-120 bytes each) in %s\n", opt.bytes,
           sample.c_str());
    if (!write_sample(sample, opt.bytes)) {
        fprintf(stderr, "cannot write %s\n", sample.c_str());
        rmdir(workdir.c_str());
        return 1;
    }

    const std::string gen = "cat '" + sample + "'";
    const std::string gen_null = gen + " > /dev/null";
    const std::string tail_cmd = gen + " | tail -c " + std::to_string(opt.keep);
    const size_t keep = static_cast<size_t>(opt.keep);

    // Warm the page cache and check that the generator delivers it all.
    if (drain(gen) != opt.bytes) {
        fprintf(stderr, "generator did not deliver %" PRIu64 " bytes\n", opt.bytes);
        unlink(sample.c_str());
        rmdir(workdir.c_str());
        return 1;
    }

    series s_gen{"generator > /dev/null", {}, {}};
    series s_drain{"pipe drain (64 KiB reads)", {}, {}};
    series s_tail{"tail -c", {}, {}};
    series s_runner{"runner (zq_get_cmd_buff)", {}, {}};

    std::string tail_out;
    std::vector<char> buf(keep);
    bool same = true;
    bool tail_ok = true;

    // Rows interleaved per repetition so that drifts of the machine hit all
    // of them alike.
    for (int r = 0; r < opt.reps; ++r) {
        double t0 = now_s();
        if (system(gen_null.c_str()) != 0) fprintf(stderr, "generator failed\n");
        s_gen.wall.push_back(now_s() - t0);

        double c0 = self_cpu_s();
        t0 = now_s();
        drain(gen);
        s_drain.wall.push_back(now_s() - t0);
        s_drain.cpu.push_back(self_cpu_s() - c0);

        t0 = now_s();
        tail_ok = read_all(tail_cmd, tail_out) && tail_ok;
        s_tail.wall.push_back(now_s() - t0);

        std::fill(buf.begin(), buf.end(), '\x5a');
        c0 = self_cpu_s();
        t0 = now_s();
        zq_get_cmd_buff(gen.c_str(), buf.data(), opt.keep);
        s_runner.wall.push_back(now_s() - t0);
        s_runner.cpu.push_back(self_cpu_s() - c0);

        // The runner keeps the last `keep` bytes with the final one replaced
        // by the terminator; tail prints the same bytes unchanged.
        bool equal = tail_out.size() == keep && memcmp(buf.data(), tail_out.data(), keep - 1) == 0 &&
                     buf[keep - 1] == '\0';
        same = same && equal;
    }

    unlink(sample.c_str());
    rmdir(workdir.c_str());

    const double mb = static_cast<double>(opt.bytes) / 1e6;
    auto row = [&](const series &s) {
        double med = median(s.wall);
        printf("%-28s %10.1f %10.1f %10.0f", s.name, med * 1e3, minimum(s.wall) * 1e3, mb / med);
        if (!s.cpu.empty())
            printf(" %10.1f\n", median(s.cpu) * 1e3);
        else
            printf(" %10s\n", "-");
    };

    printf("\noutput: %.1f MB through a pipe, %" PRIu64 " bytes kept, %d runs each\n\n", mb, opt.keep,
           opt.reps);
    printf("%-28s %10s %10s %10s %10s\n", "reader", "median ms", "min ms", "MB/s", "own cpu ms");
    row(s_gen);
    row(s_drain);
    row(s_tail);
    row(s_runner);

    const double t_tail = median(s_tail.wall);
    const double t_runner = median(s_runner.wall);
    const double ratio = t_tail > 0 ? t_runner / t_tail : 0;
    printf("\nrunner / tail (median wall time): %.2fx  (goal <= 1.0: %s)\n", ratio,
           ratio <= 1.0 ? "met" : "missed");
    if (!tail_ok)
        printf("tail output check: tail failed\n");
    else
        printf("tail output check: runner's %" PRIu64 " bytes %s tail's (last byte NUL in the runner)\n",
               opt.keep, same ? "equal" : "DIFFER FROM");
    return same && tail_ok ? 0 : 1;
}
