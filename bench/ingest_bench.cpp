// zqdiag-inspect on a fleet: generates a server's upload tree of N archives
// from the lab's real uploads (inspect/fixtures), then measures the first
// ingest into SQLite, the re-ingest of the unchanged tree, the peak RSS of
// each, the NDJSON export of the fleet, and the time to read and render one
// report in each format.
//
//   ingest_bench [--archives N] [--small N] [--bad-every K] [--dir DIR] [--keep]
//
// Each archive is a fixture made distinct: a diagnosis package gets its
// port findings and optical power redrawn from the archive's number (the
// findings vary, the DHCP and PPPoE exchanges of its capture stay the lab's
// real ones, their times shifted); a capture archive gets its records'
// times shifted. Every K-th archive is bad, one of the hostile kinds the
// tool refuses. Two archives per gateway directory, names as the gateway
// uploads them. The small fleet (default N/10) is ingested too, to show
// that the peak RSS does not grow with the fleet.
#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "report.hpp"

extern char **environ;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

struct Entry {
    std::string name;
    std::string data;
    bool symlink = false;
};

struct Fixture {
    std::string scenario;
    std::string suffix; // "dia.tar" or "cap.tar"
    std::vector<Entry> members;
};

std::string slurp(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<Entry> read_tar(const std::string &bytes) {
    std::vector<Entry> out;
    archive *a = archive_read_new();
    archive_read_support_format_tar(a);
    if (archive_read_open_memory(a, bytes.data(), bytes.size()) != ARCHIVE_OK) {
        archive_read_free(a);
        return out;
    }
    archive_entry *e = nullptr;
    while (archive_read_next_header(a, &e) == ARCHIVE_OK) {
        Entry m{archive_entry_pathname(e), std::string(static_cast<size_t>(archive_entry_size(e)), '\0')};
        archive_read_data(a, m.data.data(), m.data.size());
        out.push_back(std::move(m));
    }
    archive_read_free(a);
    return out;
}

std::string write_tar(const std::vector<Entry> &members, bool gzip = false) {
    std::string out(4 << 20, '\0'); // the largest, a bomb's gzip, is a few KiB
    size_t used = 0;
    archive *a = archive_write_new();
    archive_write_set_format_ustar(a);
    if (gzip) archive_write_add_filter_gzip(a);
    archive_write_open_memory(a, out.data(), out.size(), &used);
    for (const Entry &m : members) {
        archive_entry *e = archive_entry_new();
        archive_entry_set_pathname(e, m.name.c_str());
        archive_entry_set_mtime(e, 1795000000, 0);
        if (m.symlink) {
            archive_entry_set_filetype(e, AE_IFLNK);
            archive_entry_set_symlink(e, m.data.c_str());
            archive_entry_set_perm(e, 0777);
            archive_write_header(a, e);
        } else {
            archive_entry_set_filetype(e, AE_IFREG);
            archive_entry_set_perm(e, 0644);
            archive_entry_set_size(e, static_cast<la_int64_t>(m.data.size()));
            archive_write_header(a, e);
            archive_write_data(a, m.data.data(), m.data.size());
        }
        archive_entry_free(e);
    }
    archive_write_close(a);
    archive_write_free(a);
    out.resize(used);
    return out;
}

void replace_all(std::string &s, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size())
        s.replace(at, from.size(), to);
}

// The text after each `key` up to the next blank or line end, replaced.
void set_after(std::string &s, const std::string &key, const std::string &value) {
    for (size_t at = 0; (at = s.find(key, at)) != std::string::npos;) {
        at += key.size();
        const size_t end = s.find_first_of(" \n", at);
        s.replace(at, (end == std::string::npos ? s.size() : end) - at, value);
    }
}

// The diagnosis log with its port findings, optical power and the system's
// figures redrawn from the archive's number (every archive is distinct).
std::string vary_log(std::string log, unsigned n) {
    for (unsigned port = 2; port <= 4; ++port) {
        const std::string down = "[warn   ]Port[" + std::to_string(port) + "] down";
        const std::string up = "[normal ]Port[" + std::to_string(port) + "] up";
        if (n >> port & 1) replace_all(log, down, up);
    }
    char power[32];
    snprintf(power, sizeof(power), "-%u.%02u", 14 + n % 12, n / 12 % 100);
    set_after(log, "rx_power: ", power);
    set_after(log, "rx_power = ", power);
    set_after(log, "sys_status.sys_mem_free = ", std::to_string(100000 + n % 150000));
    set_after(log, "sys_status.sys_cpu_usage = ", std::to_string(n / 150000 % 100));
    return log;
}

// A capture with every record's time moved on by `shift` seconds.
std::string shift_pcap(std::string pcap, uint32_t shift) {
    size_t at = 24;
    while (at + 16 <= pcap.size()) {
        uint32_t sec = 0, caplen = 0;
        memcpy(&sec, pcap.data() + at, 4);
        memcpy(&caplen, pcap.data() + at + 8, 4);
        sec += shift;
        memcpy(pcap.data() + at, &sec, 4);
        at += 16 + caplen;
    }
    return pcap;
}

// The upload's name: the gateway's month (no leading zero), day, hour and
// minute, then the kind.
std::string upload_name(unsigned n, const std::string &suffix) {
    char buf[64];
    snprintf(buf, sizeof(buf), "%u%02u%02u%02u%s", 1 + n % 12, 1 + n / 12 % 28, n / 7 % 24, n % 60,
             suffix.c_str());
    return buf;
}

// A hostile upload of one of the kinds the tool refuses.
std::string bad_archive(unsigned n, const Fixture &f, const std::string &tag) {
    switch (n % 6) {
    case 0:
        return "not an archive " + tag;
    case 1: {
        std::string t = write_tar(f.members);
        return t.substr(0, 700) + tag; // cut short inside a member
    }
    case 2:
        return write_tar({{"diag_log", "/etc/passwd", true}, {"tag", tag}});
    case 3:
        return write_tar({{"../../diag_log", tag}});
    case 4: { // a capture whose snap length is over the cap
        std::string pcap(24, '\0');
        const uint32_t hdr[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 1u << 24, 1};
        memcpy(pcap.data(), hdr, sizeof(hdr));
        std::vector<Entry> m;
        for (const Entry &e : f.members)
            if (e.name != "capture.pcap") m.push_back(e);
        m.push_back({"capture.pcap", pcap + tag});
        return write_tar(m);
    }
    default: // a compression bomb: 24 MiB of zeros in a few KiB of gzip
        return write_tar({{"diag_log", std::string(24 << 20, '\0') + tag}}, true);
    }
}

struct Fleet {
    size_t archives = 0, bad = 0;
    uint64_t bytes = 0;
    double seconds = 0;
};

Fleet generate(const fs::path &dir, size_t count, unsigned bad_every, const std::vector<Fixture> &fixtures) {
    const auto start = Clock::now();
    Fleet out;
    for (unsigned n = 0; n < count; ++n) {
        const Fixture &f = fixtures[n % fixtures.size()];
        char gw[32];
        snprintf(gw, sizeof(gw), "gw-%06u", n / 2);
        const fs::path gdir = dir / gw;
        fs::create_directories(gdir);
        const std::string tag = std::to_string(n);
        std::string bytes;
        if (bad_every && n % bad_every == bad_every - 1) {
            bytes = bad_archive(n / bad_every, f, tag);
            ++out.bad;
        } else {
            std::vector<Entry> m = f.members;
            for (Entry &e : m) {
                if (e.name == "diag_log") e.data = vary_log(e.data, n);
                if (e.name == "capture.pcap") e.data = shift_pcap(e.data, n * 600);
            }
            bytes = write_tar(m);
        }
        std::ofstream(gdir / upload_name(n, f.suffix), std::ios::binary) << bytes;
        out.bytes += bytes.size();
        ++out.archives;
    }
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return out;
}

std::vector<Fixture> load_fixtures() {
    std::vector<Fixture> fixtures;
    for (const auto &d : fs::directory_iterator(ZQI_FIXTURES)) {
        if (!d.is_directory()) continue;
        for (const auto &f : fs::directory_iterator(d.path())) {
            const std::string name = f.path().filename().string();
            const size_t digits = name.find_first_not_of("0123456789");
            fixtures.push_back(
                {d.path().filename().string(), name.substr(digits), read_tar(slurp(f.path()))});
        }
    }
    std::sort(fixtures.begin(), fixtures.end(),
              [](const Fixture &a, const Fixture &b) { return a.scenario < b.scenario; });
    return fixtures;
}

// The fleet is made in a child process. A spawned command's peak RSS, as
// the kernel counts it, starts from the spawning process's own peak (the
// memory it shared until exec), so the bench itself stays small.
Fleet generate_apart(const fs::path &dir, size_t count, unsigned bad_every) {
    int fds[2];
    Fleet out;
    if (pipe(fds) != 0) return out;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        const std::vector<Fixture> fixtures = load_fixtures();
        if (!fixtures.empty()) out = generate(dir, count, bad_every, fixtures);
        const ssize_t n = write(fds[1], &out, sizeof(out));
        _exit(n == sizeof(out) ? 0 : 1);
    }
    close(fds[1]);
    if (read(fds[0], &out, sizeof(out)) != sizeof(out)) out = {};
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return out;
}

// The peak RSS of this process so far (KiB).
long own_peak_kib() {
    std::istringstream in(slurp("/proc/self/status"));
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("VmHWM:")) return std::stol(line.substr(6));
    return 0;
}

struct Run {
    int status = -1;
    double seconds = 0;
    long peak_rss_kib = 0;
    double cpu_seconds = 0; // user and system
    std::string summary;    // the tool's last line on stderr
};

Run run_tool(const std::vector<std::string> &args, const fs::path &err_file) {
    std::vector<char *> argv;
    std::string tool = ZQI_TOOL;
    argv.push_back(tool.data());
    std::vector<std::string> a = args;
    for (std::string &s : a) argv.push_back(s.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    Run r;
    const auto start = Clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, tool.c_str(), &fa, nullptr, argv.data(), environ) != 0) return r;
    int status = 0;
    rusage ru{};
    wait4(pid, &status, 0, &ru);
    r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    posix_spawn_file_actions_destroy(&fa);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    r.peak_rss_kib = ru.ru_maxrss;
    r.cpu_seconds = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
                    static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    std::istringstream in(slurp(err_file));
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) r.summary = line;
    return r;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv) {
    size_t archives = 10000, small = 0;
    unsigned bad_every = 20;
    fs::path dir = fs::temp_directory_path() / ("zqi-bench-" + std::to_string(getpid()));
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--archives" && i + 1 < argc)
            archives = std::stoul(argv[++i]);
        else if (a == "--small" && i + 1 < argc)
            small = std::stoul(argv[++i]);
        else if (a == "--bad-every" && i + 1 < argc)
            bad_every = static_cast<unsigned>(std::stoul(argv[++i]));
        else if (a == "--dir" && i + 1 < argc)
            dir = argv[++i];
        else if (a == "--keep")
            keep = true;
        else {
            fprintf(stderr,
                    "usage: ingest_bench [--archives N] [--small N] [--bad-every K] [--dir DIR] [--keep]\n");
            return 2;
        }
    }
    if (small == 0) small = std::max<size_t>(archives / 10, 1);

    fs::remove_all(dir);
    printf("zqdiag-inspect ingest into SQLite, the lab's fixtures, one archive in %u bad\n\n", bad_every);
    printf(
        "| fleet | bad | MiB | first ingest (s) | archives/s | CPU (s) | archives per CPU s | re-ingest (s) "
        "| "
        "speed-up | peak RSS first / again (MiB) |\n|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    int failed = 0;
    struct Export {
        size_t archives;
        double seconds;
        long peak_rss_kib;
        uintmax_t bytes;
    };
    std::vector<Export> exports;
    for (const size_t count : {small, archives}) {
        const fs::path fleet_dir = dir / ("fleet-" + std::to_string(count));
        const Fleet fleet = generate_apart(fleet_dir, count, bad_every);
        if (fleet.archives != count) {
            fprintf(stderr, "ingest_bench: no fleet made from %s\n", ZQI_FIXTURES);
            return 1;
        }
        const std::vector<std::string> args = {"ingest", fleet_dir.string(), "--quiet"};
        const Run first = run_tool(args, dir / "first.err");
        const Run again = run_tool(args, dir / "again.err");
        const fs::path ndjson = dir / "export.ndjson";
        const Run exported = run_tool(
            {"export", "--ndjson", "--db", (fleet_dir / "zqdiag-inspect.db").string(), "-o", ndjson.string()},
            dir / "export.err");
        exports.push_back({fleet.archives, exported.seconds, exported.peak_rss_kib,
                           exported.status == 0 ? fs::file_size(ndjson) : 0});
        if (first.status != 0 || again.status != 0) {
            fprintf(stderr, "ingest_bench: ingest failed: %s / %s\n", first.summary.c_str(),
                    again.summary.c_str());
            ++failed;
        }
        printf("| %zu | %zu | %.1f | %.2f | %.0f | %.2f | %.0f | %.3f | %.0fx | %.1f / %.1f |\n",
               fleet.archives, fleet.bad, static_cast<double>(fleet.bytes) / (1 << 20), first.seconds,
               static_cast<double>(fleet.archives) / first.seconds, first.cpu_seconds,
               static_cast<double>(fleet.archives) / first.cpu_seconds, again.seconds,
               first.seconds / again.seconds, static_cast<double>(first.peak_rss_kib) / 1024,
               static_cast<double>(again.peak_rss_kib) / 1024);
        fprintf(stderr, "fleet of %zu generated in %.1f s; first: %s; again: %s (bench's own peak %ld KiB)\n",
                count, fleet.seconds, first.summary.c_str(), again.summary.c_str(), own_peak_kib());
    }

    printf("\n| fleet | export --ndjson (s) | MiB written | peak RSS (MiB) |\n|---:|---:|---:|---:|\n");
    for (const Export &e : exports)
        printf("| %zu | %.2f | %.1f | %.1f |\n", e.archives, e.seconds,
               static_cast<double>(e.bytes) / (1 << 20), static_cast<double>(e.peak_rss_kib) / 1024);

    // One report, the largest lab upload, read and rendered in process
    // (median of 50) and as the whole command (median of 10).
    const fs::path one = fs::path(ZQI_FIXTURES) / "pppoe-chap-failure" / "11161621dia.tar";
    const std::string bytes = slurp(one);
    std::vector<double> read_t, text_t, json_t, html_t;
    size_t sizes[3] = {};
    for (int i = 0; i < 50; ++i) {
        auto t0 = Clock::now();
        const zqinspect::Report r = zqinspect::build_report(bytes, one.string());
        auto t1 = Clock::now();
        sizes[0] = zqinspect::render_text(r, false).size();
        auto t2 = Clock::now();
        sizes[1] = zqinspect::render_json(r).size();
        auto t3 = Clock::now();
        sizes[2] = zqinspect::render_html(r).size();
        auto t4 = Clock::now();
        const auto ms = [](auto a, auto b) {
            return std::chrono::duration<double, std::milli>(b - a).count();
        };
        read_t.push_back(ms(t0, t1));
        text_t.push_back(ms(t1, t2));
        json_t.push_back(ms(t2, t3));
        html_t.push_back(ms(t3, t4));
    }
    printf("\nOne report (%s, %zu bytes): reading it %.3f ms\n\n", one.filename().c_str(), bytes.size(),
           median(read_t));
    printf("| format | bytes | render (ms) | whole command (ms) |\n|---|---:|---:|---:|\n");
    const char *formats[] = {"text", "json", "html"};
    const std::vector<double> *renders[] = {&text_t, &json_t, &html_t};
    fs::create_directories(dir);
    for (int f = 0; f < 3; ++f) {
        std::vector<double> whole;
        for (int i = 0; i < 10; ++i)
            whole.push_back(run_tool({"report", one.string(), "--format", formats[f], "-o",
                                      (dir / (std::string("report.") + formats[f])).string()},
                                     dir / "report.err")
                                .seconds *
                            1000);
        printf("| %s | %zu | %.3f | %.1f |\n", formats[f], sizes[f], median(*renders[f]), median(whole));
    }
    if (!keep) fs::remove_all(dir);
    return failed ? 1 : 0;
}
