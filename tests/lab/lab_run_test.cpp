// lab/run seen from the host: it passes the command's status on, refuses
// what it cannot do, keeps labs apart from each other and from the host, and
// leaves nothing behind.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

const std::string kRun = ZQLAB_RUN;

struct Result {
    int status;
    std::string out;
};

Result sh(const std::string &cmd) {
    Result r{-1, ""};
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string token() { return "zqlab-t" + std::to_string(getpid()); }

// Processes on the host whose environment holds `marker`.
int processes_marked(const std::string &marker) {
    int n = 0;
    DIR *d = opendir("/proc");
    if (!d) return -1;
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        std::string path = std::string("/proc/") + e->d_name + "/environ";
        FILE *f = fopen(path.c_str(), "rb");
        if (!f) continue;
        std::string env;
        char buf[4096];
        size_t k;
        while ((k = fread(buf, 1, sizeof buf, f)) > 0) env.append(buf, k);
        fclose(f);
        if (env.find(marker) != std::string::npos) n++;
    }
    closedir(d);
    return n;
}

} // namespace

TEST(LabRun, ShowsTheGatewayAndPassesTheStatusOn) {
    Result r = sh(kRun + " --scenario healthy-gpon -- sh -c "
                         "'diagM get pon_info pon_state; ps; cat /var/run/diagM.pid; exit 7'");
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(r.out.rfind("NORMAL\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("/bin/udhcpd -S /var/udhcpd/udhcpd.conf"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("diagM\n"), std::string::npos) << r.out;

    EXPECT_EQ(sh(kRun + " -- true").status, 0);
    EXPECT_EQ(sh(kRun + " -- sh -c 'kill -TERM $$'").status, 128 + 15);
    EXPECT_EQ(sh(kRun + " -- /no/such/program 2>/dev/null").status, 127);
}

TEST(LabRun, LeavesNothingBehind) {
    const std::string t = token();
    Result r = sh("ZQLAB_TEST_MARK=" + t + " " + kRun +
                  " -- sh -c 'for d in /tmp /run /dev/shm /etc /var /bin; do echo x > $d/" + t +
                  "; done; zqlab start boa; zqlab start udhcpd; zqlab set daemons \"boa eponoamd\"; "
                  "test -e /dev/shm/" +
                  t + "'");
    ASSERT_EQ(r.status, 0);
    for (const char *dir : {"/tmp/", "/run/", "/dev/shm/", "/etc/", "/var/", "/bin/"})
        EXPECT_FALSE(exists(dir + t)) << dir << t;
    EXPECT_EQ(processes_marked("ZQLAB_TEST_MARK=" + t), 0) << "a daemon of the lab outlived it";
    Result mounts = sh("grep -c zqlab /proc/self/mountinfo");
    EXPECT_EQ(mounts.out, "0\n");
}

TEST(LabRun, LabsAreIsolatedFromEachOther) {
    const std::string t = token();
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::string release = std::string(cwd) + "/" + t + ".release";
    // The first lab holds files in /dev/shm and /tmp and a changed alarm
    // word until the release file appears (the working directory is shared
    // with the host).
    FILE *first = popen((kRun + " -- sh -c 'touch /dev/shm/" + t + " /tmp/" + t +
                         "; zqlab set alarm 16; echo ready; i=0; "
                         "while [ ! -e " +
                         release + " ] && [ $i -lt 3000 ]; do usleep 10000; i=$((i+1)); done'")
                            .c_str(),
                        "r");
    ASSERT_NE(first, nullptr);
    char line[64] = "";
    ASSERT_NE(fgets(line, sizeof line, first), nullptr);
    EXPECT_STREQ(line, "ready\n");

    Result second = sh(kRun + " -- sh -c 'ls /dev/shm /tmp; zqlab alarm'");
    EXPECT_EQ(second.out.find(t), std::string::npos) << second.out;
    EXPECT_NE(second.out.find("\n0\n"), std::string::npos) << second.out;

    FILE *rel = fopen(release.c_str(), "w");
    ASSERT_NE(rel, nullptr);
    fclose(rel);
    pclose(first);
    unlink(release.c_str());
    EXPECT_FALSE(exists("/dev/shm/" + t));
}

namespace {

// Starts `cmd` with /bin/sh and default signal handling; its standard
// output is returned through *out_fd.
pid_t spawn_sh(const std::string &cmd, int *out_fd) {
    int out[2];
    if (pipe(out) != 0) return -1;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_addclose(&fa, out[0]);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
    const char *argv[] = {"/bin/sh", "-c", cmd.c_str(), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", &fa, &attr, const_cast<char **>(argv), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    close(out[1]);
    *out_fd = out[0];
    return pid;
}

int exit_code(pid_t pid) {
    int st = 0;
    if (waitpid(pid, &st, 0) != pid) return -1;
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    return WIFSIGNALED(st) ? 128 + WTERMSIG(st) : -1;
}

// Processes of a lab that was killed from outside die shortly after it.
int processes_marked_after_settling(const std::string &marker) {
    int n = processes_marked(marker);
    for (int i = 0; i < 500 && n != 0; i++) {
        usleep(10000);
        n = processes_marked(marker);
    }
    return n;
}

} // namespace

TEST(LabRun, SignalsReachTheCommand) {
    const std::string mark = "ZQLAB_TEST_MARK=" + token() + "-sig";
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        // The command tells it runs, then waits; the signal must end it.
        int out;
        pid_t pid = spawn_sh(mark + " exec " + kRun + " -- sh -c 'echo up; exec sleep 60'", &out);
        ASSERT_GT(pid, 0);
        char buf[8] = "";
        ASSERT_EQ(read(out, buf, 3), 3);
        close(out);
        ASSERT_EQ(kill(pid, sig), 0);
        EXPECT_EQ(exit_code(pid), 128 + sig) << "signal " << sig;
        EXPECT_EQ(processes_marked(mark), 0) << "signal " << sig;
    }
}

TEST(LabRun, SignalsWhileStartingEndTheLab) {
    const std::string mark = "ZQLAB_TEST_MARK=" + token() + "-early";
    for (int delay_us : {0, 20000, 60000, 120000}) {
        int out;
        pid_t pid = spawn_sh(mark + " exec " + kRun + " -- sleep 60", &out);
        ASSERT_GT(pid, 0);
        close(out);
        usleep(static_cast<useconds_t>(delay_us));
        ASSERT_EQ(kill(pid, SIGTERM), 0);
        EXPECT_EQ(exit_code(pid), 128 + SIGTERM) << "after " << delay_us << " us";
        EXPECT_EQ(processes_marked_after_settling(mark), 0) << "after " << delay_us << " us";
    }
}

TEST(LabRun, ScenarioFilesFromTheHostsTmp) {
    const std::string path = "/tmp/" + token() + ".scn";
    FILE *f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("include healthy-gpon\npon.mode = EPON\n", f);
    fclose(f);
    Result r = sh(kRun + " --scenario " + path + " -- diagM get pon_info pon_mode");
    unlink(path.c_str());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "EPON\n");
}

TEST(LabRun, RefusesWhatItCannotDo) {
    Result r = sh(kRun + " --scenario no-such-scenario -- true 2>&1");
    EXPECT_EQ(r.status, 125);
    EXPECT_NE(r.out.find("no scenario 'no-such-scenario'"), std::string::npos) << r.out;

    const std::string nobody = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    if (sh(nobody + "test -r " + kRun).status == 0) {
        r = sh(nobody + kRun + " -- true 2>&1");
        EXPECT_EQ(r.status, 125);
        EXPECT_NE(r.out.find("needs root"), std::string::npos) << r.out;
    }

    r = sh(kRun + " --bogus -- true 2>&1");
    EXPECT_EQ(r.status, 125);
}
