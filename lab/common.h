/* Shared bits of the lab's small host programs: paths and the journal. */
#ifndef ZQLAB_COMMON_H
#define ZQLAB_COMMON_H

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#define ZQLAB_DIR "/run/zqlab"
#define ZQLAB_STATE ZQLAB_DIR "/state"
#define ZQLAB_JOURNAL ZQLAB_DIR "/journal"

static inline const char *zq_basename(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

/* One journal line: "<uptime> <tool> <args...>\n", written with a single
 * append so that lines of concurrent tools never interleave. */
static inline void zq_journal(const char *tool, int argc, char **argv) {
    if (getenv("ZQLAB_NOJOURNAL")) return;
    char line[4096];
    char up[64] = "0.00";
    int fd = open("/proc/uptime", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = read(fd, up, sizeof up - 1);
        close(fd);
        up[n > 0 ? n : 0] = '\0';
        up[strcspn(up, " \n")] = '\0';
    }
    size_t len = (size_t)snprintf(line, sizeof line, "%s %s", up, tool);
    for (int i = 0; i < argc && len < sizeof line - 2; i++)
        len += (size_t)snprintf(line + len, sizeof line - len, " %s", argv[i]);
    if (len > sizeof line - 2) len = sizeof line - 2;
    line[len++] = '\n';
    fd = open(ZQLAB_JOURNAL, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t w = write(fd, line, len);
    (void)w;
    close(fd);
}

/* The whole content of a small file, NUL-terminated, or an empty string. */
static inline void zq_read_small(const char *path, char *buf, size_t size) {
    buf[0] = '\0';
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t n = read(fd, buf, size - 1);
    close(fd);
    buf[n > 0 ? n : 0] = '\0';
}

/* The bytes of the command line (argv[0] up to the end of the last
 * argument). */
static inline size_t zq_args_len(int argc, char **argv) {
    if (argc <= 0) return 0;
    return (size_t)(argv[argc - 1] + strlen(argv[argc - 1]) - argv[0]);
}

/* Makes a process unrecognisable as the daemon it was started as: its name
 * and command line no longer match, so pgrep and ps never see it beside (or
 * instead of) the real daemon. */
static inline void zq_disguise(int argc, char **argv) {
    prctl(PR_SET_NAME, "zqlab-leaving");
    size_t len = zq_args_len(argc, argv);
    if (len > 0) {
        memset(argv[0], 0, len);
        snprintf(argv[0], len + 1, "zqlab-leaving");
    }
}

/* Standard input, output and error on /dev/null: a background process
 * keeps none of its starter's streams open. */
static inline void zq_null_stdio(void) {
    int null = open("/dev/null", O_RDWR);
    if (null < 0) return;
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    if (null > 2) close(null);
}

/* Detaches the calling daemon. The process that returns from here is the
 * background one, in a new session, named `name`, with its original command
 * line, standard streams on /dev/null, no other descriptor and default
 * signal handling (but for the signals in `keep_blocked`, left blocked); the
 * foreground process exits 0 once the background one is set up. The
 * foreground process gives up the name and command line before it forks, so
 * at no moment do two processes carry them. */
static inline void zq_daemonize(int argc, char **argv, const char *name, const sigset_t *keep_blocked) {
    char saved[4096];
    size_t len = zq_args_len(argc, argv);
    if (len > sizeof saved) len = 0; /* too long to restore: keep it */
    memcpy(saved, argv[0], len);
    int ready[2];
    if (pipe(ready) != 0) exit(1);
    if (len) zq_disguise(argc, argv);
    pid_t pid = fork();
    if (pid < 0) exit(1);
    if (pid > 0) {
        if (!len) zq_disguise(argc, argv);
        close(ready[1]);
        char c;
        while (read(ready[0], &c, 1) > 0) {
        }
        exit(0);
    }
    memcpy(argv[0], saved, len);
    prctl(PR_SET_NAME, name);
    setsid();
    if (chdir("/") != 0) {
    }
    zq_null_stdio();
    for (int s = 1; s < 32; s++)
        if (s != SIGKILL && s != SIGSTOP) signal(s, SIG_DFL);
    sigprocmask(SIG_SETMASK, keep_blocked, NULL);
    /* Closing the other descriptors also closes our end of `ready`, which
     * releases the foreground process; the caller finishes its set-up
     * first when it needs to (it may keep descriptors open until then). */
    (void)ready;
}

/* The last step of start-up: close everything but the standard streams. */
static inline void zq_ready(void) {
    for (int fd = 3; fd < 1024; fd++) close(fd);
}

#endif
