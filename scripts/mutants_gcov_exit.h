/* Forced into every source of scripts/mutants' coverage build: a process
 * that leaves through _exit (a forked child of a test, a death test) writes
 * its coverage counters first, so that the lines only such a child runs
 * are counted for the test that forked it. */
#pragma once
#include <stdlib.h>
#include <unistd.h>
#ifdef __cplusplus
extern "C" void __gcov_dump(void);
#else
void __gcov_dump(void);
#endif
#define _exit(status) (__gcov_dump(), _exit(status))
