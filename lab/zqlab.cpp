// Test helpers for the gateway lab; see zqlab.hpp.
#include "zqlab.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zqlab {
namespace {

const char *const kState = "/run/zqlab/state";
const char *const kJournal = "/run/zqlab/journal";

[[noreturn]] void fatal(const std::string &what) {
    std::fprintf(stderr, "zqlab: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

void require_inside(const char *fn) {
    if (!inside()) fatal(std::string(fn) + ": not inside a lab (run the test with lab/run)");
}

// Single-quoted for /bin/sh.
std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) {
        if (c == '\'')
            q += "'\\''";
        else
            q += c;
    }
    return q + "'";
}

int status_of(int st) { return WIFEXITED(st) ? WEXITSTATUS(st) : -1; }

// Runs a zqlab command quietly (nothing journaled) and insists on success.
void zqlab_cmd(const char *fn, const std::string &args, const std::string *input = nullptr) {
    require_inside(fn);
    std::string cmd = "ZQLAB_NOJOURNAL=1 zqlab " + args;
    FILE *p = popen(cmd.c_str(), input ? "w" : "r");
    if (!p) fatal(std::string(fn) + ": cannot run " + cmd);
    if (input) {
        if (!input->empty() && std::fwrite(input->data(), 1, input->size(), p) != input->size())
            fatal(std::string(fn) + ": cannot pass the value to " + cmd);
    } else {
        char buf[4096];
        while (std::fread(buf, 1, sizeof buf, p) > 0) {
        }
    }
    int st = pclose(p);
    if (status_of(st) != 0)
        fatal(std::string(fn) + ": '" + cmd + "' failed with status " + std::to_string(status_of(st)));
}

bool valid_key(const std::string &key) {
    if (key.empty()) return false;
    if (key[0] == '/') return key.find("/../") == std::string::npos && key.back() != '/';
    return std::all_of(key.begin(), key.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '_' || c == '-';
    });
}

std::string key_path(const char *fn, const std::string &key) {
    if (!valid_key(key)) fatal(std::string(fn) + ": bad key '" + key + "'");
    return key[0] == '/' ? key : std::string(kState) + "/" + key;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos) nl = text.size();
        out.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return out;
}

} // namespace

bool inside() {
    struct stat st;
    return ::stat(kState, &st) == 0 && S_ISDIR(st.st_mode);
}

void scenario(const std::string &name) { zqlab_cmd("scenario", "scenario " + quote(name)); }

void set(const std::string &key, const std::string &value) {
    key_path("set", key);
    zqlab_cmd("set", "set " + quote(key) + " -", &value);
}

void put(const std::string &key, const std::string &value) {
    key_path("put", key);
    zqlab_cmd("put", "put " + quote(key), &value);
}

void unset(const std::string &key) {
    key_path("unset", key);
    zqlab_cmd("unset", "unset " + quote(key));
}

std::string get(const std::string &key) {
    require_inside("get");
    return read_file(key_path("get", key));
}

bool has(const std::string &key) {
    require_inside("has");
    return file_exists(key_path("has", key));
}

std::vector<std::string> journal_lines() {
    require_inside("journal");
    return lines_of(read_file(kJournal));
}

std::vector<std::string> journal(const std::string &tool) {
    std::vector<std::string> out;
    for (const std::string &line : journal_lines()) {
        size_t sp = line.find(' ');
        if (sp == std::string::npos) continue;
        std::string entry = line.substr(sp + 1);
        if (!tool.empty()) {
            size_t end = entry.find(' ');
            if (entry.substr(0, end) != tool) continue;
        }
        out.push_back(entry);
    }
    return out;
}

void clear_journal() {
    require_inside("clear_journal");
    write_file(kJournal, "");
}

std::string read_file(const std::string &path) {
    std::string out;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    std::fclose(f);
    return out;
}

bool file_exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

void write_file(const std::string &path, const std::string &content) {
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        std::string dir = path.substr(0, slash);
        for (size_t i = 1; i <= dir.size(); i++) {
            if (i == dir.size() || dir[i] == '/') {
                std::string part = dir.substr(0, i);
                if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
                    fatal("write_file: cannot create " + part + ": " + std::strerror(errno));
            }
        }
    }
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) fatal("write_file: cannot open " + path + ": " + std::strerror(errno));
    if (!content.empty() && std::fwrite(content.data(), 1, content.size(), f) != content.size())
        fatal("write_file: cannot write " + path);
    if (std::fclose(f) != 0) fatal("write_file: cannot write " + path);
}

int sigusr2_count() {
    require_inside("sigusr2_count");
    std::string out = run("ZQLAB_NOJOURNAL=1 zqlab sigusr2 2>/dev/null");
    if (out.empty()) return -1;
    return std::atoi(out.c_str());
}

std::string run(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) fatal("run: cannot run " + cmd);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

int run_status(const std::string &cmd) { return status_of(std::system(cmd.c_str())); }

std::string isp_run(const std::string &cmd) {
    require_inside("isp_run");
    return run("ZQLAB_NOJOURNAL=1 zqlab isp sh -c " + quote(cmd));
}

int isp_run_status(const std::string &cmd) {
    require_inside("isp_run_status");
    return run_status("ZQLAB_NOJOURNAL=1 zqlab isp sh -c " + quote(cmd));
}

void start(const std::string &daemon) { zqlab_cmd("start", "start " + quote(daemon)); }

void stop(const std::string &daemon) { zqlab_cmd("stop", "stop " + quote(daemon)); }

std::vector<int> pids(const std::string &name) {
    std::vector<int> out;
    DIR *d = ::opendir("/proc");
    if (!d) return out;
    while (struct dirent *e = ::readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        std::string comm = read_file(std::string("/proc/") + e->d_name + "/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        std::string stat = read_file(std::string("/proc/") + e->d_name + "/stat");
        size_t paren = stat.rfind(')');
        bool zombie = paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z';
        if (comm == name && !zombie) out.push_back(std::atoi(e->d_name));
    }
    ::closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

unsigned alarm_word() {
    require_inside("alarm_word");
    std::string out = run("ZQLAB_NOJOURNAL=1 zqlab alarm");
    return static_cast<unsigned>(std::strtoul(out.c_str(), nullptr, 10));
}

} // namespace zqlab
