/* PID 1 of a lab.
 *
 *   zqlab-init LAB_DIR CACHE_DIR SCENARIO -- COMMAND [ARGS...]
 *
 * Builds the simulated gateway in the fresh namespaces that unshare made:
 * private tmpfs on /run, /tmp and /dev/shm; overlays with a tmpfs upper
 * layer on /etc, /var and /usr/bin (the last with the lab's prepared layer
 * from CACHE_DIR above the host's); loopback up. Then it lets
 * "zqlab scenario SCENARIO" set the gateway's state, starts COMMAND, and
 * re-executes itself as a bare "init" that reaps every orphan of the lab and
 * exits with COMMAND's status as soon as COMMAND ends. Leaving PID 1 tears
 * the whole lab down: the kernel kills the remaining processes, and the
 * namespaces go away with their mounts. The death of the parent (unshare,
 * killed by a test driver) kills the lab too. */
#define _GNU_SOURCE /* O_PATH */
#include "common.h"

#include <errno.h>
#include <limits.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

static volatile pid_t child_pid;
static volatile sig_atomic_t pending_sig;

/* Termination signals go to the command; one that comes before the command
 * runs is kept for it. */
static void forward(int sig) {
    if (child_pid > 0)
        kill(child_pid, sig);
    else
        pending_sig = sig;
}

static const int forwarded[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

static void install_forwarders(void) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = forward;
    sigemptyset(&sa.sa_mask);
    for (size_t i = 0; i < sizeof forwarded / sizeof forwarded[0]; i++) sigaction(forwarded[i], &sa, NULL);
}

static void block_forwarded(int how) {
    sigset_t set;
    sigemptyset(&set);
    for (size_t i = 0; i < sizeof forwarded / sizeof forwarded[0]; i++) sigaddset(&set, forwarded[i]);
    sigprocmask(how, &set, NULL);
}

static int status_code(int st) {
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
    return 1;
}

/* Reap everything; return the status of `target` once it ends. */
static int reap_until(pid_t target) {
    for (;;) {
        int st;
        pid_t w = wait(&st);
        if (w < 0) {
            if (errno == EINTR) continue;
            return 1; /* no children left at all */
        }
        if (w == target) return status_code(st);
    }
}

static void reset_child_signals(void) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    for (int s = 1; s < 32; s++)
        if (s != SIGKILL && s != SIGSTOP) signal(s, SIG_DFL);
}

static pid_t spawn(char **argv) {
    pid_t pid = fork();
    if (pid == 0) {
        reset_child_signals();
        execvp(argv[0], argv);
        fprintf(stderr, "lab: cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(errno == ENOENT ? 127 : 126);
    }
    return pid;
}

static int fail(const char *what, const char *path) {
    fprintf(stderr, "lab: %s %s: %s\n", what, path, strerror(errno));
    return -1;
}

static int mount_tmpfs(const char *target, const char *opts) {
    if (mount("zqlab", target, "tmpfs", MS_NOSUID | MS_NODEV, opts) != 0)
        return fail("cannot mount a tmpfs on", target);
    return 0;
}

static int mkdirs(const char *path) {
    char buf[512];
    snprintf(buf, sizeof buf, "%s", path);
    for (char *p = buf + 1; *p; p++) {
        if (*p != '/') continue;
        *p = '\0';
        if (mkdir(buf, 0755) != 0 && errno != EEXIST) return fail("cannot create", buf);
        *p = '/';
    }
    if (mkdir(buf, 0755) != 0 && errno != EEXIST) return fail("cannot create", buf);
    return 0;
}

static int overlay(const char *target, const char *extra_lower, const char *name) {
    char up[128], work[128], opts[1024];
    snprintf(up, sizeof up, ZQLAB_DIR "/ovl/%s/u", name);
    snprintf(work, sizeof work, ZQLAB_DIR "/ovl/%s/w", name);
    if (mkdirs(up) || mkdirs(work)) return -1;
    if (extra_lower)
        snprintf(opts, sizeof opts, "lowerdir=%s:%s,upperdir=%s,workdir=%s", extra_lower, target, up, work);
    else
        snprintf(opts, sizeof opts, "lowerdir=%s,upperdir=%s,workdir=%s", target, up, work);
    if (mount("zqlab", target, "overlay", 0, opts) != 0) return fail("cannot mount an overlay on", target);
    return 0;
}

static int write_text(const char *path, const char *text) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return fail("cannot write", path);
    size_t n = strlen(text);
    ssize_t w = write(fd, text, n);
    close(fd);
    return w == (ssize_t)n ? 0 : fail("cannot write", path);
}

static int loopback_up(void) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) return fail("cannot open a socket for", "lo");
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    int rc = ioctl(s, SIOCGIFFLAGS, &ifr);
    if (rc == 0) {
        ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
        rc = ioctl(s, SIOCSIFFLAGS, &ifr);
    }
    close(s);
    return rc == 0 ? 0 : fail("cannot bring up", "lo");
}

/* Host directories under /tmp, /run, /var or /etc that the lab needs (the
 * checkout, the build directory, the working directory, the command's
 * directory) would vanish under the lab's tmpfs, or be copied on write into
 * its overlays: each is opened before the mounts go over it and bound back
 * at the same path afterwards, so that what the lab writes there reaches
 * the host. */
enum { MAX_KEPT = 8 };
static struct {
    char path[512];
    int fd;
} kept[MAX_KEPT];
static int nkept;

static int under_replaced_dir(const char *path) {
    static const char *const replaced[] = {"/tmp/", "/run/", "/var/", "/etc/"};
    for (size_t i = 0; i < sizeof replaced / sizeof *replaced; i++)
        if (!strncmp(path, replaced[i], strlen(replaced[i]))) return 1;
    return 0;
}

static void keep_dir(const char *path) {
    char real[512];
    if (!path || !realpath(path, real) || !under_replaced_dir(real) || nkept == MAX_KEPT) return;
    for (int i = 0; i < nkept; i++)
        if (!strcmp(kept[i].path, real)) return;
    int fd = open(real, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    snprintf(kept[nkept].path, sizeof kept[nkept].path, "%s", real);
    kept[nkept++].fd = fd;
}

static void keep_dir_of(const char *file) {
    char dir[512];
    if (!file || file[0] != '/') return;
    snprintf(dir, sizeof dir, "%s", file);
    char *slash = strrchr(dir, '/');
    if (slash && slash != dir) *slash = '\0';
    keep_dir(dir);
}

static int restore_kept(void) {
    for (int i = 0; i < nkept; i++) {
        char from[64];
        snprintf(from, sizeof from, "/proc/self/fd/%d", kept[i].fd);
        if (mkdirs(kept[i].path)) return -1;
        if (mount(from, kept[i].path, NULL, MS_BIND | MS_REC, NULL) != 0)
            return fail("cannot keep the host directory", kept[i].path);
        close(kept[i].fd);
    }
    return 0;
}

static int build_gateway(const char *lab, const char *cache) {
    if (strpbrk(cache, ",:")) {
        fprintf(stderr, "lab: the lab's path must not contain ',' or ':' (%s)\n", cache);
        return -1;
    }
    /* Nothing of what follows may reach the host's mounts. */
    if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0) return fail("cannot make private", "/");
    if (mount_tmpfs("/run", "mode=0755,size=256m") || mount_tmpfs("/tmp", "mode=1777,size=512m") ||
        mount_tmpfs("/dev/shm", "mode=1777,size=64m"))
        return -1;
    char text[600], bin[600];
    if (mkdirs(ZQLAB_STATE) || mkdirs(ZQLAB_DIR "/diagm") || mkdirs(ZQLAB_DIR "/override")) return -1;
    snprintf(text, sizeof text, "%s\n", lab);
    if (write_text(ZQLAB_DIR "/labdir", text)) return -1;
    snprintf(text, sizeof text, "%s\n", cache);
    if (write_text(ZQLAB_DIR "/cachedir", text)) return -1;
    if (write_text(ZQLAB_JOURNAL, "") || write_text(ZQLAB_DIR "/files", "")) return -1;
    /* /var gets no layer of the cache's: a lower layer inside the overlay's
     * own target (a checkout under /var) is refused by the kernel. What the
     * gateway needs there is made in the upper layer. The kept directories
     * come back before /usr/bin's layer is read from the cache. */
    snprintf(bin, sizeof bin, "%s/layer/bin", cache);
    if (overlay("/etc", NULL, "etc") || overlay("/var", NULL, "var") || mkdirs("/var/udhcpd") ||
        restore_kept() || loopback_up() || overlay("/usr/bin", bin, "bin"))
        return -1;
    return 0;
}

int main(int argc, char **argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const char *again = getenv("ZQLAB_INIT_CHILD");
    if (again) {
        /* Second image: only reap and wait for the command. The forwarded
         * signals were blocked across the exec; what came meanwhile is
         * delivered now. */
        prctl(PR_SET_NAME, "init");
        child_pid = (pid_t)atoi(again);
        unsetenv("ZQLAB_INIT_CHILD");
        install_forwarders();
        block_forwarded(SIG_UNBLOCK);
        return reap_until(child_pid);
    }
    install_forwarders();

    if (argc < 6 || strcmp(argv[4], "--") != 0) {
        fprintf(stderr, "usage: zqlab-init LAB_DIR CACHE_DIR SCENARIO -- COMMAND [ARGS...]\n");
        return 125;
    }
    if (getpid() != 1) {
        fprintf(stderr, "lab: zqlab-init must be the first process of a new PID namespace\n");
        return 125;
    }
    /* A scenario file under a directory that the lab replaces is carried
     * over into the lab (its includes by name still work). */
    const char *scenario_arg = argv[3];
    char *carried = NULL;
    size_t carried_len = 0;
    if (!strncmp(scenario_arg, "/tmp/", 5) || !strncmp(scenario_arg, "/run/", 5) ||
        !strncmp(scenario_arg, "/dev/shm/", 9)) {
        FILE *f = fopen(scenario_arg, "r");
        if (!f) {
            fail("cannot read", scenario_arg);
            return 125;
        }
        char chunk[4096];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) {
            char *grown = realloc(carried, carried_len + n + 1);
            if (!grown) return 125;
            carried = grown;
            memcpy(carried + carried_len, chunk, n);
            carried_len += n;
        }
        fclose(f);
        if (carried) carried[carried_len] = '\0';
        scenario_arg = ZQLAB_DIR "/scenario.scn";
    }
    char cwd[512];
    char lab_parent[512];
    snprintf(lab_parent, sizeof lab_parent, "%s/..", argv[1]);
    keep_dir(lab_parent);
    keep_dir(argv[2]);
    keep_dir(getcwd(cwd, sizeof cwd));
    keep_dir_of(argv[5]);
    /* Directories the caller names (lab/run --keep): a build tree whose
     * programs load their libraries from beside them, say. One a line. */
    const char *extra = getenv("ZQLAB_KEEP");
    if (extra) {
        char list[2048];
        snprintf(list, sizeof list, "%s", extra);
        for (char *save = NULL, *dir = strtok_r(list, "\n", &save); dir; dir = strtok_r(NULL, "\n", &save))
            keep_dir(dir);
        unsetenv("ZQLAB_KEEP");
    }
    if (build_gateway(argv[1], argv[2]) != 0) return 125;
    if (scenario_arg != argv[3] && write_text(scenario_arg, carried ? carried : "") != 0) return 125;
    free(carried);

    /* The scenario's state, daemons and files; its own commands are not
     * journaled. */
    setenv("ZQLAB_NOJOURNAL", "1", 1);
    char *scenario[] = {"/usr/bin/zqlab", "scenario", (char *)scenario_arg, NULL};
    pid_t setup = spawn(scenario);
    if (setup < 0) {
        perror("lab: fork");
        return 125;
    }
    int rc = reap_until(setup);
    if (rc != 0) {
        fprintf(stderr, "lab: setting up the scenario %s failed (status %d)\n", scenario_arg, rc);
        return 125;
    }
    unsetenv("ZQLAB_NOJOURNAL");
    if (pending_sig) return 128 + pending_sig; /* stopped before it began */

    block_forwarded(SIG_BLOCK);
    /* The command may look at PID 1 before the re-execution below is done. */
    prctl(PR_SET_NAME, "init");
    pid_t pid = spawn(argv + 5);
    if (pid < 0) {
        perror("lab: fork");
        return 125;
    }
    child_pid = pid;
    if (pending_sig) kill(pid, pending_sig);
    char pidtext[24];
    snprintf(pidtext, sizeof pidtext, "%d", (int)child_pid);
    setenv("ZQLAB_INIT_CHILD", pidtext, 1);
    /* Under the name "init" from the first instant (the command runs
     * already). */
    char *self[] = {"init", NULL};
    char path[600];
    snprintf(path, sizeof path, "%s/layer/libexec/init", argv[2]);
    execv(path, self);
    execv("/proc/self/exe", self);
    /* Could not re-execute: keep serving as we are. */
    unsetenv("ZQLAB_INIT_CHILD");
    block_forwarded(SIG_UNBLOCK);
    return reap_until(child_pid);
}
