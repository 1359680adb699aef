// dns_status: whether the Internet answers through each WAN that carries
// Internet service and is up on IPv4 (pings of three root name servers from
// the WAN's address), and, once per run, whether names resolve at all.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "records/records.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {

// Root name servers, probed in this order; the first answer ends it.
constexpr char PRESET_DNS[3][46] = {"192.5.5.241", "192.36.148.17", "192.203.230.10"};
// Two public names that every working resolver knows: the domains kept for
// examples, which resolve everywhere.
constexpr char PROBE_NAMES[2][32] = {"www.example.com", "www.example.net"};

constexpr uint32_t DNS_NORMAL = 0;
constexpr uint32_t DNS_ABNORMAL = 1;

} // namespace

bool dns_answer_found(std::string_view lookup_output) { return !lookup_output.empty(); }

// Below PING_UNREACHABLE at least one probe was answered.
int ping_reachable(uint8_t family, const char *source, const char *host) {
    return ping_request_verdict(family, zq::view(host), zq::view(source)) < PING_UNREACHABLE ? 0 : -1;
}

} // namespace zq

int v4_ping_preset_dns(char *wan_record) {
    if (!wan_record) {
        ZQ_LOG("invalid input");
        return -1;
    }
    // The record is the caller's: only its v4_ip is read, up to its size.
    char source[sizeof(zqSD_wan_diag::v4_ip) + 1] = {};
    memcpy(source, wan_record + offsetof(zqSD_wan_diag, v4_ip), sizeof(zqSD_wan_diag::v4_ip));
    char servers[3][46];
    memcpy(servers, PRESET_DNS, sizeof(servers));
    for (const auto &server : servers)
        if (ping_reachable(4, source, server) == 0) return 0;
    return -1;
}

int if_dns_avaliable(char *) {
    for (const auto &name : PROBE_NAMES) {
        char cmd[256] = {};
        ZQ_FORMAT(cmd, "timeout -t 5 nslookup %s | grep %s -A 1 | grep Address", name, name);
        if (dns_answer_found(zq::view(zq_get_cmd_result(cmd)))) {
            zq_diag_msg_printf(DIAG_MSG_NORMAL, "DNS is available");
            return 1;
        }
    }
    zq_diag_msg_printf(DIAG_MSG_ERROR, "DNS is unavailable");
    return 0;
}

namespace zq {

int zq_get_dns_status_diag(zq_diag_args) {
    bool names_checked = false;
    list_diag_record<zqSD_wan_diag>(__func__, [&](zqSD_wan_diag &wan) {
        if (!zq::contains(wan.service_type, "INTERNET") || wan.v4_conn_state > WAN_CONNECT_UNSTABLE)
            return false;
        char *record = reinterpret_cast<char *>(&wan);
        if (!names_checked) {
            names_checked = true;
            if_dns_avaliable(record);
        }
        const bool reachable = v4_ping_preset_dns(record) == 0;
        const std::string_view name = zq::view(wan.wan_name);
        zq_diag_msg_printf(reachable ? DIAG_MSG_NORMAL : DIAG_MSG_ERROR,
                           "%.*s [V4] Internet connectivity is %s", static_cast<int>(name.size()),
                           name.data(), reachable ? "normal" : "abnormal");
        wan.dns_state = reachable ? DNS_NORMAL : DNS_ABNORMAL;
        return false;
    });
    return 0;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
int dns_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__, [](const zqSD_wan_diag &r) {
        return r.v4_conn_state <= WAN_CONNECT_UNSTABLE && zq::contains(r.service_type, "INTERNET") &&
               zq::contains(r.protocol, "v4");
    });
}
} // namespace

const zq::method_descriptor dns_status_method = {
    .entry = {.name = "dns_status", .diag = zq_get_dns_status_diag, .envoy = zq::envoy<zq::OPEN_RULES>},
    .diag_when = dns_status_condition,
};

} // namespace zq
