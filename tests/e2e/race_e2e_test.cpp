// Two processes of eight threads race the entry points that take and give back the permit: diagnose_set,
// capture_set (start to stop) and get_diag_permit with its release. Each holder the test sees counts itself
// in a counter both share: a release by one who does not hold the permit lets a second holder in.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "lab/zqlab.hpp"
#include "tests/e2e/e2e_support.hpp"
#include "zq_diag.h"

namespace {

constexpr int PROCESSES = 2, THREADS = 8;
constexpr long ROUNDS = 10000 / (PROCESSES * THREADS); // 10000 calls in all: about 3 s
// Captures start in the first rounds of each cycle and stop in the others (a capture costs most of a
// second); holders keep the permit about a round, so that it changes hands many times.
constexpr int CAPTURE_PERIOD = 125, CAPTURE_START_ROUNDS = 8;
constexpr useconds_t HOLD_US = 1000, ROUND_US = 1000;

// Lives in memory both processes share; lock-free atomics work across them.
struct Shared {
    std::atomic<int> holders, most_holders, most_permit_value;
};

void raise_to(std::atomic<int> &most, int value) {
    int seen = most.load();
    while (value > seen && !most.compare_exchange_weak(seen, value)) continue;
}

struct Race {
    Shared &shared;
    sem_t *permit;
    std::atomic<bool> capture_counted{false};

    void enter() { raise_to(shared.most_holders, shared.holders.fetch_add(1) + 1); }
    void leave() { shared.holders.fetch_sub(1); }
    void check_permit_value() {
        int value = 0;
        if (sem_getvalue(permit, &value) == 0) raise_to(shared.most_permit_value, value);
    }

    // The capture a start round began is counted once, by the first thread that sees it running.
    void call(long kind, long round) {
        if (kind == 0 && get_diag_permit() == 0) {
            enter();
            usleep(HOLD_US); // hold it while the others try
            leave();
            release_diag_permit();
        } else if (kind == 1) {
            diagnose_set();
        } else if (kind == 2 && capture_set() == 0 && round % CAPTURE_PERIOD < CAPTURE_START_ROUNDS &&
                   __atomic_load_n(&g_cap_exec.state, __ATOMIC_ACQUIRE) == EXEC_RUNNING &&
                   !capture_counted.exchange(true)) {
            enter();
        }
    }

    // Between two rounds, while no thread calls: a capture stops being counted before its stop is asked.
    void next_round(long round) {
        if (round % CAPTURE_PERIOD == CAPTURE_START_ROUNDS && capture_counted.exchange(false)) leave();
        g_cap_exec.action = round % CAPTURE_PERIOD < CAPTURE_START_ROUNDS ? 1 : 0; // start or stop
    }

    void run() {
        g_diag_exec = {};
        g_diag_exec.mode = 1; // the shortest diagnosis: port_status alone
        g_cap_exec = {};
        g_cap_exec.action = 1;
        long round = 0;
        std::barrier sync(THREADS, [this, &round]() noexcept { next_round(++round); });
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t)
            threads.emplace_back([this, t, &sync] {
                for (long r = 0; r < ROUNDS; ++r) {
                    call((t + r) % 3, r);
                    check_permit_value();
                    usleep(ROUND_US);
                    sync.arrive_and_wait();
                }
            });
        for (std::thread &thread : threads) thread.join();
        // A capture still running is stopped, a diagnosis still running ends.
        if (capture_counted.exchange(false)) leave();
        g_cap_exec.action = 0;
        capture_set();
        e2e::wait_until([] { return __atomic_load_n(&g_diag_exec.worker, __ATOMIC_ACQUIRE) == 0; });
        check_permit_value();
    }
};

TEST(Races, PermitNeverHasTwoHolders) {
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto *shared = new (memory) Shared{};
    sem_t *permit = sem_open("diag_permit", O_CREAT, 0644, 1);
    ASSERT_NE(permit, SEM_FAILED);

    testing::internal::CaptureStdout(); // the library logs every refusal: thousands of "busy" lines
    const pid_t child = fork();
    Race{*shared, permit}.run();
    if (child == 0) _exit(0);
    int status = 0;
    const bool child_passed =
        child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(child_passed) << child << " " << status;

    EXPECT_LE(shared->most_holders.load(), 1) << "two holders of the permit at once";
    EXPECT_LE(shared->most_permit_value.load(), 1) << "the permit was given back more often than taken";
    EXPECT_EQ(is_diag_permit_holding(), 0) << "the permit is free at the end";
    EXPECT_TRUE(zqlab::pids("tcpdump").empty());
    sem_close(permit);
    munmap(memory, sizeof(Shared));
}

} // namespace
