/*
 * diag_client - drives libzqdiag as a gateway management process does:
 * fills the diagnosis control block, starts a diagnosis with diagnose_set,
 * polls its state while showing the running step, walks the records the
 * diagnosis left, and (given a URL) packs and uploads the diagnosis
 * package.
 *
 *   diag_client [-m MODE] [-t SECONDS] [-u URL [-p ftp|tftp] [-w WAN]]
 *
 * Exit status: 0 done, 1 the upload failed, 2 bad usage, 3 no diagnosis
 * could start (permit taken, alarm, no diagnosis manager), 4 timeout.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <zq_diag.h>

enum { EXIT_UPLOAD_FAILED = 1, EXIT_USAGE = 2, EXIT_UNAVAILABLE = 3, EXIT_TIMEOUT = 4 };

/* How often the control block is polled. */
static const long POLL_NS = 100L * 1000 * 1000;

struct options {
    unsigned mode;
    unsigned timeout_s;
    const char *url;
    unsigned protocol;
    unsigned wan;
};

static void pause_poll(void) {
    struct timespec ts = {0, POLL_NS};
    nanosleep(&ts, NULL);
}

static double now_s(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

/* Waits while the block's state is `busy`; 0 when it left that state, -1
 * on timeout. With `show_steps`, prints each step the worker starts. */
static int wait_while(volatile const diag_exec_ctl *block, uint32_t busy, unsigned timeout_s,
                      int show_steps) {
    const double deadline = now_s() + timeout_s;
    char shown[sizeof(zq_running_method) + 1] = "";
    while (block->state == busy) {
        if (show_steps) {
            /* The worker writes the name while we read it: copy, then
             * show it only when it changed and is terminated. */
            char step[sizeof(zq_running_method) + 1] = "";
            memcpy(step, zq_running_method, sizeof(zq_running_method));
            if (step[0] != '\0' && strcmp(step, shown) != 0) {
                printf("step: %s\n", step);
                fflush(stdout);
                memcpy(shown, step, sizeof(shown));
            }
        }
        if (now_s() > deadline) return -1;
        pause_poll();
    }
    return 0;
}

/* The records of one type, in chain order; nothing when the library's
 * record layout differs from the one this program was built with. */
static const diag_data_node *first_record(uint32_t type, size_t size) {
    if (get_diag_data_size(type) != size) {
        printf("records of type %u: layout differs (%zu bytes here, %llu in the library), not read\n",
               (unsigned)type, size, (unsigned long long)get_diag_data_size(type));
        return NULL;
    }
    return zq_search_diag_record(type);
}

/* A text field of a record, as far as its first line end: the gateway's
 * tools print some values with their line end, which the record keeps.
 * The result lives in `out` (at least `size` + 1 bytes). */
static const char *field(char *out, const char *text, size_t size) {
    size_t n = 0;
    while (n < size && text[n] != '\0' && text[n] != '\n' && text[n] != '\r') ++n;
    memcpy(out, text, n);
    out[n] = '\0';
    return out;
}
#define FIELD(buf, member) field((buf), (member), sizeof(member))

static const char *const WAN_VERDICTS[] = {"connect normal",     "connect unstable",  "gateway unreachable",
                                           "DHCP service error", "PPP service error", "static service error"};

static const char *wan_verdict(uint32_t v) {
    return v < sizeof(WAN_VERDICTS) / sizeof(WAN_VERDICTS[0]) ? WAN_VERDICTS[v] : "unknown";
}

static void show_records(void) {
    char a[64], b[64], c[64], d[64], e[64];
    const diag_data_node *node = first_record(PORT_DIAG_DATA, sizeof(zqSD_port_diag));
    for (unsigned i = 0; node && i < node->count; ++i, node = node->next) {
        const zqSD_port_diag *port = node->data;
        printf("port %u: %s %s %s\n", i + 1, FIELD(a, port->status), FIELD(b, port->speed),
               FIELD(c, port->duplex));
    }
    node = first_record(PON_DIAG_DATA, sizeof(zqSD_pon_diag));
    if (node) {
        const zqSD_pon_diag *pon = node->data;
        printf("pon: %s %s, rx %.2f dBm, tx %.2f dBm, %s\n", FIELD(a, pon->pon_mode),
               FIELD(b, pon->pon_state), (double)pon->rx_power, (double)pon->tx_power,
               pon->reg_state == 0   ? "registered"
               : pon->reg_state == 1 ? "no optical link"
                                     : "not registered");
    }
    node = first_record(WAN_DIAG_DATA, sizeof(zqSD_wan_diag));
    for (unsigned i = 0; node && i < node->count; ++i, node = node->next) {
        const zqSD_wan_diag *wan = node->data;
        printf("wan %u: %s %s %s gateway %s: %s\n", i + 1, FIELD(a, wan->wan_name), FIELD(b, wan->protocol),
               FIELD(c, wan->v4_ip), FIELD(d, wan->v4_gateway), wan_verdict(wan->v4_conn_state));
    }
    node = first_record(SYS_DIAG_DATA, sizeof(zqSD_sys_diag));
    if (node) {
        const zqSD_sys_diag *sys = node->data;
        printf("system: memory %u %%, cpu %u %%, faults 0x%x, version %s\n", sys->sys_mem_usage,
               sys->sys_cpu_usage, (unsigned)sys->fault_flags, FIELD(e, sys->software_version));
    }
}

static int diagnose(const struct options *o) {
    if (g_diag_exec.worker != 0) {
        fprintf(stderr, "diag_client: a diagnosis worker of this process is busy\n");
        return EXIT_UNAVAILABLE;
    }
    g_diag_exec.mode = o->mode;
    g_diag_exec.kind = 0;   /* diagnose */
    g_diag_exec.action = 0; /* run */
    if (diagnose_set() != 0) {
        fprintf(stderr, "diag_client: no diagnosis can start now (permit taken, alarm, or no manager)\n");
        return EXIT_UNAVAILABLE;
    }
    if (wait_while(&g_diag_exec, EXEC_RUNNING, o->timeout_s, 1) != 0) {
        fprintf(stderr, "diag_client: the diagnosis did not end within %u s\n", o->timeout_s);
        return EXIT_TIMEOUT;
    }
    if (g_diag_exec.state != EXEC_DONE) {
        fprintf(stderr, "diag_client: the diagnosis could not start its path (state %u)\n",
                (unsigned)g_diag_exec.state);
        return EXIT_UNAVAILABLE;
    }
    printf("diagnosis done (last step: %.32s); its log is /tmp/diag_file/diag_log\n", zq_running_method);
    printf("repair available: %s\n", is_zq_fix_available() ? "yes" : "no");
    return 0;
}

static int upload(const struct options *o) {
    if (strlen(o->url) >= sizeof(g_diag_exec.url)) {
        fprintf(stderr, "diag_client: the URL is longer than %zu characters\n", sizeof(g_diag_exec.url) - 1);
        return EXIT_USAGE;
    }
    /* The worker sends the archive that exists when it starts: pack the
     * evidence of this diagnosis first. */
    if (zq_packet_diag_file() != 0) {
        fprintf(stderr, "diag_client: nothing to pack into /tmp/diag_file/diag_log.tar\n");
        return EXIT_UPLOAD_FAILED;
    }
    memset(g_diag_exec.url, 0, sizeof(g_diag_exec.url));
    memcpy(g_diag_exec.url, o->url, strlen(o->url));
    g_diag_exec.protocol = o->protocol;
    g_diag_exec.wan_mask = (uint8_t)(1u << (o->wan - 1)); /* lowest set bit: WAN 1 is bit 0 */
    g_diag_exec.action = 1;                               /* upload */
    if (diagnose_set() != 0) {
        fprintf(stderr, "diag_client: the upload was refused\n");
        return EXIT_UNAVAILABLE;
    }
    if (wait_while(&g_diag_exec, EXEC_UPLOADING, o->timeout_s, 0) != 0) {
        fprintf(stderr, "diag_client: the upload did not end within %u s\n", o->timeout_s);
        return EXIT_TIMEOUT;
    }
    /* The worker writes the end state first, then cleans up and writes
     * file_name, and clears `worker` last: file_name is complete only once
     * `worker` reads 0. */
    const double deadline = now_s() + o->timeout_s;
    while (((volatile diag_exec_ctl *)&g_diag_exec)->worker != 0) {
        if (now_s() > deadline) {
            fprintf(stderr, "diag_client: the upload worker did not end within %u s\n", o->timeout_s);
            return EXIT_TIMEOUT;
        }
        pause_poll();
    }
    if (g_diag_exec.state != EXEC_UPLOADED) {
        fprintf(stderr, "diag_client: the upload failed (state %u)\n", (unsigned)g_diag_exec.state);
        return EXIT_UPLOAD_FAILED;
    }
    printf("uploaded as %.16s\n", g_diag_exec.file_name);
    return 0;
}

static int number(const char *text, unsigned low, unsigned high, unsigned *out) {
    char *end = NULL;
    unsigned long v = strtoul(text, &end, 10);
    if (!*text || *end || v < low || v > high) return -1;
    *out = (unsigned)v;
    return 0;
}

int main(int argc, char **argv) {
    struct options o = {0, 300, NULL, UPLOAD_PROTOCOL_FTP, 1};
    int c;
    while ((c = getopt(argc, argv, "m:t:u:p:w:")) != -1) {
        int bad = 0;
        switch (c) {
        case 'm':
            bad = number(optarg, 0, 10, &o.mode);
            break;
        case 't':
            bad = number(optarg, 1, 86400, &o.timeout_s);
            break;
        case 'u':
            o.url = optarg;
            break;
        case 'p':
            if (strcmp(optarg, "ftp") == 0)
                o.protocol = UPLOAD_PROTOCOL_FTP;
            else if (strcmp(optarg, "tftp") == 0)
                o.protocol = UPLOAD_PROTOCOL_TFTP;
            else
                bad = 1;
            break;
        case 'w':
            bad = number(optarg, 1, 8, &o.wan);
            break;
        default:
            bad = 1;
            break;
        }
        if (bad) {
            fprintf(stderr, "usage: diag_client [-m MODE] [-t SECONDS] [-u URL [-p ftp|tftp] [-w WAN]]\n");
            return EXIT_USAGE;
        }
    }
    if (optind != argc) {
        fprintf(stderr, "usage: diag_client [-m MODE] [-t SECONDS] [-u URL [-p ftp|tftp] [-w WAN]]\n");
        return EXIT_USAGE;
    }

    int status = diagnose(&o);
    if (status != 0) return status;
    show_records();
    if (o.url) status = upload(&o);
    return status;
}
