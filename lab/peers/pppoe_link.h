/* pppoe_link.h: the wire side of the lab's PPPoE peers (pppoe.c, the one
 * program that includes it): raw links, discovery frames and their tags,
 * PPP packets of a session, and the option negotiation that LCP and IPCP
 * share. Static functions: the peers are one translation unit. */
#ifndef ZQLAB_PPPOE_LINK_H
#define ZQLAB_PPPOE_LINK_H

#include "common.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <stdarg.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>

#define ETH_P_DISC 0x8863
#define ETH_P_SESS 0x8864

enum { PADI = 0x09, PADO = 0x07, PADR = 0x19, PADS = 0x65, PADT = 0xa7 };
enum {
    TAG_END = 0x0000,
    TAG_SERVICE = 0x0101,
    TAG_AC_NAME = 0x0102,
    TAG_HOST_UNIQ = 0x0103,
    TAG_COOKIE = 0x0104
};
enum { P_LCP = 0xc021, P_PAP = 0xc023, P_CHAP = 0xc223, P_IPCP = 0x8021 };
enum { CONF_REQ = 1, CONF_ACK = 2, CONF_NAK = 3, CONF_REJ = 4, TERM_REQ = 5, TERM_ACK = 6 };
enum { CHAP_CHALLENGE = 1, CHAP_RESPONSE = 2, CHAP_SUCCESS = 3, CHAP_FAILURE = 4 };
enum { PAP_REQ = 1, PAP_ACK = 2, PAP_NAK = 3 };
enum { LCP_MRU = 1, LCP_AUTH = 3 };
enum { IPCP_ADDR = 3, IPCP_DNS1 = 129, IPCP_DNS2 = 131 };

enum { AUTH_ANY = 0, AUTH_CHAP = 1, AUTH_PAP = 2 };
enum { OUT_OK, OUT_AUTH_FAIL, OUT_IPCP_DNS, OUT_SILENT };

#define MRU 1492
#define MAX_SERVICES 8
#define MAX_TAG 64

static volatile sig_atomic_t g_stop;
static void on_term(int sig) {
    (void)sig;
    g_stop = 1;
}

static long long now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static void note(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
static void note(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "pppoe[%d]: ", (int)getpid());
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

/* ---- Link: one socket per ether type, bound to the interface ---------- */

struct link {
    int disc, sess, ifindex;
    uint8_t mac[6];
};

static int open_sock(int ifindex, uint16_t type) {
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(type));
    if (fd < 0) return -1;
    struct sockaddr_ll sa = {.sll_family = AF_PACKET, .sll_protocol = htons(type), .sll_ifindex = ifindex};
    if (bind(fd, (struct sockaddr *)&sa, sizeof sa) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static int link_open(struct link *l, const char *ifname) {
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", ifname);
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int ok = ioctl(fd, SIOCGIFINDEX, &ifr) == 0;
    l->ifindex = ifr.ifr_ifindex;
    ok = ok && ioctl(fd, SIOCGIFHWADDR, &ifr) == 0;
    close(fd);
    if (!ok) return -1;
    memcpy(l->mac, ifr.ifr_hwaddr.sa_data, 6);
    l->disc = open_sock(l->ifindex, ETH_P_DISC);
    l->sess = open_sock(l->ifindex, ETH_P_SESS);
    return l->disc >= 0 && l->sess >= 0 ? 0 : -1;
}

/* A received PPPoE frame. */
struct frame {
    uint8_t buf[1600];
    uint8_t src[6];
    uint16_t type, sid;
    uint8_t code;
    const uint8_t *pl; /* PPPoE payload */
    size_t len;
};

static int parse_frame(struct frame *f, size_t n) {
    if (n < 20) return 0;
    const uint8_t *b = f->buf;
    memcpy(f->src, b + 6, 6);
    f->type = (uint16_t)(b[12] << 8 | b[13]);
    if (b[14] != 0x11) return 0;
    f->code = b[15];
    f->sid = (uint16_t)(b[16] << 8 | b[17]);
    size_t len = (size_t)(b[18] << 8 | b[19]);
    if (len > n - 20) return 0;
    f->pl = b + 20;
    f->len = len;
    return 1;
}

/* Waits for the next frame until `deadline`: 1 with a frame, 0 at the
 * deadline, -1 when the process is told to stop. */
static int next_frame(struct link *l, long long deadline, struct frame *f) {
    for (;;) {
        if (g_stop) return -1;
        long long left = deadline - now_ms();
        if (left <= 0) return 0;
        struct pollfd p[2] = {{l->disc, POLLIN, 0}, {l->sess, POLLIN, 0}};
        int r = poll(p, 2, (int)left);
        if (r < 0 && errno != EINTR) return -1;
        for (int i = 0; r > 0 && i < 2; i++) {
            if (!(p[i].revents & POLLIN)) continue;
            struct sockaddr_ll from;
            socklen_t fl = sizeof from;
            ssize_t n = recvfrom(p[i].fd, f->buf, sizeof f->buf, 0, (struct sockaddr *)&from, &fl);
            if (n <= 0 || from.sll_pkttype == PACKET_OUTGOING) continue;
            if (parse_frame(f, (size_t)n)) return 1;
        }
    }
}

static void send_frame(struct link *l, const uint8_t dst[6], uint16_t type, uint8_t code, uint16_t sid,
                       const uint8_t *pl, size_t len) {
    uint8_t b[1600];
    if (len > sizeof b - 20) return;
    memcpy(b, dst, 6);
    memcpy(b + 6, l->mac, 6);
    b[12] = (uint8_t)(type >> 8), b[13] = (uint8_t)type;
    b[14] = 0x11, b[15] = code;
    b[16] = (uint8_t)(sid >> 8), b[17] = (uint8_t)sid;
    b[18] = (uint8_t)(len >> 8), b[19] = (uint8_t)len;
    memcpy(b + 20, pl, len);
    size_t n = 20 + len;
    if (n < 60) { /* Ethernet minimum frame */
        memset(b + n, 0, 60 - n);
        n = 60;
    }
    struct sockaddr_ll sa = {
        .sll_family = AF_PACKET, .sll_protocol = htons(type), .sll_ifindex = l->ifindex, .sll_halen = 6};
    memcpy(sa.sll_addr, dst, 6);
    if (sendto(type == ETH_P_DISC ? l->disc : l->sess, b, n, 0, (struct sockaddr *)&sa, sizeof sa) < 0)
        note("send: %s", strerror(errno));
}

static const uint8_t BROADCAST[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

/* ---- Discovery tags -------------------------------------------------- */

struct tags {
    uint8_t buf[512];
    size_t len;
};

static void tag_add(struct tags *t, uint16_t type, const void *v, size_t n) {
    if (t->len + 4 + n > sizeof t->buf) return;
    uint8_t *p = t->buf + t->len;
    p[0] = (uint8_t)(type >> 8), p[1] = (uint8_t)type, p[2] = (uint8_t)(n >> 8), p[3] = (uint8_t)n;
    if (n) memcpy(p + 4, v, n);
    t->len += 4 + n;
}

/* The value of the first tag of `type` in a discovery payload, copied into
 * `out` (NUL-terminated when it fits); its length, or -1 when absent. */
static int tag_get(const struct frame *f, uint16_t type, uint8_t *out, size_t cap) {
    size_t i = 0;
    while (i + 4 <= f->len) {
        uint16_t t = (uint16_t)(f->pl[i] << 8 | f->pl[i + 1]);
        size_t n = (size_t)(f->pl[i + 2] << 8 | f->pl[i + 3]);
        if (i + 4 + n > f->len) return -1;
        if (t == type) {
            size_t c = n < cap ? n : cap;
            memcpy(out, f->pl + i + 4, c);
            if (c < cap) out[c] = 0;
            return (int)n;
        }
        if (t == TAG_END) return -1;
        i += 4 + n;
    }
    return -1;
}

/* ---- PPP over a session ---------------------------------------------- */

struct session {
    struct link *l;
    uint8_t peer[6];
    uint16_t sid;
    uint8_t next_id;
    int auth; /* the authentication protocol agreed in LCP */
};

static void send_ppp(struct session *s, uint16_t proto, uint8_t code, uint8_t id, const uint8_t *data,
                     size_t n) {
    uint8_t p[1500];
    if (n + 6 > sizeof p) return;
    p[0] = (uint8_t)(proto >> 8), p[1] = (uint8_t)proto;
    p[2] = code, p[3] = id;
    p[4] = (uint8_t)((n + 4) >> 8), p[5] = (uint8_t)(n + 4);
    if (n) memcpy(p + 6, data, n);
    send_frame(s->l, s->peer, ETH_P_SESS, 0, s->sid, p, n + 6);
}

static void send_padt(struct session *s) { send_frame(s->l, s->peer, ETH_P_DISC, PADT, s->sid, NULL, 0); }

/* A PPP packet of the session: protocol, code, id and its data. */
struct ppp {
    uint16_t proto;
    uint8_t code, id;
    const uint8_t *data;
    size_t n;
};

/* 1 with a PPP packet of this session, 2 when the peer ended the session
 * (PADT), 0 at the deadline, -1 on stop. */
static int next_ppp(struct session *s, long long deadline, struct frame *f, struct ppp *p) {
    for (;;) {
        int r = next_frame(s->l, deadline, f);
        if (r <= 0) return r;
        if (memcmp(f->src, s->peer, 6) != 0 || f->sid != s->sid) continue;
        if (f->type == ETH_P_DISC) {
            if (f->code == PADT) return 2;
            continue;
        }
        if (f->code != 0 || f->len < 6) continue;
        p->proto = (uint16_t)(f->pl[0] << 8 | f->pl[1]);
        p->code = f->pl[2], p->id = f->pl[3];
        size_t n = (size_t)(f->pl[4] << 8 | f->pl[5]);
        if (n < 4 || n + 2 > f->len) continue;
        p->data = f->pl + 6;
        p->n = n - 4;
        return 1;
    }
}

/* Options: type, length, value. */
static size_t opt_add(uint8_t *b, size_t at, uint8_t type, const void *v, size_t n) {
    b[at] = type, b[at + 1] = (uint8_t)(n + 2);
    memcpy(b + at + 2, v, n);
    return at + 2 + n;
}
static size_t opt_u16(uint8_t *b, size_t at, uint8_t type, uint16_t v) {
    uint8_t x[2] = {(uint8_t)(v >> 8), (uint8_t)v};
    return opt_add(b, at, type, x, 2);
}
static size_t opt_auth(uint8_t *b, size_t at, int auth) {
    static const uint8_t chap[3] = {0xc2, 0x23, 0x05}, pap[2] = {0xc0, 0x23};
    return auth == AUTH_PAP ? opt_add(b, at, LCP_AUTH, pap, 2) : opt_add(b, at, LCP_AUTH, chap, 3);
}
/* The value of option `type` in an option list, or null. */
static const uint8_t *opt_find(const struct ppp *p, uint8_t type, size_t *n) {
    size_t i = 0;
    while (i + 2 <= p->n) {
        size_t len = p->data[i + 1];
        if (len < 2 || i + len > p->n) return NULL;
        if (p->data[i] == type) {
            *n = len - 2;
            return p->data + i + 2;
        }
        i += len;
    }
    return NULL;
}

/* A configure exchange of one protocol: our request, retransmitted until
 * acked or the tries run out, and the peer's request, which a handler
 * answers (setting peer_acked when it acks). */
struct conf;
typedef void (*request_fn)(struct session *s, struct conf *c, const struct ppp *p, const void *ctx);
typedef void (*nak_fn)(struct conf *c, const struct ppp *p, const void *ctx);

struct conf {
    uint16_t proto;
    uint8_t req[64];
    size_t req_len;
    uint8_t id;
    int tries_left, interval_ms;
    long long due;
    int mine_acked, peer_acked;
    request_fn on_request;
    nak_fn on_nak; /* null: a nak changes nothing, the request is repeated as it was */
    const void *ctx;
    int passive; /* send our request only once we have acked the peer's */
};

static void conf_send(struct session *s, struct conf *c) {
    c->id = ++s->next_id;
    send_ppp(s, c->proto, CONF_REQ, c->id, c->req, c->req_len);
    c->tries_left--;
    c->due = now_ms() + c->interval_ms;
}

enum { NEG_FAILED = 0, NEG_DONE = 1, NEG_ENDED = 2, NEG_STOP = -1 };

static void terminated(struct session *s, uint8_t id);

/* Runs one configure exchange for at most `phase_ms`: NEG_DONE when both
 * requests were acked, NEG_FAILED when our tries or the time ran out,
 * NEG_ENDED when the peer ended the session, NEG_STOP on a stop signal. */
static int negotiate(struct session *s, struct conf *c, long long phase_ms) {
    struct frame f;
    struct ppp p;
    const long long end = now_ms() + phase_ms;
    if (c->passive)
        c->due = end;
    else
        conf_send(s, c);
    while (!(c->mine_acked && c->peer_acked)) {
        long long now = now_ms();
        if (now >= end) return NEG_FAILED;
        if (!c->mine_acked && now >= c->due) {
            if (c->tries_left <= 0) return NEG_FAILED;
            conf_send(s, c);
        }
        int r = next_ppp(s, !c->mine_acked && c->due < end ? c->due : end, &f, &p);
        if (r < 0) return NEG_STOP;
        if (r == 2) return NEG_ENDED;
        if (r == 0) continue;
        if (p.proto == P_LCP && p.code == TERM_REQ) {
            terminated(s, p.id);
            return NEG_ENDED;
        }
        if (p.proto != c->proto) continue;
        if (p.code == CONF_ACK && p.id == c->id) {
            c->mine_acked = 1;
        } else if (p.code == CONF_REQ) {
            c->on_request(s, c, &p, c->ctx);
            if (c->passive && c->peer_acked) {
                c->passive = 0;
                conf_send(s, c);
            }
        } else if (p.code == CONF_NAK && p.id == c->id && c->on_nak) {
            c->on_nak(c, &p, c->ctx);
            conf_send(s, c);
        }
    }
    return NEG_DONE;
}

/* Ends the session from this side: Terminate-Request, a short wait for the
 * answer, then PADT. */
static void terminate(struct session *s) {
    struct frame f;
    struct ppp p;
    send_ppp(s, P_LCP, TERM_REQ, ++s->next_id, NULL, 0);
    long long deadline = now_ms() + 200;
    int r;
    while ((r = next_ppp(s, deadline, &f, &p)) == 1)
        if (p.proto == P_LCP && p.code == TERM_ACK) break;
    if (r != 2) send_padt(s);
}

/* The peer ended with Terminate-Request: acknowledge and wait for its PADT. */
static void terminated(struct session *s, uint8_t id) {
    struct frame f;
    struct ppp p;
    send_ppp(s, P_LCP, TERM_ACK, id, NULL, 0);
    long long deadline = now_ms() + 1000;
    while (next_ppp(s, deadline, &f, &p) == 1) {
    }
}

/* Waits for one PPP packet of `proto` with one of two codes (a zero code
 * matches nothing): 1 with it, 0 at the deadline, 2 when the session ended,
 * -1 on stop. */
static int await(struct session *s, long long deadline, uint16_t proto, uint8_t code1, uint8_t code2,
                 struct ppp *p) {
    struct frame f;
    int r;
    while ((r = next_ppp(s, deadline, &f, p)) == 1) {
        if (p->proto == P_LCP && p->code == TERM_REQ) {
            terminated(s, p->id);
            r = 2;
            break;
        }
        if (p->proto == proto && (p->code == code1 || p->code == code2)) {
            /* The packet's data lives in the frame: keep a copy. */
            static uint8_t data[1600];
            memcpy(data, p->data, p->n);
            p->data = data;
            break;
        }
    }
    return r;
}

#endif
