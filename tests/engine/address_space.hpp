// A forked child's address space capped at 2 MiB above what it maps now, so that its next large allocation
// (a thread's stack, a scratch buffer) fails. False where the cap is not applied (qemu-user takes it but not
// for the guest); the child _exits 12 or 13 when it cannot set it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <unistd.h>

inline bool cap_address_space() {
    long pages = 0;
    FILE *statm = fopen("/proc/self/statm", "r");
    if (!statm || fscanf(statm, "%ld", &pages) != 1) _exit(12);
    fclose(statm);
    const rlim_t cap = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (2u << 20);
    const rlimit limit{cap, cap};
    if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(13);
    void *beyond = malloc(static_cast<size_t>(cap));
    const bool applied = beyond == nullptr;
    free(beyond);
    return applied;
}
