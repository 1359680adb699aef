/* pgrep as the gateway's busybox has it: the ids of the processes whose
 * name matches an extended regular expression, one per line, in ascending
 * order, itself excluded.
 *
 *   pgrep [-flnovx] PATTERN
 *     -f  match the whole command line instead of the name
 *     -x  the whole name (or command line) must match
 *     -l  print the name after the id
 *     -n  only the newest (highest id)   -o  only the oldest (lowest id)
 *     -v  invert the match
 * Exit status 0 when something matched, 1 when nothing did. */
#include "common.h"

#include <ctype.h>
#include <dirent.h>
#include <regex.h>

static int by_pid(const struct dirent **a, const struct dirent **b) {
    return atoi((*a)->d_name) - atoi((*b)->d_name);
}

static int numeric(const struct dirent *e) { return isdigit((unsigned char)e->d_name[0]); }

int main(int argc, char **argv) {
    zq_journal("pgrep", argc - 1, argv + 1);
    int full = 0, exact = 0, longfmt = 0, newest = 0, oldest = 0, invert = 0;
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1]; i++) {
        for (const char *o = argv[i] + 1; *o; o++) {
            switch (*o) {
            case 'f':
                full = 1;
                break;
            case 'x':
                exact = 1;
                break;
            case 'l':
                longfmt = 1;
                break;
            case 'n':
                newest = 1;
                break;
            case 'o':
                oldest = 1;
                break;
            case 'v':
                invert = 1;
                break;
            default:
                fprintf(stderr, "pgrep: invalid option -- '%c'\n", *o);
                return 2;
            }
        }
    }
    if (i != argc - 1) {
        fprintf(stderr, "usage: pgrep [-flnovx] PATTERN\n");
        return 2;
    }
    char pattern[1024];
    snprintf(pattern, sizeof pattern, exact ? "^(%s)$" : "%s", argv[i]);
    regex_t re;
    if (regcomp(&re, pattern, REG_EXTENDED | REG_NOSUB) != 0) {
        fprintf(stderr, "pgrep: bad pattern\n");
        return 2;
    }

    struct dirent **list;
    int n = scandir("/proc", &list, numeric, by_pid);
    if (n < 0) return 1;
    int self = (int)getpid();
    int matched = 0, pick = -1;
    char pick_name[4096] = "";
    for (int k = 0; k < n; k++) {
        int pid = atoi(list[k]->d_name);
        if (pid == self) continue;
        char path[64], text[4096];
        if (full) {
            snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
            int fd = open(path, O_RDONLY | O_CLOEXEC);
            if (fd < 0) continue;
            ssize_t len = read(fd, text, sizeof text - 1);
            close(fd);
            if (len < 0) len = 0;
            for (ssize_t j = 0; j < len; j++)
                if (text[j] == '\0') text[j] = ' ';
            while (len > 0 && text[len - 1] == ' ') len--;
            text[len] = '\0';
            if (len == 0) {
                /* Kernel threads and zombies: match their name instead. */
                snprintf(path, sizeof path, "/proc/%d/comm", pid);
                zq_read_small(path, text, sizeof text);
                text[strcspn(text, "\n")] = '\0';
            }
        } else {
            snprintf(path, sizeof path, "/proc/%d/comm", pid);
            zq_read_small(path, text, sizeof text);
            if (text[0] == '\0') continue;
            text[strcspn(text, "\n")] = '\0';
        }
        int hit = regexec(&re, text, 0, NULL, 0) == 0;
        if (hit == invert) continue;
        matched = 1;
        if (newest || oldest) {
            if (pick < 0 || newest) {
                pick = pid;
                snprintf(pick_name, sizeof pick_name, "%s", text);
            }
            continue;
        }
        if (longfmt)
            printf("%d %s\n", pid, text);
        else
            printf("%d\n", pid);
    }
    if (pick >= 0) {
        if (longfmt)
            printf("%d %s\n", pick, pick_name);
        else
            printf("%d\n", pick);
    }
    return matched ? 0 : 1;
}
