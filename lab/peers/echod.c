/* The ISP side's echo responder: answers the ICMP echo requests (IPv4) of
 * its network namespace from userspace, each after a delay that the
 * scenario lists per address, since the kernel has no delaying qdisc.
 *
 *   zqlab-echod ADDR=MS[,MS...] [ADDR=MS[,MS...]...]
 *
 * The n-th request to ADDR is answered after the n-th delay of its list
 * (the list starts over when it is used up); requests to other addresses
 * are answered at once. The kernel's own echo replies are switched off in
 * the namespace (net.ipv4.icmp_echo_ignore_all) for as long as the
 * responder runs, so every reply comes from here. Requests that the
 * namespace's packet filter drops never reach it, so loss rules and delays
 * combine. It detaches like the lab's daemons, under the name zqlab-echod,
 * and runs until it is killed. */
#define _GNU_SOURCE /* struct in_pktinfo */
#include "common.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <time.h>

enum { MAX_ADDRS = 16, MAX_DELAYS = 32, MAX_PENDING = 128, MAX_PACKET = 1500 };

static struct {
    struct in_addr addr;
    unsigned delays_ms[MAX_DELAYS];
    unsigned count;
    unsigned next; /* probes answered so far */
} table[MAX_ADDRS];
static unsigned ntable;

static struct {
    int used;
    uint64_t due_ns;
    struct in_addr to, from;
    size_t len;
    unsigned char icmp[MAX_PACKET];
} pending[MAX_PENDING];

#define ECHO_IGNORE "/proc/sys/net/ipv4/icmp_echo_ignore_all"

static uint64_t now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000000000u + (uint64_t)ts.tv_nsec;
}

static uint16_t checksum(const unsigned char *p, size_t len) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < len; i += 2) sum += (uint32_t)(p[i] << 8 | p[i + 1]);
    if (len & 1) sum += (uint32_t)(p[len - 1] << 8);
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return (uint16_t)~sum;
}

/* "ADDR=MS,MS,..." */
static int parse_delays(const char *arg) {
    if (ntable == MAX_ADDRS) return -1;
    char addr[64];
    const char *eq = strchr(arg, '=');
    if (!eq || (size_t)(eq - arg) >= sizeof addr) return -1;
    memcpy(addr, arg, (size_t)(eq - arg));
    addr[eq - arg] = '\0';
    if (inet_pton(AF_INET, addr, &table[ntable].addr) != 1) return -1;
    const char *p = eq + 1;
    unsigned n = 0;
    while (*p) {
        char *end;
        unsigned long ms = strtoul(p, &end, 10);
        if (end == p || ms > 60000 || n == MAX_DELAYS) return -1;
        table[ntable].delays_ms[n++] = (unsigned)ms;
        p = *end == ',' ? end + 1 : end;
        if (*end && *end != ',') return -1;
    }
    if (n == 0) return -1;
    table[ntable].count = n;
    ntable++;
    return 0;
}

static unsigned delay_for(struct in_addr dst) {
    for (unsigned i = 0; i < ntable; i++) {
        if (table[i].addr.s_addr != dst.s_addr) continue;
        unsigned ms = table[i].delays_ms[table[i].next % table[i].count];
        table[i].next++;
        return ms;
    }
    return 0;
}

static void send_reply(int sock, unsigned slot) {
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_addr = pending[slot].to;
    /* The reply leaves from the address the request was sent to. */
    union {
        char buf[CMSG_SPACE(sizeof(struct in_pktinfo))];
        struct cmsghdr align;
    } control;
    memset(&control, 0, sizeof control);
    struct iovec iov = {pending[slot].icmp, pending[slot].len};
    struct msghdr msg;
    memset(&msg, 0, sizeof msg);
    msg.msg_name = &to;
    msg.msg_namelen = sizeof to;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.buf;
    msg.msg_controllen = sizeof control.buf;
    struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(struct in_pktinfo));
    struct in_pktinfo info;
    memset(&info, 0, sizeof info);
    info.ipi_spec_dst = pending[slot].from;
    memcpy(CMSG_DATA(c), &info, sizeof info);
    if (sendmsg(sock, &msg, 0) < 0) {
    }
    pending[slot].used = 0;
}

/* Queues the answer to one received datagram (IP header included). */
static void take_request(const unsigned char *pkt, size_t len, uint64_t now) {
    if (len < sizeof(struct iphdr)) return;
    const struct iphdr *ip = (const struct iphdr *)(const void *)pkt;
    size_t hl = (size_t)ip->ihl * 4;
    if (hl < sizeof(struct iphdr) || len < hl + 8) return;
    const unsigned char *icmp = pkt + hl;
    size_t icmp_len = len - hl;
    if (icmp[0] != ICMP_ECHO || icmp[1] != 0) return;
    unsigned slot = 0;
    while (slot < MAX_PENDING && pending[slot].used) slot++;
    if (slot == MAX_PENDING) return; /* flooded: drop it */
    struct in_addr dst = {ip->daddr}, src = {ip->saddr};
    pending[slot].used = 1;
    pending[slot].due_ns = now + (uint64_t)delay_for(dst) * 1000000u;
    pending[slot].to = src;
    pending[slot].from = dst;
    pending[slot].len = icmp_len;
    memcpy(pending[slot].icmp, icmp, icmp_len);
    pending[slot].icmp[0] = ICMP_ECHOREPLY;
    pending[slot].icmp[2] = pending[slot].icmp[3] = 0;
    uint16_t sum = checksum(pending[slot].icmp, icmp_len);
    pending[slot].icmp[2] = (unsigned char)(sum >> 8);
    pending[slot].icmp[3] = (unsigned char)sum;
}

static volatile sig_atomic_t stop;
static void on_term(int sig) {
    (void)sig;
    stop = 1;
}

static void write_flag(const char *path, const char *value) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t w = write(fd, value, strlen(value));
    (void)w;
    close(fd);
}

int main(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        if (parse_delays(argv[i]) != 0) {
            fprintf(stderr, "zqlab-echod: bad delay list '%s' (ADDR=MS[,MS...])\n", argv[i]);
            return 2;
        }
    }
    int sock = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    if (sock < 0) {
        perror("zqlab-echod: raw socket");
        return 1;
    }
    int on = 1;
    setsockopt(sock, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);

    sigset_t none;
    sigemptyset(&none);
    zq_daemonize(argc, argv, "zqlab-echod", &none);
    /* The kernel falls silent before the foreground process is released:
     * a ping right after start-up must not get its quick replies too. */
    write_flag(ECHO_IGNORE, "1");
    signal(SIGTERM, on_term);
    /* Our socket is all we keep; this releases the foreground process. */
    for (int fd = 3; fd < 1024; fd++)
        if (fd != sock) close(fd);
    signal(SIGINT, on_term);

    unsigned char buf[MAX_PACKET + 64];
    while (!stop) {
        uint64_t now = now_ns();
        int64_t wait_ms = -1;
        for (unsigned i = 0; i < MAX_PENDING; i++) {
            if (!pending[i].used) continue;
            if (pending[i].due_ns <= now) {
                send_reply(sock, i);
                continue;
            }
            int64_t ms = (int64_t)((pending[i].due_ns - now + 999999u) / 1000000u);
            if (wait_ms < 0 || ms < wait_ms) wait_ms = ms;
        }
        struct pollfd p = {sock, POLLIN, 0};
        int r = poll(&p, 1, (int)wait_ms);
        if (r < 0 && errno != EINTR) break;
        if (r > 0) {
            ssize_t n = recv(sock, buf, sizeof buf, 0);
            if (n > 0) take_request(buf, (size_t)n, now_ns());
        }
    }
    /* The kernel answers again once we are gone. */
    write_flag(ECHO_IGNORE, "0");
    return 0;
}
