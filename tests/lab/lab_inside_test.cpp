// The simulated gateway as the library sees it: run inside a fresh lab
// started with the healthy-gpon scenario.
#include "zqlab.hpp"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sstream>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    std::string w;
    while (in >> w) out.push_back(w);
    return out;
}

int count_of(const std::string &text, const std::string &needle) {
    int n = 0;
    for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) n++;
    return n;
}

uint32_t read_alarm_word() {
    key_t key = ftok("/tmp", 955000);
    EXPECT_NE(key, -1);
    int id = shmget(key, 4, 0);
    EXPECT_NE(id, -1) << "no alarm word segment";
    if (id == -1) return 0xdeadbeef;
    void *addr = shmat(id, nullptr, SHM_RDONLY);
    EXPECT_NE(addr, reinterpret_cast<void *>(-1));
    if (addr == reinterpret_cast<void *>(-1)) return 0xdeadbeef;
    uint32_t v = *static_cast<volatile uint32_t *>(addr);
    shmdt(addr);
    return v;
}

std::string manager_pid_text() { return zqlab::read_file("/var/run/diagM.pid"); }

// The load between two readings of /proc/stat's first line, as the library
// computes it: idle time against the sum of the first seven counters.
double load_between(const std::string &first, const std::string &second) {
    auto counters = [](const std::string &text) {
        std::vector<std::string> w = words(text.substr(0, text.find('\n')));
        std::vector<double> c;
        for (size_t i = 1; i < w.size() && i <= 7; ++i) c.push_back(std::stod(w[i]));
        c.resize(7);
        return c;
    };
    const std::vector<double> a = counters(first), b = counters(second);
    double total = 0;
    for (size_t i = 0; i < 7; ++i) total += b[i] - a[i];
    return total == 0 ? 0.0 : 100.0 - (b[3] - a[3]) / total * 100.0;
}

bool proc_stat_replaced() {
    return zqlab::read_file("/proc/self/mountinfo").find(" /proc/stat ") != std::string::npos;
}

} // namespace

TEST(Lab, RunsInAFreshLab) {
    ASSERT_TRUE(zqlab::inside());
    EXPECT_TRUE(zqlab::journal().empty()) << "the lab's own start-up is not journaled";
    EXPECT_EQ(zqlab::read_file("/proc/1/comm"), "init\n");
    EXPECT_NE(zqlab::run("ip link show lo").find("UP"), std::string::npos);

    // /bin/sh stays dash so that the firmware shims on PATH win over
    // busybox's built-in applets.
    EXPECT_EQ(zqlab::run("readlink /bin/sh"), "dash\n");
}

TEST(Lab, TmpRunAndShmArePrivateTmpfs) {
    const long tmpfs_magic = 0x01021994;
    for (const char *dir : {"/tmp", "/run", "/dev/shm"}) {
        struct statfs fs;
        ASSERT_EQ(statfs(dir, &fs), 0) << dir;
        EXPECT_EQ(static_cast<long>(fs.f_type), tmpfs_magic) << dir;
    }
    // The library's permit lives here; a fresh lab never has it.
    EXPECT_FALSE(zqlab::file_exists("/dev/shm/sem.diag_permit"));
    sem_t *s = sem_open("diag_permit", O_CREAT, 0644, 1);
    ASSERT_NE(s, SEM_FAILED);
    EXPECT_TRUE(zqlab::file_exists("/dev/shm/sem.diag_permit"));
    sem_close(s);
}

// --- simulated tools ----------------------------------------------------------

TEST(Tools, ShimsTakeTheFirmwareSyntaxAndShowTheScenario) {
    EXPECT_EQ(zqlab::run("timeout -t 5 echo hello"), "hello\n");
    EXPECT_NE(zqlab::run_status("timeout -t 1 sleep 30"), 0);

    zqlab::set("mem.used", "250000");
    std::vector<std::string> mem = words(zqlab::run("free | grep Mem"));
    ASSERT_GE(mem.size(), 3u);
    EXPECT_EQ(mem[1], "253476");
    EXPECT_EQ(mem[2], "250000");
}

// --- CPU load ---------------------------------------------------------------

// Two readings (the second as soon as the server has written the next
// sample; the library's are 300 ms apart); other readers in between change
// nothing.
TEST(CpuLoad, ServedLoadIsExactWhoeverReadsInBetween) {
    for (int usage : {0, 12, 80, 81, 99, 100}) {
        zqlab::set("cpu.usage", std::to_string(usage));
        const std::string first = zqlab::read_file("/proc/stat");
        if (usage == 80) zqlab::run("cat /proc/stat >/dev/null; head -1 /proc/stat >/dev/null");
        std::string second;
        for (int i = 0; i < 500 && (second = zqlab::read_file("/proc/stat")) == first; ++i) usleep(10000);
        EXPECT_EQ(static_cast<int>(load_between(first, second)), usage) << first << second;
    }
}

TEST(CpuLoad, KernelFileWithoutTheKeyAndUnreadableOnRequest) {
    EXPECT_TRUE(proc_stat_replaced()) << "healthy-gpon serves a load";
    zqlab::unset("cpu.usage");
    EXPECT_FALSE(proc_stat_replaced());
    EXPECT_EQ(zqlab::read_file("/proc/stat").rfind("cpu ", 0), 0u);

    zqlab::set("cpu.unreadable", "yes");
    errno = 0;
    EXPECT_EQ(fopen("/proc/stat", "r"), nullptr);
    EXPECT_EQ(errno, ENXIO);
    zqlab::scenario("healthy-gpon");
    FILE *f = fopen("/proc/stat", "r");
    ASSERT_NE(f, nullptr) << "a scenario reset gives it back";
    fclose(f);
    EXPECT_EQ(zqlab::run_status("zqlab set cpu.usage 101 2>/dev/null"), 1);
}

// --- scenarios --------------------------------------------------------------

// The alarm word is read here through the gateway's own shm key.
TEST(Scenarios, EachResetsTheWholeGateway) {
    zqlab::scenario("pon-unregistered");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NOT_REGISTERED\n");
    EXPECT_EQ(zqlab::run("flash get PON_DETECT"), "PON_DETECT=0\n");
    EXPECT_EQ(zqlab::run_status("pondetect"), 0);

    zqlab::scenario("pon-no-link");
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_state"), "NO_LINKED\n");
    EXPECT_EQ(zqlab::run("ls /bin | grep pondetect"), "") << "reset to the scenario, not layered on the last";

    zqlab::scenario("loaded-system");
    EXPECT_EQ(read_alarm_word(), 0x18u);
    EXPECT_TRUE(zqlab::pids("boa").empty());
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 2u);

    zqlab::scenario("healthy-gpon");
    EXPECT_EQ(read_alarm_word(), 0u);
    EXPECT_EQ(zqlab::pids("boa").size(), 1u);
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 1u);
}

TEST(Scenarios, FileFormat) {
    zqlab::write_file("/tmp/custom.scn", "# a comment\n"
                                         "include healthy-gpon\n"
                                         "  pon.state   =   NO_LINKED  \n"
                                         "custname = \"  spaced  \"\n"
                                         "wan.0.v4_ip =\n"
                                         "unset time.synced\n"
                                         "/etc/extra.conf <<EOF\n"
                                         "  kept indented\n"
                                         "a = b << c\n"
                                         "EOF\n");
    zqlab::scenario("/tmp/custom.scn");
    EXPECT_EQ(zqlab::get("pon.state"), "NO_LINKED");
    EXPECT_EQ(zqlab::read_file("/etc/custname"), "  spaced  \n");
    EXPECT_TRUE(zqlab::has("wan.0.v4_ip"));
    EXPECT_FALSE(zqlab::file_exists("/tmp/timeStatus"));
    EXPECT_EQ(zqlab::read_file("/etc/extra.conf"), "  kept indented\na = b << c\n");
    EXPECT_EQ(zqlab::run("diagM get wan_info wan_name 0"), "1_TR069_INTERNET_R_VID_100") << "included";

    // Re-applying a scenario removes what the previous one wrote.
    zqlab::scenario("healthy-gpon");
    EXPECT_FALSE(zqlab::file_exists("/etc/extra.conf"));
    EXPECT_EQ(zqlab::read_file("/tmp/timeStatus"), "2");
}

// --- daemons ----------------------------------------------------------------

TEST(Daemons, RunUnderTheGatewaysNamesForPsAndPgrep) {
    for (const char *name : {"boa", "cwmpClient", "omci_app", "udhcpd", "dnsmasq"})
        EXPECT_EQ(zqlab::pids(name).size(), 1u) << name;
    EXPECT_TRUE(zqlab::pids("eponoamd").empty());
    std::string ps = zqlab::run("ps");
    EXPECT_NE(ps.find("/bin/udhcpd -S /var/udhcpd/udhcpd.conf"), std::string::npos);
    EXPECT_NE(ps.find("/bin/boa"), std::string::npos);

    zqlab::start("udhcpd");
    std::vector<int> ids = zqlab::pids("udhcpd");
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(count_of(zqlab::run("ps | grep udhcpd"), "/bin/udhcpd"), 2);
    EXPECT_EQ(zqlab::run("pgrep udhcpd"), std::to_string(ids[0]) + "\n" + std::to_string(ids[1]) + "\n");
    EXPECT_EQ(zqlab::run("pgrep cwmp"), std::to_string(zqlab::pids("cwmpClient").at(0)) + "\n") << "pattern";
    EXPECT_EQ(zqlab::run("pgrep -x cwmp"), "");
    EXPECT_EQ(zqlab::run_status("pgrep nosuchdaemon"), 1);
}

// Three servers killed at once are gone from the very next process list,
// however long the kernel takes to run them to their end.
TEST(Daemons, KilledProcessesAreGoneFromTheNextProcessList) {
    zqlab::set("udhcpd.count", "3");
    ASSERT_EQ(zqlab::pids("udhcpd").size(), 3u);
    EXPECT_EQ(count_of(zqlab::run("pgrep udhcpd | xargs kill -s KILL; ps"), "/bin/udhcpd"), 0);
}

// --- diagnosis manager --------------------------------------------------------

TEST(DiagManager, RunningKeyControlsProcessAndPidFile) {
    int pid = std::atoi(manager_pid_text().c_str());
    zqlab::set("diagm.running", "no");
    EXPECT_FALSE(zqlab::file_exists("/var/run/diagM.pid"));
    EXPECT_FALSE(zqlab::file_exists("/proc/" + std::to_string(pid)));
    EXPECT_EQ(zqlab::sigusr2_count(), -1);
    EXPECT_EQ(zqlab::run("diagM get pon_info pon_mode"), "GPON\n") << "the command line still answers";

    zqlab::set("diagm.running", "yes");
    int again = std::atoi(manager_pid_text().c_str());
    EXPECT_EQ(kill(again, 0), 0);
    // A manager that died leaves its stale pid file behind.
    zqlab::stop("diagM");
    EXPECT_EQ(manager_pid_text(), std::to_string(again) + "\n");
    EXPECT_EQ(zqlab::sigusr2_count(), -1);
}

// --- journal ----------------------------------------------------------------

TEST(Journal, RecordsToolCallsInOrderButNotLabControl) {
    zqlab::set("pon.state", "NO_LINKED");
    zqlab::start("eponoamd");
    (void)zqlab::sigusr2_count();
    EXPECT_TRUE(zqlab::journal().empty()) << "lab control is not journaled";

    zqlab::run("diagM get pon_info pon_state; flash get PON_DETECT; pgrep boa; "
               "timeout -t 5 diagM get diag_state; ebtables -L dhcps_disable | grep x; "
               "/bin/udhcpd -S /var/udhcpd/udhcpd.conf");
    std::vector<std::string> expected = {
        "diagM get pon_info pon_state",      "flash get PON_DETECT", "pgrep boa",
        "timeout -t 5 diagM get diag_state", "diagM get diag_state", "ebtables -L dhcps_disable",
        "udhcpd -S /var/udhcpd/udhcpd.conf"};
    EXPECT_EQ(zqlab::journal(), expected);
    EXPECT_EQ(zqlab::journal("diagM"),
              (std::vector<std::string>{"diagM get pon_info pon_state", "diagM get diag_state"}));
    zqlab::clear_journal();
    EXPECT_TRUE(zqlab::journal().empty());
}
