// The diagnosis permit (a system-wide try-lock on a named semaphore), the
// alarm word kept by another gateway process, and the diagnosis manager's
// notification.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {

constexpr const char *ALARM_KEY_PATH = "/tmp";
constexpr int ALARM_KEY_ID = 955000;
constexpr size_t PID_READ_SIZE = 32;

// Per-process caches. Racing writers store the same values.
std::atomic<uint32_t *> alarm_address{nullptr};
std::atomic<uint32_t> alarm_value{0};
std::atomic<int> diag_manager_pid{0};
// Whether this process took the permit and has not given it back. The
// semaphore has no owner: a permit taken here may meanwhile have been
// freed by another process and taken by a third, which no look at the
// semaphore can tell. This flag is what the library's own release points
// go by, so that none of them frees a permit it never took.
std::atomic<bool> taken_here{false};

sem_t *open_permit() {
    sem_t *sem = sem_open(ZQ_PERMIT_NAME, O_CREAT, 0644, 1);
    return sem == SEM_FAILED ? nullptr : sem;
}

// True unless `pid` names no process at all (a process of another user
// still counts: it exists).
bool process_exists(int pid) { return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH); }

} // namespace

} // namespace zq

int get_diag_permit() {
    if (diag_manager_pid.load(std::memory_order_relaxed) == 0)
        diag_manager_pid.store(read_diag_manager_pid(), std::memory_order_relaxed);
    if (diag_manager_pid.load(std::memory_order_relaxed) == 0) return -1;
    if (check_diag_alarm_value(ALARM_HIGH_CPU)) {
        ZQ_LOG("system busy [high cpu usage]");
        return -1;
    }
    if (check_diag_alarm_value(ALARM_HIGH_MEMORY)) ZQ_LOG("system busy [high memory usage], disable tcpdump");
    sem_t *sem = open_permit();
    if (!sem) {
        ZQ_LOG("open sem fail");
        return -1;
    }
    if (sem_trywait(sem) != 0) return -1;
    taken_here.store(true, std::memory_order_release);
    notify_diag_manager();
    return 0;
}

int is_diag_permit_holding() {
    sem_t *sem = open_permit();
    if (!sem) {
        ZQ_LOG("open sem fail");
        return 0;
    }
    int value = -1;
    return sem_getvalue(sem, &value) == 0 && value == 0 ? 1 : 0;
}

namespace zq {

int release_permit() {
    sem_t *sem = open_permit();
    if (!sem) {
        ZQ_LOG("open sem fail");
        return 0;
    }
    return sem_post(sem);
}

} // namespace zq

// Posting only a taken permit keeps the semaphore at most 1. Any caller
// may free the permit this way (a holder that died leaves it taken until
// someone does); once it is free, this process no longer holds it.
int release_diag_permit() {
    if (!is_diag_permit_holding()) return 0;
    taken_here.store(false, std::memory_order_release);
    return release_permit();
}

namespace zq {

int release_own_permit(const char *who) {
    if (!taken_here.exchange(false, std::memory_order_acq_rel)) {
        ZQ_LOG_AS(who, "the permit was not taken here or was given back already: left as it is");
        return 0;
    }
    return is_diag_permit_holding() ? release_permit() : 0;
}

void *get_shm_space() {
    key_t key = ftok(ALARM_KEY_PATH, ALARM_KEY_ID);
    if (key == -1) {
        ZQ_LOG("get ftok fail");
        return nullptr;
    }
    int id = shmget(key, sizeof(uint32_t), IPC_CREAT);
    if (id == -1) {
        ZQ_LOG("shm open fail");
        return nullptr;
    }
    void *addr = shmat(id, nullptr, 0);
    return addr == reinterpret_cast<void *>(-1) ? nullptr : addr; // NOLINT(performance-no-int-to-ptr)
}

} // namespace zq

uint32_t get_diag_alarm_value() {
    uint32_t *addr = alarm_address.load(std::memory_order_relaxed);
    if (!addr) {
        addr = static_cast<uint32_t *>(get_shm_space());
        alarm_address.store(addr, std::memory_order_relaxed);
    }
    if (addr) alarm_value.store(__atomic_load_n(addr, __ATOMIC_RELAXED), std::memory_order_relaxed);
    return alarm_value.load(std::memory_order_relaxed);
}

int check_diag_alarm_value(uint32_t mask) { return (get_diag_alarm_value() & mask) != 0 ? 1 : 0; }

int is_diag_avaliable() {
    if (is_diag_permit_holding() || check_diag_alarm_value(ALARM_HIGH_MEMORY) ||
        check_diag_alarm_value(ALARM_HIGH_CPU))
        return 0;
    return 1;
}

namespace zq {

// The pid file holds the manager's pid as decimal text. At most 32 bytes are
// read into a buffer one byte larger, so a long file still parses as a
// terminated text. Only 0 (no file, no number) means no manager; a negative
// number is passed on as read, and is never signalled (only pids above 0
// are, so kill() never reaches a process group).
int read_diag_manager_pid() {
    FILE *file = fopen(ZQ_DIAGM_PID_PATH, "r");
    if (!file) return 0;
    char text[PID_READ_SIZE + 1] = {};
    size_t n = fread(text, 1, PID_READ_SIZE, file);
    fclose(file);
    return zq::read_number(__func__, ZQ_DIAGM_PID_PATH, std::string_view{text, n});
}

// The manager is signalled at the pid it wrote. When no process has that pid
// any more (the manager restarted, or died and left its pid file), the pid
// file is read again, so a restarted manager is found under its new pid; a
// pid that names no process is not signalled. A pid file left behind whose
// number the system has handed to another process cannot be told from the
// manager: that process is signalled, as the pid file says.
void notify_diag_manager() {
    int pid = diag_manager_pid.load(std::memory_order_relaxed);
    if (pid <= 0) return;
    if (!process_exists(pid)) {
        pid = read_diag_manager_pid();
        diag_manager_pid.store(pid, std::memory_order_relaxed);
        if (!process_exists(pid)) {
            if (pid > 0) ZQ_LOG("pid %d of %s names no process: not signalled", pid, ZQ_DIAGM_PID_PATH);
            return;
        }
    }
    kill(pid, SIGUSR2);
}

namespace {
bool answer_contains(const char *cmd, const char *needle) {
    return zq::contains(zq_get_cmd_result(cmd), needle);
}
} // namespace

} // namespace zq

int is_self_diagnose_enable() { return answer_contains("diagM get diag_state", "enable") ? 1 : 0; }

int is_iperf_test_enable() { return answer_contains("diagM get iperf_test_enable", "enable") ? 1 : 0; }

int is_ap_detect_available() {
    const char *answer = zq_get_cmd_result("diagM get available_wlan");
    return (zq::contains(answer, "2.4G") ? 1 : 0) | (zq::contains(answer, "5G") ? 2 : 0);
}
