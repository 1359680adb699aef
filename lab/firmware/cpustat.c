/* The CPU load the gateway reads from /proc/stat.
 *
 *   zqlab-cpustat serve USAGE   /proc/stat reports a load of USAGE percent
 *                               (0 to 100), whoever reads it and how often
 *   zqlab-cpustat unreadable    /proc/stat cannot be opened at all
 *   zqlab-cpustat off           /proc/stat is the kernel's file again
 *
 * The lab has its own mount namespace, so a file bound over /proc/stat is
 * seen by every process of the lab and by nothing outside it.
 *
 * serve: a file is bound over /proc/stat, and a small server process (named
 * zqlab-cpustat) rewrites it each time a reader has closed it (inotify), so
 * the next reading sees a later sample. Sample k (k = 1, 2,
 * ...) counts k * BUSY ticks of user time and k * IDLE ticks of idle time,
 * nothing else. Any two different samples, read in this order, differ by
 * n * (BUSY + IDLE) ticks in all and n * IDLE idle ticks for some n >= 1,
 * so the load computed from them,
 *     100 - idle difference / total difference * 100,
 * is the same whatever n is: readings by other processes in between change
 * nothing. With BUSY + IDLE = 200 and IDLE = 199 - 2 * USAGE that load is
 * USAGE + 0.5 (100 exactly for USAGE 100, IDLE 0), far enough from both
 * neighbouring integers that truncating it gives USAGE in spite of rounding.
 * The server answers a close within microseconds; the library's two
 * readings are 300 ms apart. A reader never blocks, even if the server is
 * gone (it then sees the last sample again).
 *
 * unreadable: a UNIX socket is bound over /proc/stat; opening a socket file
 * fails with ENXIO, even for root. */
#include "common.h"

#include <errno.h>
#include <stdint.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#define PROC_STAT "/proc/stat"
#define SAMPLE_FILE ZQLAB_DIR "/cpustat"
#define SOCKET ZQLAB_DIR "/cpustat.sock"
#define PID_FILE ZQLAB_DIR "/cpustat.pid"
#define TICKS_PER_SAMPLE 200u

static int fail(const char *what) {
    fprintf(stderr, "zqlab-cpustat: %s: %s\n", what, strerror(errno));
    return 1;
}

/* True while something is mounted on /proc/stat. */
static int proc_stat_mounted(void) {
    FILE *f = fopen("/proc/self/mountinfo", "r");
    if (!f) return 0;
    char line[1024];
    int found = 0;
    while (!found && fgets(line, sizeof line, f)) {
        /* "ID PARENT MAJ:MIN ROOT MOUNTPOINT ..." */
        char point[512];
        if (sscanf(line, "%*s %*s %*s %*s %511s", point) == 1 && strcmp(point, PROC_STAT) == 0) found = 1;
    }
    fclose(f);
    return found;
}

static void stop_server(void) {
    char text[32];
    zq_read_small(PID_FILE, text, sizeof text);
    unlink(PID_FILE);
    pid_t pid = (pid_t)atoi(text);
    if (pid <= 1 || kill(pid, SIGKILL) != 0) return;
    /* The lab's init reaps it; wait until it is gone (a second at most). */
    char path[64], stat[256];
    snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
    for (int i = 0; i < 1000; i++) {
        zq_read_small(path, stat, sizeof stat);
        char *paren = strrchr(stat, ')');
        if (!paren || (paren[1] == ' ' && paren[2] == 'Z')) break;
        usleep(1000);
    }
}

static int off(void) {
    for (int i = 0; i < 16 && proc_stat_mounted(); i++)
        if (umount2(PROC_STAT, MNT_DETACH) != 0) return fail("cannot unmount " PROC_STAT);
    stop_server();
    unlink(SAMPLE_FILE);
    unlink(SOCKET);
    return 0;
}

static int bind_over_proc_stat(const char *source) {
    if (mount(source, PROC_STAT, NULL, MS_BIND, NULL) != 0) return fail("cannot bind over " PROC_STAT);
    return 0;
}

/* One sample, always of the same length, so that a rewrite replaces it
 * whole. */
static int format_sample(char *buf, size_t size, uint32_t k, uint32_t busy, uint32_t idle) {
    return snprintf(buf, size, "cpu  %10u 0 0 %10u 0 0 0 0 0 0\ncpu0 %10u 0 0 %10u 0 0 0 0 0 0\n", k * busy,
                    k * idle, k * busy, k * idle);
}

static void serve_samples(int fd, int watch, uint32_t busy, uint32_t idle) {
    char events[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
    for (uint32_t k = 1;;) {
        /* One rewrite per batch of closes: later samples only matter. */
        ssize_t n = read(watch, events, sizeof events);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) _exit(1);
        k++;
        char sample[160];
        int len = format_sample(sample, sizeof sample, k, busy, idle);
        ssize_t w = pwrite(fd, sample, (size_t)len, 0);
        (void)w;
    }
}

static int serve(const char *arg, int argc, char **argv) {
    char *end;
    unsigned long usage = strtoul(arg, &end, 10);
    if (*arg < '0' || *arg > '9' || *end != '\0' || usage > 100) {
        fprintf(stderr, "zqlab-cpustat: not a CPU usage from 0 to 100: '%s'\n", arg);
        return 2;
    }
    if (off() != 0) return 1;
    const uint32_t idle = usage == 100 ? 0 : 199 - 2 * (uint32_t)usage;
    const uint32_t busy = TICKS_PER_SAMPLE - idle;
    char sample[160];
    int len = format_sample(sample, sizeof sample, 1, busy, idle);
    int fd = open(SAMPLE_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0444);
    if (fd < 0) return fail("cannot create " SAMPLE_FILE);
    if (write(fd, sample, (size_t)len) != len) return fail("cannot write " SAMPLE_FILE);
    int watch = inotify_init1(IN_CLOEXEC);
    if (watch < 0 || inotify_add_watch(watch, SAMPLE_FILE, IN_CLOSE_NOWRITE) < 0) return fail("inotify");
    if (bind_over_proc_stat(SAMPLE_FILE) != 0) return 1;

    pid_t pid = fork();
    if (pid < 0) return fail("fork");
    if (pid > 0) {
        char text[32];
        snprintf(text, sizeof text, "%d\n", (int)pid);
        int pf = open(PID_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (pf < 0 || write(pf, text, strlen(text)) != (ssize_t)strlen(text))
            return fail("cannot write " PID_FILE);
        close(pf);
        return 0;
    }
    /* The server keeps nothing of its caller's: no standard streams (a
     * caller reading them would never see their end), no other file. */
    setsid();
    prctl(PR_SET_NAME, "zqlab-cpustat");
    size_t args = zq_args_len(argc, argv);
    memset(argv[0], 0, args);
    snprintf(argv[0], args + 1, "zqlab-cpustat");
    zq_null_stdio();
    for (int other = 3; other < 1024; other++)
        if (other != fd && other != watch) close(other);
    serve_samples(fd, watch, busy, idle);
    return 0;
}

static int unreadable(void) {
    if (off() != 0) return 1;
    int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) return fail("socket");
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", SOCKET);
    int rc = bind(s, (struct sockaddr *)&addr, sizeof addr);
    close(s);
    if (rc != 0) return fail("cannot create " SOCKET);
    return bind_over_proc_stat(SOCKET);
}

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "serve") == 0) return serve(argv[2], argc, argv);
    if (argc == 2 && strcmp(argv[1], "unreadable") == 0) return unreadable();
    if (argc == 2 && strcmp(argv[1], "off") == 0) return off();
    fprintf(stderr, "usage: zqlab-cpustat serve USAGE | unreadable | off\n");
    return 2;
}
