// Two management processes of eight threads each race the entry points that
// take and give back the diagnosis permit: diagnose_set (its worker takes the
// permit for a short diagnosis), capture_set (a capture holds the permit from
// its start to its stop) and get_diag_permit with its release. Whatever the
// interleaving, the permit never has two holders and never counts above one.
//
// Every holder the test can see (a thread holding the permit it took, a
// capture of either process) counts itself in a counter both processes
// share, while it holds. A release by someone who does not hold the permit
// (a second stop of one capture, a worker giving back a permit it never
// took) lets a second holder in, and the counter shows two.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <semaphore.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace {

constexpr int PROCESSES = 2;
constexpr int THREADS = 8;
// Calls of the entry points in all, both processes together. ZQ_RACE_CALLS
// sets another count for a run that finds this too slow (the whole race
// takes about 3 s natively and under qemu-user alike).
constexpr long DEFAULT_CALLS = 10000;
// Rounds of one capture cycle: captures are asked to start in its first
// rounds and to stop in all the others. A capture start and stop costs most
// of a second (tcpdump starts and is packed), so cycles are few.
constexpr int CAPTURE_PERIOD = 125, CAPTURE_START_ROUNDS = 8;
constexpr uint32_t CAPTURE_STOP = 0, CAPTURE_START = 1;
// A holder keeps the permit a moment, and each round lasts about as long,
// so that the permit changes hands between threads, workers and captures
// many times instead of one diagnosis holding it for the whole race. Only
// how often each side wins depends on these; the checks do not.
constexpr useconds_t HOLD_US = 1000, ROUND_US = 1000;
constexpr uint32_t DIAGNOSIS_MODE_PORTS = 1; // the shortest diagnosis: port_status alone

// Lives in memory both processes share; lock-free atomics work across them.
struct Shared {
    std::atomic<int> holders;
    std::atomic<int> most_holders;
    std::atomic<int> most_permit_value;
    std::atomic<long> permits_taken;
    std::atomic<long> captures_started;
};

void raise_to(std::atomic<int> &most, int value) {
    int seen = most.load();
    while (value > seen && !most.compare_exchange_weak(seen, value)) {
    }
}

struct Race {
    Shared &shared;
    sem_t *permit;
    long rounds;
    std::atomic<bool> capture_counted{false};

    void enter() { raise_to(shared.most_holders, shared.holders.fetch_add(1) + 1); }
    void leave() { shared.holders.fetch_sub(1); }

    void check_permit_value() {
        int value = 0;
        if (sem_getvalue(permit, &value) == 0) raise_to(shared.most_permit_value, value);
    }

    void take_permit() {
        if (get_diag_permit() != 0) return;
        enter();
        shared.permits_taken.fetch_add(1);
        usleep(HOLD_US); // hold it while the others try
        leave();
        release_diag_permit();
    }

    // Only one call of a start round finds the permit free and the block idle;
    // the capture it starts is counted once, by the first thread that sees
    // it running.
    void capture(bool starting) {
        const int rc = capture_set();
        if (!starting || rc != 0) return;
        if (__atomic_load_n(&g_cap_exec.state, __ATOMIC_ACQUIRE) != EXEC_RUNNING) return;
        if (capture_counted.exchange(true)) return;
        enter();
        shared.captures_started.fetch_add(1);
    }

    // Runs between two rounds, on one thread, while no other calls: the
    // block's action changes only here. A capture stops being counted before
    // the stop rounds ask for its stop, so the count never lags a release.
    void next_round(long round) {
        if (round % CAPTURE_PERIOD == CAPTURE_START_ROUNDS) {
            if (capture_counted.exchange(false)) leave();
            g_cap_exec.action = CAPTURE_STOP;
        } else if (round % CAPTURE_PERIOD == 0) {
            g_cap_exec.action = CAPTURE_START;
        }
    }

    void run() {
        g_diag_exec = {};
        g_diag_exec.mode = DIAGNOSIS_MODE_PORTS;
        g_cap_exec = {};
        g_cap_exec.action = CAPTURE_START;
        long round = 0;
        auto between = [this, &round]() noexcept { next_round(++round); };
        std::barrier sync(THREADS, between);
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t) {
            threads.emplace_back([this, t, &sync] {
                for (long r = 0; r < rounds; ++r) {
                    switch ((t + r) % 3) {
                    case 0:
                        take_permit();
                        break;
                    case 1:
                        diagnose_set();
                        break;
                    default:
                        capture(r % CAPTURE_PERIOD < CAPTURE_START_ROUNDS);
                        break;
                    }
                    check_permit_value();
                    usleep(ROUND_US);
                    sync.arrive_and_wait();
                }
            });
        }
        for (std::thread &thread : threads) thread.join();
        finish();
    }

    // Stops a capture still running and lets a diagnosis still running end.
    void finish() {
        if (capture_counted.exchange(false)) leave();
        g_cap_exec.action = CAPTURE_STOP;
        capture_set();
        for (int i = 0; i < 60000 && __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE) != 0; ++i)
            usleep(1000);
        check_permit_value();
    }
};

long calls_in_all() {
    const char *text = getenv("ZQ_RACE_CALLS");
    const long calls = text ? strtol(text, nullptr, 10) : DEFAULT_CALLS;
    return calls > 0 ? calls : DEFAULT_CALLS;
}

// The library logs every refusal on standard output; thousands of "busy"
// lines would bury the test's own output.
class QuietStdout {
  public:
    QuietStdout() : saved_(dup(STDOUT_FILENO)) {
        fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStdout() {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    QuietStdout(const QuietStdout &) = delete;
    QuietStdout &operator=(const QuietStdout &) = delete;

  private:
    int saved_;
};

TEST(Races, PermitNeverHasTwoHolders) {
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto *shared = new (memory) Shared{};
    sem_t *permit = sem_open("diag_permit", O_CREAT, 0644, 1);
    ASSERT_NE(permit, SEM_FAILED);
    const long rounds = calls_in_all() / (PROCESSES * THREADS);
    zqlab::clear_journal();

    {
        QuietStdout quiet;
        fflush(nullptr);
        const pid_t child = fork();
        ASSERT_NE(child, -1);
        Race race{*shared, permit, rounds};
        race.run();
        if (child == 0) _exit(0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    EXPECT_LE(shared->most_holders.load(), 1) << "two holders of the permit at once";
    EXPECT_EQ(shared->holders.load(), 0);
    EXPECT_LE(shared->most_permit_value.load(), 1) << "the permit was given back more often than taken";
    int value = -1;
    EXPECT_EQ(sem_getvalue(permit, &value), 0);
    EXPECT_EQ(value, 1) << "the permit is free at the end";
    EXPECT_EQ(is_diag_permit_holding(), 0);
    EXPECT_TRUE(zqlab::pids("tcpdump").empty());

    long diagnoses = 0;
    for (const std::string &line : zqlab::journal("diagM"))
        diagnoses += line == "diagM get port_info port_num" ? 1 : 0;
    // What the race did; how often each entry point won depends on the
    // scheduling, so it is shown, not asserted.
    printf("calls %ld: permits taken %ld, captures %ld, diagnoses %ld\n", rounds * PROCESSES * THREADS,
           shared->permits_taken.load(), shared->captures_started.load(), diagnoses);
    sem_close(permit);
    munmap(memory, sizeof(Shared));
}

} // namespace
