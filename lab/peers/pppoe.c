/* pppoe: the lab's PPPoE peers, a client (the gateway's dialler) and an
 * access concentrator (the ISP side), speaking over raw AF_PACKET sockets
 * because the kernel here has no PPP support.
 *
 *   pppoe client IFACE [-s SERVICE]... [-a any|chap|pap] [-u USER] [-p PASS]
 *   pppoe server IFACE [-s SERVICE]... [-A chap|pap] [-o OUTCOME] [-n AC_NAME]
 *                      [-l LOCAL_IP] [-c CLIENT_IP] [-d DNS1] [-D DNS2]
 *
 * The client runs one session per -s (in order; none: one session asking
 * for any service): discovery (PADI, PADO, PADR, PADS), LCP, CHAP or PAP,
 * IPCP. A session that comes up stays up until SIGTERM, which ends it with
 * PADT. A session that fails ends with PADT from whichever side gave up.
 * The client accepts the authentication protocols of -a and naks others;
 * it rejects every IPCP option of the concentrator's request but the
 * address.
 *
 * The concentrator answers PADIs for the services of -s (none: every
 * service; a PADI with an empty Service-Name always), serves one session at
 * a time and ends each as OUTCOME says:
 *   ok          the session comes up
 *   auth-fail   CHAP Failure / PAP Auth-NAK, then LCP Terminate and PADT
 *   ipcp-dns    its IPCP request carries DNS options too and it insists on
 *               them: IPCP never agrees; it gives up with Terminate and PADT
 *   silent      after PADS it says nothing more (the client's LCP retries
 *               outlast a 3-second capture, so no PADT is seen)
 * The concentrator opens LCP and IPCP passively (its request follows its
 * ack of the client's), and both sides retransmit on fixed timers, so every run is the
 * same exchange in the same order: the concentrator every 200 ms, 3 tries; the client's LCP every
 * 400 ms, 10 tries; PADI 3 tries 500 ms apart.
 *
 * Every packet is a well-formed RFC 2516 / RFC 1661 frame; tcpdump decodes
 * them. Progress lines go to standard error. */
#include "pppoe_link.h"

/* ---- Client ---------------------------------------------------------- */

struct client_cfg {
    const char *services[MAX_SERVICES];
    int nservices;
    int auth;
    const char *user, *pass;
};

enum { S_ENDED = 0, S_UP = 1, S_STOPPED = -1 };

/* The concentrator's LCP request: acked when it asks for an authentication
 * protocol the client speaks, else nakked with the one it would use. */
static void client_lcp_request(struct session *s, struct conf *c, const struct ppp *p, const void *ctx) {
    const struct client_cfg *cfg = ctx;
    size_t n = 0;
    const uint8_t *a = opt_find(p, LCP_AUTH, &n);
    int asked = !a ? AUTH_ANY : (n >= 2 && a[0] == 0xc0 && a[1] == 0x23) ? AUTH_PAP : AUTH_CHAP;
    if (asked == AUTH_ANY || cfg->auth == AUTH_ANY || cfg->auth == asked) {
        send_ppp(s, P_LCP, CONF_ACK, p->id, p->data, p->n);
        c->peer_acked = 1;
        s->auth = asked;
        return;
    }
    uint8_t nak[8];
    send_ppp(s, P_LCP, CONF_NAK, p->id, nak, opt_auth(nak, 0, cfg->auth));
}

/* The concentrator's IPCP request: its address is fine, every other option
 * is rejected. */
static void client_ipcp_request(struct session *s, struct conf *c, const struct ppp *p, const void *ctx) {
    (void)ctx;
    uint8_t rej[64];
    size_t rl = 0, i = 0;
    while (i + 2 <= p->n && p->data[i + 1] >= 2 && i + p->data[i + 1] <= p->n) {
        if (p->data[i] != IPCP_ADDR && rl + p->data[i + 1] <= sizeof rej) {
            memcpy(rej + rl, p->data + i, p->data[i + 1]);
            rl += p->data[i + 1];
        }
        i += p->data[i + 1];
    }
    if (rl) {
        send_ppp(s, P_IPCP, CONF_REJ, p->id, rej, rl);
        return;
    }
    send_ppp(s, P_IPCP, CONF_ACK, p->id, p->data, p->n);
    c->peer_acked = 1;
}

static void ipcp_fill(struct conf *c, const uint8_t addr[4], const uint8_t dns1[4], const uint8_t dns2[4]) {
    size_t at = opt_add(c->req, 0, IPCP_ADDR, addr, 4);
    at = opt_add(c->req, at, IPCP_DNS1, dns1, 4);
    c->req_len = opt_add(c->req, at, IPCP_DNS2, dns2, 4);
}

/* A nak of the client's IPCP request carries the values to ask for. */
static void client_ipcp_nak(struct conf *c, const struct ppp *p, const void *ctx) {
    (void)ctx;
    uint8_t v[3][4];
    static const uint8_t types[3] = {IPCP_ADDR, IPCP_DNS1, IPCP_DNS2};
    for (int i = 0; i < 3; i++) {
        size_t n = 0;
        const uint8_t *x = opt_find(p, types[i], &n);
        size_t at = 0, k = 0;
        /* keep what was asked when the nak does not mention it */
        while (at + 2 <= c->req_len && c->req[at] != types[i]) at += c->req[at + 1];
        for (k = 0; k < 4; k++) v[i][k] = at + 6 <= c->req_len ? c->req[at + 2 + k] : 0;
        if (x && n == 4) memcpy(v[i], x, 4);
    }
    ipcp_fill(c, v[0], v[1], v[2]);
}

/* PAP: Auth-Request until Ack or Nak. */
static int client_pap(struct session *s, const struct client_cfg *cfg) {
    uint8_t req[128];
    size_t ul = strlen(cfg->user), pl = strlen(cfg->pass);
    if (ul > 60) ul = 60;
    if (pl > 60) pl = 60;
    req[0] = (uint8_t)ul;
    memcpy(req + 1, cfg->user, ul);
    req[1 + ul] = (uint8_t)pl;
    memcpy(req + 2 + ul, cfg->pass, pl);
    struct ppp p;
    for (int tries = 0; tries < 3; tries++) {
        send_ppp(s, P_PAP, PAP_REQ, ++s->next_id, req, 2 + ul + pl);
        int r = await(s, now_ms() + 400, P_PAP, PAP_ACK, PAP_NAK, &p);
        if (r != 0)
            return r == 1 && p.code == PAP_ACK ? NEG_DONE
                   : r == 1                    ? NEG_FAILED
                   : r == 2                    ? NEG_ENDED
                                               : NEG_STOP;
    }
    return NEG_FAILED;
}

/* CHAP: answer the challenge until Success or Failure. */
static int client_chap(struct session *s, const struct client_cfg *cfg) {
    struct ppp p;
    const long long end = now_ms() + 1200;
    for (;;) {
        int r = await(s, end, P_CHAP, CHAP_CHALLENGE, 0, &p);
        if (r != 1) return r == 0 ? NEG_FAILED : r == 2 ? NEG_ENDED : NEG_STOP;
        if (p.n < 1) continue;
        /* The response: a 16-byte value from the challenge and the secret,
         * and the client's name. */
        uint8_t resp[96];
        size_t vl = p.data[0] <= p.n - 1 ? p.data[0] : p.n - 1, kl = strlen(cfg->pass);
        resp[0] = 16;
        for (size_t i = 0; i < 16; i++) {
            uint8_t c = vl ? p.data[1 + i % vl] : 0, k = kl ? (uint8_t)cfg->pass[i % kl] : 0;
            resp[1 + i] = (uint8_t)(c ^ k ^ p.id ^ (i * 37));
        }
        size_t ul = strlen(cfg->user);
        if (ul > 64) ul = 64;
        memcpy(resp + 17, cfg->user, ul);
        uint8_t id = p.id;
        send_ppp(s, P_CHAP, CHAP_RESPONSE, id, resp, 17 + ul);
        r = await(s, end, P_CHAP, CHAP_SUCCESS, CHAP_FAILURE, &p);
        if (r != 1) return r == 0 ? NEG_FAILED : r == 2 ? NEG_ENDED : NEG_STOP;
        return p.code == CHAP_SUCCESS ? NEG_DONE : NEG_FAILED;
    }
}

/* LCP, authentication and IPCP of an established session, client side.
 * A failed step ends the session from here unless the concentrator ends it
 * first. */
static int client_ppp(struct session *s, const struct client_cfg *cfg) {
    struct conf lcp = {
        .proto = P_LCP, .tries_left = 10, .interval_ms = 400, .on_request = client_lcp_request, .ctx = cfg};
    lcp.req_len = opt_u16(lcp.req, 0, LCP_MRU, MRU);
    int r = negotiate(s, &lcp, 10 * 400);
    if (r == NEG_DONE) {
        if (s->auth == AUTH_PAP)
            r = client_pap(s, cfg);
        else if (s->auth == AUTH_CHAP)
            r = client_chap(s, cfg);
        if (r == NEG_FAILED) {
            /* refused: the concentrator ends the session */
            struct ppp p;
            r = await(s, now_ms() + 1000, 0, 0, 0, &p) == 2 ? NEG_ENDED : NEG_FAILED;
        }
    }
    if (r == NEG_DONE) {
        static const uint8_t zero[4];
        struct conf ipcp = {.proto = P_IPCP,
                            .tries_left = 10,
                            .interval_ms = 400,
                            .on_request = client_ipcp_request,
                            .on_nak = client_ipcp_nak};
        ipcp_fill(&ipcp, zero, zero, zero);
        r = negotiate(s, &ipcp, 10 * 400);
        if (r == NEG_DONE) {
            char text[INET_ADDRSTRLEN];
            note("session up, address %s", inet_ntop(AF_INET, ipcp.req + 2, text, sizeof text));
            return S_UP;
        }
    }
    if (r == NEG_FAILED) {
        note("session 0x%x failed, ending it", s->sid);
        terminate(s);
    }
    return r == NEG_STOP ? S_STOPPED : S_ENDED;
}

/* One session for `service`, from PADI on. */
static int client_session(struct link *l, const char *service, const struct client_cfg *cfg) {
    struct frame f;
    /* Host-Uniq: the interface index, so that every run sends the same. */
    uint32_t uniq = htonl((uint32_t)l->ifindex);
    struct tags padi = {.len = 0};
    tag_add(&padi, TAG_SERVICE, service, strlen(service));
    tag_add(&padi, TAG_HOST_UNIQ, &uniq, sizeof uniq);
    struct session s = {.l = l};
    uint8_t cookie[MAX_TAG];
    int cookie_len = -1;
    for (int tries = 0; tries < 3 && cookie_len < 0; tries++) {
        send_frame(l, BROADCAST, ETH_P_DISC, PADI, 0, padi.buf, padi.len);
        long long deadline = now_ms() + 500;
        int r;
        while ((r = next_frame(l, deadline, &f)) == 1) {
            uint32_t u = 0;
            if (f.type != ETH_P_DISC || f.code != PADO) continue;
            if (tag_get(&f, TAG_HOST_UNIQ, (uint8_t *)&u, sizeof u) != 4 || u != uniq) continue;
            memcpy(s.peer, f.src, 6);
            cookie_len = tag_get(&f, TAG_COOKIE, cookie, sizeof cookie);
            if (cookie_len < 0) cookie_len = 0;
            if (cookie_len > MAX_TAG) cookie_len = MAX_TAG;
            break;
        }
        if (r < 0) return S_STOPPED;
    }
    if (cookie_len < 0) {
        note("no concentrator answered for service '%s'", service);
        return S_ENDED;
    }
    struct tags padr = {.len = 0};
    tag_add(&padr, TAG_SERVICE, service, strlen(service));
    tag_add(&padr, TAG_HOST_UNIQ, &uniq, sizeof uniq);
    if (cookie_len > 0) tag_add(&padr, TAG_COOKIE, cookie, (size_t)cookie_len);
    for (int tries = 0; tries < 3 && !s.sid; tries++) {
        send_frame(l, s.peer, ETH_P_DISC, PADR, 0, padr.buf, padr.len);
        long long deadline = now_ms() + 500;
        int r;
        while ((r = next_frame(l, deadline, &f)) == 1)
            if (f.type == ETH_P_DISC && f.code == PADS && !memcmp(f.src, s.peer, 6) && f.sid) {
                s.sid = f.sid;
                break;
            }
        if (r < 0) return S_STOPPED;
    }
    if (!s.sid) {
        note("no session for service '%s'", service);
        return S_ENDED;
    }
    note("session 0x%x for service '%s'", s.sid, service);
    int r = client_ppp(&s, cfg);
    if (r == S_UP) {
        /* Up until told to stop; then end the session properly. */
        struct ppp p;
        while ((r = next_ppp(&s, now_ms() + 3600000, &f, &p)) != -1)
            if (r == 2) return S_ENDED;
        send_padt(&s);
        return S_STOPPED;
    }
    if (r == S_STOPPED) send_padt(&s);
    return r;
}

/* ---- Concentrator ---------------------------------------------------- */

struct server_cfg {
    const char *services[MAX_SERVICES];
    int nservices;
    int auth, outcome;
    const char *ac_name;
    uint8_t local[4], client[4], dns1[4], dns2[4];
};

static int serves(const struct server_cfg *cfg, const char *service) {
    if (!service[0] || cfg->nservices == 0) return 1;
    for (int i = 0; i < cfg->nservices; i++)
        if (!strcmp(cfg->services[i], service)) return 1;
    return 0;
}

/* The client's LCP request is always acked. */
static void server_lcp_request(struct session *s, struct conf *c, const struct ppp *p, const void *ctx) {
    (void)ctx;
    send_ppp(s, P_LCP, CONF_ACK, p->id, p->data, p->n);
    c->peer_acked = 1;
}

/* The client's IPCP request is nakked until it asks for the address and
 * name servers assigned to it. */
static void server_ipcp_request(struct session *s, struct conf *c, const struct ppp *p, const void *ctx) {
    const struct server_cfg *cfg = ctx;
    size_t n = 0;
    const uint8_t *a = opt_find(p, IPCP_ADDR, &n);
    const uint8_t *d1 = opt_find(p, IPCP_DNS1, &n);
    const uint8_t *d2 = opt_find(p, IPCP_DNS2, &n);
    if (a && !memcmp(a, cfg->client, 4) && (!d1 || !memcmp(d1, cfg->dns1, 4)) &&
        (!d2 || !memcmp(d2, cfg->dns2, 4))) {
        send_ppp(s, P_IPCP, CONF_ACK, p->id, p->data, p->n);
        c->peer_acked = 1;
        return;
    }
    uint8_t nak[32];
    size_t nl = opt_add(nak, 0, IPCP_ADDR, cfg->client, 4);
    if (d1) nl = opt_add(nak, nl, IPCP_DNS1, cfg->dns1, 4);
    if (d2) nl = opt_add(nak, nl, IPCP_DNS2, cfg->dns2, 4);
    send_ppp(s, P_IPCP, CONF_NAK, p->id, nak, nl);
}

/* Authentication, concentrator side: NEG_DONE when the client was let in. */
static int server_auth(struct session *s, const struct server_cfg *cfg) {
    struct ppp p;
    const int accept = cfg->outcome != OUT_AUTH_FAIL;
    if (cfg->auth == AUTH_PAP) {
        int r = await(s, now_ms() + 1200, P_PAP, PAP_REQ, 0, &p);
        if (r != 1) return r == 0 ? NEG_FAILED : r == 2 ? NEG_ENDED : NEG_STOP;
        const char *m = accept ? "Login ok" : "Login incorrect";
        uint8_t msg[32];
        msg[0] = (uint8_t)strlen(m);
        memcpy(msg + 1, m, msg[0]);
        send_ppp(s, P_PAP, accept ? PAP_ACK : PAP_NAK, p.id, msg, 1u + msg[0]);
        return accept ? NEG_DONE : NEG_FAILED;
    }
    uint8_t challenge[64];
    challenge[0] = 16;
    for (int i = 0; i < 16; i++) challenge[1 + i] = (uint8_t)(0x5a ^ (i * 29) ^ s->sid);
    size_t nl = strlen(cfg->ac_name);
    if (nl > 40) nl = 40;
    memcpy(challenge + 17, cfg->ac_name, nl);
    for (int tries = 0; tries < 3; tries++) {
        uint8_t id = ++s->next_id;
        send_ppp(s, P_CHAP, CHAP_CHALLENGE, id, challenge, 17 + nl);
        int r = await(s, now_ms() + 200, P_CHAP, CHAP_RESPONSE, 0, &p);
        if (r == 0 || (r == 1 && p.id != id)) continue;
        if (r != 1) return r == 2 ? NEG_ENDED : NEG_STOP;
        const char *m = accept ? "Welcome" : "Authentication failed";
        send_ppp(s, P_CHAP, accept ? CHAP_SUCCESS : CHAP_FAILURE, id, (const uint8_t *)m, strlen(m));
        return accept ? NEG_DONE : NEG_FAILED;
    }
    return NEG_FAILED;
}

/* LCP, authentication and IPCP of one session, concentrator side. Returns
 * when the session is over. */
static void server_ppp(struct session *s, const struct server_cfg *cfg) {
    struct ppp p;
    if (cfg->outcome == OUT_SILENT) {
        /* Gone quiet: take whatever comes until the client ends it. */
        while (await(s, now_ms() + 8000, 0, 0, 0, &p) == 1) {
        }
        return;
    }
    struct conf lcp = {
        .proto = P_LCP, .tries_left = 3, .interval_ms = 200, .on_request = server_lcp_request, .passive = 1};
    lcp.req_len = opt_auth(lcp.req, opt_u16(lcp.req, 0, LCP_MRU, MRU), cfg->auth);
    int r = negotiate(s, &lcp, 1000);
    if (r == NEG_DONE) r = server_auth(s, cfg);
    if (r == NEG_DONE) {
        struct conf ipcp = {.proto = P_IPCP,
                            .tries_left = 3,
                            .interval_ms = 200,
                            .on_request = server_ipcp_request,
                            .ctx = cfg,
                            .passive = 1};
        size_t at = opt_add(ipcp.req, 0, IPCP_ADDR, cfg->local, 4);
        if (cfg->outcome == OUT_IPCP_DNS) {
            at = opt_add(ipcp.req, at, IPCP_DNS1, cfg->dns1, 4);
            at = opt_add(ipcp.req, at, IPCP_DNS2, cfg->dns2, 4);
        }
        ipcp.req_len = at;
        r = negotiate(s, &ipcp, 1000);
    }
    if (r == NEG_DONE) {
        note("session 0x%x up", s->sid);
        /* Up until the client ends it or this side is stopped. */
        while ((r = await(s, now_ms() + 3600000, 0, 0, 0, &p)) == 0 || r == 1) {
        }
        if (r < 0) send_padt(s);
        return;
    }
    if (r == NEG_FAILED) terminate(s);
}

static int run_server(struct link *l, const struct server_cfg *cfg) {
    struct frame f;
    uint16_t next_sid = 1;
    static const uint8_t cookie[8] = {'z', 'q', 'l', 'a', 'b', 'a', 'c', '1'};
    for (;;) {
        int r = next_frame(l, now_ms() + 3600000, &f);
        if (r < 0) return 0;
        if (r == 0 || f.type != ETH_P_DISC) continue;
        uint8_t service[MAX_TAG + 1] = {0}, uniq[MAX_TAG];
        int sl = tag_get(&f, TAG_SERVICE, service, MAX_TAG);
        if (sl > MAX_TAG) sl = MAX_TAG;
        service[sl > 0 ? sl : 0] = 0;
        int ul = tag_get(&f, TAG_HOST_UNIQ, uniq, sizeof uniq);
        if (ul > MAX_TAG) ul = MAX_TAG;
        if (f.code == PADI) {
            if (!serves(cfg, (const char *)service)) continue;
            struct tags t = {.len = 0};
            tag_add(&t, TAG_SERVICE, service, strlen((const char *)service));
            tag_add(&t, TAG_AC_NAME, cfg->ac_name, strlen(cfg->ac_name));
            tag_add(&t, TAG_COOKIE, cookie, sizeof cookie);
            if (ul >= 0) tag_add(&t, TAG_HOST_UNIQ, uniq, (size_t)ul);
            send_frame(l, f.src, ETH_P_DISC, PADO, 0, t.buf, t.len);
        } else if (f.code == PADR) {
            struct tags t = {.len = 0};
            tag_add(&t, TAG_SERVICE, service, strlen((const char *)service));
            if (ul >= 0) tag_add(&t, TAG_HOST_UNIQ, uniq, (size_t)ul);
            struct session s = {.l = l, .sid = next_sid++};
            memcpy(s.peer, f.src, 6);
            if (next_sid == 0) next_sid = 1;
            send_frame(l, f.src, ETH_P_DISC, PADS, s.sid, t.buf, t.len);
            note("session 0x%x for service '%s'", s.sid, service);
            server_ppp(&s, cfg);
            if (g_stop) return 0;
        }
    }
}

/* ---- Command line ---------------------------------------------------- */

static int parse_auth(const char *v) {
    if (!strcmp(v, "chap")) return AUTH_CHAP;
    if (!strcmp(v, "pap")) return AUTH_PAP;
    if (!strcmp(v, "any")) return AUTH_ANY;
    return -1;
}

static int parse_outcome(const char *v) {
    static const char *const names[] = {"ok", "auth-fail", "ipcp-dns", "silent"};
    for (int i = 0; i < 4; i++)
        if (!strcmp(v, names[i])) return i;
    return -1;
}

static int usage(void) {
    fprintf(stderr,
            "usage: pppoe client IFACE [-s SERVICE]... [-a any|chap|pap] [-u USER] [-p PASS]\n"
            "       pppoe server IFACE [-s SERVICE]... [-A chap|pap] [-o ok|auth-fail|ipcp-dns|silent]\n"
            "                          [-n AC_NAME] [-l LOCAL_IP] [-c CLIENT_IP] [-d DNS1] [-D DNS2]\n");
    return 2;
}

int main(int argc, char **argv) {
    if (argc < 3) return usage();
    int server = !strcmp(argv[1], "server");
    if (!server && strcmp(argv[1], "client")) return usage();
    const char *ifname = argv[2];
    struct client_cfg cc = {.auth = AUTH_ANY, .user = "zqlab", .pass = "zqlab"};
    struct server_cfg sc = {.auth = AUTH_CHAP,
                            .outcome = OUT_OK,
                            .ac_name = "zqlab-ac",
                            .local = {203, 0, 113, 1},
                            .client = {203, 0, 113, 10},
                            .dns1 = {203, 0, 113, 53},
                            .dns2 = {203, 0, 113, 54}};
    for (int i = 3; i < argc; i++) {
        const char *o = argv[i];
        if (o[0] != '-' || !o[1] || o[2] || i + 1 >= argc) return usage();
        const char *v = argv[++i];
        int ok = 1;
        switch (o[1]) {
        case 's':
            if (server && sc.nservices < MAX_SERVICES) sc.services[sc.nservices++] = v;
            if (!server && cc.nservices < MAX_SERVICES) cc.services[cc.nservices++] = v;
            break;
        case 'a':
            ok = (cc.auth = parse_auth(v)) >= 0;
            break;
        case 'A':
            ok = (sc.auth = parse_auth(v)) > 0;
            break;
        case 'u':
            cc.user = v;
            break;
        case 'p':
            cc.pass = v;
            break;
        case 'o':
            ok = (sc.outcome = parse_outcome(v)) >= 0;
            break;
        case 'n':
            sc.ac_name = v;
            break;
        case 'l':
            ok = inet_pton(AF_INET, v, sc.local) == 1;
            break;
        case 'c':
            ok = inet_pton(AF_INET, v, sc.client) == 1;
            break;
        case 'd':
            ok = inet_pton(AF_INET, v, sc.dns1) == 1;
            break;
        case 'D':
            ok = inet_pton(AF_INET, v, sc.dns2) == 1;
            break;
        default:
            ok = 0;
        }
        if (!ok) return usage();
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_term;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    struct link l;
    if (link_open(&l, ifname) != 0) {
        note("cannot open %s: %s", ifname, strerror(errno));
        return 1;
    }
    if (server) return run_server(&l, &sc);
    if (cc.nservices == 0) cc.services[cc.nservices++] = "";
    for (int i = 0; i < cc.nservices; i++)
        if (client_session(&l, cc.services[i], &cc) == S_STOPPED) break;
    return 0;
}
