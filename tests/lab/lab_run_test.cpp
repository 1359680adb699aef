// lab/run seen from the host: it passes the command's status on, refuses
// what it cannot do, keeps labs apart from each other and from the host, and
// leaves nothing behind.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

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
    return std::atoi(
        sh("grep -laF -e '" + marker + "' /proc/[0-9]*/environ 2>/dev/null | wc -l").out.c_str());
}

} // namespace

TEST(LabRun, ShowsTheScenarioAndPassesTheStatusOn) {
    // The scenario file lies in the host's /tmp, which the lab hides.
    const std::string path = "/tmp/" + token() + ".scn";
    ASSERT_EQ(sh("printf 'include healthy-gpon\\npon.mode = EPON\\n' >" + path).status, 0);
    Result r = sh(kRun + " --scenario " + path +
                  " -- sh -c 'diagM get pon_info pon_mode; ps; cat /var/run/diagM.pid; exit 7'");
    unlink(path.c_str());
    EXPECT_EQ(r.status, 7);
    EXPECT_EQ(r.out.rfind("EPON\n", 0), 0u) << r.out;
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
    EXPECT_EQ(sh("grep -c zqlab /proc/self/mountinfo").out, "0\n");
}

// A running lab (with its ISP namespace and WAN links, files in /dev/shm and /tmp, a changed alarm word)
// shows none of it to another lab, adds no interface or named network namespace to the host, and leaves none.
TEST(LabRun, LabsAreApartAndLeaveTheHostsNetworkAlone) {
    const std::string t = token(),
                      host_net = "ip -o link | cut -d: -f2 | cut -d@ -f1; ip netns list; ls /run/netns 2>&1";
    const std::string before = sh(host_net).out;
    char cwd[4096]; // the working directory is shared with the host: the release file is seen inside
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::string release = std::string(cwd) + "/" + t + ".release";
    FILE *first = popen((kRun + " --scenario bridge-wan -- sh -c 'touch /dev/shm/" + t + " /tmp/" + t +
                         "; zqlab set alarm 16; ip -o link | grep -c nas0_; i=0; while [ ! -e " + release +
                         " ] && [ $i -lt 3000 ]; do usleep 10000; i=$((i+1)); done'")
                            .c_str(),
                        "r");
    ASSERT_NE(first, nullptr);
    char line[64] = "";
    ASSERT_NE(fgets(line, sizeof line, first), nullptr);
    EXPECT_STREQ(line, "2\n") << "the first lab's WAN links are up";
    EXPECT_EQ(sh(host_net).out, before);

    Result second = sh(kRun + " -- sh -c 'ls /dev/shm /tmp; zqlab alarm'");
    EXPECT_EQ(second.out.find(t), std::string::npos) << second.out;
    EXPECT_NE(second.out.find("\n0\n"), std::string::npos) << second.out;

    EXPECT_EQ(sh("touch " + release).status, 0);
    pclose(first);
    unlink(release.c_str());
    EXPECT_FALSE(exists("/dev/shm/" + t));
    EXPECT_EQ(sh(host_net).out, before);
}

// A signal sent to lab/run, while the lab starts or once the command runs,
// ends the command with it and leaves no process of the lab behind.
TEST(LabRun, SignalsEndTheCommandAndTheLab) {
    // lab/run gets the signals' default handling, whatever this test inherited.
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) signal(sig, SIG_DFL);
    const std::string mark = "ZQLAB_TEST_MARK=" + token() + "-sig";
    // Each signal with its delay in microseconds after the start, -1: once the command runs.
    const std::pair<int, int> cases[] = {
        {SIGTERM, 0}, {SIGTERM, 60000}, {SIGTERM, -1}, {SIGINT, -1}, {SIGHUP, -1}};
    for (const auto &[sig, delay_us] : cases) {
        const std::string when =
            "signal " + std::to_string(sig) + " after " + std::to_string(delay_us) + " us";
        // The shell tells its pid, then lab/run takes its place.
        FILE *p =
            popen(("echo $$; " + mark + " exec " + kRun + " -- sh -c 'echo up; exec sleep 60'").c_str(), "r");
        ASSERT_NE(p, nullptr);
        char pid[32] = "", up[8] = "";
        ASSERT_NE(fgets(pid, sizeof pid, p), nullptr);
        if (delay_us < 0)
            ASSERT_NE(fgets(up, sizeof up, p), nullptr);
        else
            usleep(static_cast<useconds_t>(delay_us));
        ASSERT_EQ(kill(std::atoi(pid), sig), 0);
        // Read to the end: a command that starts just as the signal comes
        // must not die of a write into a closed pipe instead.
        char rest[64];
        while (fgets(rest, sizeof rest, p)) {
        }
        const int st = pclose(p);
        EXPECT_EQ(WIFEXITED(st)     ? WEXITSTATUS(st)
                  : WIFSIGNALED(st) ? 128 + WTERMSIG(st)
                                    : -1,
                  128 + sig)
            << when;
        // A lab killed while starting may outlive lab/run by a moment.
        int left = processes_marked(mark);
        for (int i = 0; delay_us >= 0 && i < 500 && left != 0; i++, usleep(10000))
            left = processes_marked(mark);
        EXPECT_EQ(left, 0) << when;
    }
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
