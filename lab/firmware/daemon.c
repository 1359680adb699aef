/* The gateway's idle daemons: boa, cwmpClient, omci_app, eponoamd, udhcpd,
 * dnsmasq. The program is installed under each daemon's name; the name it
 * is run under is the process name that ps and pgrep show.
 *
 * Run, it writes its journal line and detaches like a real daemon: the
 * foreground process returns once the background one has closed standard
 * input and output (so "popen("/bin/boa &")" sees end of file) and carries
 * its name. The background process then idles until it is killed.
 *
 * A daemon named in the state key "daemons.broken" fails to start. Every
 * daemon but udhcpd refuses to start a second time (its port is taken). */
#include "common.h"

#include <ctype.h>
#include <dirent.h>

static int word_in(const char *word, const char *list) {
    size_t n = strlen(word);
    const char *p = list;
    while (*p) {
        while (*p && isspace((unsigned char)*p)) p++;
        const char *start = p;
        while (*p && !isspace((unsigned char)*p)) p++;
        if ((size_t)(p - start) == n && strncmp(start, word, n) == 0) return 1;
    }
    return 0;
}

static int already_running(const char *name) {
    DIR *d = opendir("/proc");
    if (!d) return 0;
    pid_t self = getpid();
    int found = 0;
    struct dirent *e;
    while (!found && (e = readdir(d)) != NULL) {
        if (!isdigit((unsigned char)e->d_name[0])) continue;
        pid_t pid = (pid_t)atoi(e->d_name);
        if (pid == self) continue;
        char path[64], comm[64], stat[256];
        snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
        zq_read_small(path, stat, sizeof stat);
        /* A zombie on its way out does not hold the port any more. */
        char *close_paren = strrchr(stat, ')');
        if (close_paren && close_paren[1] == ' ' && close_paren[2] == 'Z') continue;
        snprintf(path, sizeof path, "/proc/%d/comm", (int)pid);
        zq_read_small(path, comm, sizeof comm);
        comm[strcspn(comm, "\n")] = '\0';
        if (strcmp(comm, name) == 0) found = 1;
    }
    closedir(d);
    return found;
}

int main(int argc, char **argv) {
    char name[16];
    snprintf(name, sizeof name, "%s", zq_basename(argv[0]));
    zq_journal(name, argc - 1, argv + 1);

    char broken[1024];
    zq_read_small(ZQLAB_STATE "/daemons.broken", broken, sizeof broken);
    if (word_in(name, broken)) {
        fprintf(stderr, "%s: cannot start\n", name);
        zq_disguise(argc, argv);
        return 1;
    }
    if (strcmp(name, "udhcpd") != 0 && already_running(name)) {
        fprintf(stderr, "%s: already running\n", name);
        zq_disguise(argc, argv);
        return 1;
    }

    sigset_t none;
    sigemptyset(&none);
    zq_daemonize(argc, argv, name, &none);
    zq_ready();
    for (;;) pause();
}
