/* The diagnosis manager process: the process whose id stands in
 * /var/run/diagM.pid. It counts the SIGUSR2 signals the library sends it.
 *
 *   zqlab-diagmd        start it (returns once the pid file is written)
 *
 * The count is kept in /run/zqlab/diagm/sigusr2. A reader that must see
 * every signal sent so far writes a token into /run/zqlab/diagm/query and
 * sends signal ZQ_QUERY_SIG (a real-time signal, so the kernel delivers any
 * pending SIGUSR2 before it); the manager answers "COUNT TOKEN" in
 * /run/zqlab/diagm/reply. Signals that arrive while one is still pending are
 * merged by the kernel and count once. */
#include "common.h"

#include <errno.h>

#define ZQ_QUERY_SIG 40
#define DIAGM_DIR ZQLAB_DIR "/diagm"
#define PID_FILE "/var/run/diagM.pid"

static void write_atomic(const char *path, const char *text) {
    char tmp[128];
    snprintf(tmp, sizeof tmp, "%s.tmp", path);
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t w = write(fd, text, strlen(text));
    (void)w;
    close(fd);
    rename(tmp, path);
}

int main(int argc, char **argv) {
    /* Show up in ps as "diagM", like the gateway's own manager. */
    if (strcmp(argv[0], "diagM") != 0) {
        char *self[] = {"diagM", NULL};
        execv("/proc/self/exe", self);
    }
    zq_journal("diagM-manager", 0, argv + 1);

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    sigaddset(&set, ZQ_QUERY_SIG);
    sigprocmask(SIG_BLOCK, &set, NULL);

    zq_daemonize(argc, argv, "diagM", &set);
    unsigned long count = 0;
    char text[128];
    write_atomic(DIAGM_DIR "/sigusr2", "0\n");
    snprintf(text, sizeof text, "%d\n", (int)getpid());
    write_atomic(PID_FILE, text);
    zq_ready();

    for (;;) {
        siginfo_t info;
        int sig = sigwaitinfo(&set, &info);
        if (sig < 0) {
            if (errno == EINTR) continue;
            return 1;
        }
        if (sig == SIGUSR2) {
            count++;
            snprintf(text, sizeof text, "%lu\n", count);
            write_atomic(DIAGM_DIR "/sigusr2", text);
        } else {
            char token[64];
            zq_read_small(DIAGM_DIR "/query", token, sizeof token);
            token[strcspn(token, "\n")] = '\0';
            snprintf(text, sizeof text, "%lu %s\n", count, token);
            write_atomic(DIAGM_DIR "/reply", text);
        }
    }
}
