// wan_status: every WAN connection as the diagnosis manager reports it, and
// the IPv4 and IPv6 connectivity of each routed one, judged by pinging its
// gateway from its own address. One record per WAN that is not a bridge.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "records/records.h"

namespace zq {

namespace {

// A diagnosis manager that claims more WANs than any gateway has would keep
// the diagnosis querying for ages; the first ones are judged, the rest
// ignored with a log line.
constexpr int MAX_WANS = 32;

struct text_key {
    const char *key;
    size_t offset;
    size_t size;
    bool whole; // goes into commands: cut to its field it would name something else
};
struct number_key {
    const char *key;
    size_t offset;
    size_t width; // 1 or 2 bytes
};
#define ZQ_TEXT_KEY(field)                                                                                   \
    text_key { #field, offsetof(zqSD_wan_diag, field), sizeof(zqSD_wan_diag::field), false }
#define ZQ_WHOLE_KEY(field)                                                                                  \
    text_key { #field, offsetof(zqSD_wan_diag, field), sizeof(zqSD_wan_diag::field), true }
#define ZQ_NUMBER_KEY(field)                                                                                 \
    number_key { #field, offsetof(zqSD_wan_diag, field), sizeof(zqSD_wan_diag::field) }

// The queries of the status block, in the order they run.
constexpr text_key IDENTITY_KEYS[] = {ZQ_WHOLE_KEY(nas_interface), ZQ_TEXT_KEY(wan_name),
                                      ZQ_TEXT_KEY(protocol), ZQ_TEXT_KEY(service_type), ZQ_TEXT_KEY(type)};
constexpr number_key NUMBER_KEYS[] = {ZQ_NUMBER_KEY(nat_enable), ZQ_NUMBER_KEY(vlan_enable),
                                      ZQ_NUMBER_KEY(vlan), ZQ_NUMBER_KEY(disable_lan_dhcp),
                                      ZQ_NUMBER_KEY(itfGroup)};
// Addresses, asked only of a routed WAN that carries the protocol.
constexpr text_key V4_KEYS[] = {ZQ_WHOLE_KEY(v4_ip), ZQ_WHOLE_KEY(v4_gateway), ZQ_TEXT_KEY(v4_master_dns),
                                ZQ_TEXT_KEY(v4_slave_dns)};
constexpr text_key V6_KEYS[] = {ZQ_WHOLE_KEY(v6_ip), ZQ_WHOLE_KEY(v6_gateway)};
#undef ZQ_TEXT_KEY
#undef ZQ_WHOLE_KEY
#undef ZQ_NUMBER_KEY

// A WAN without a working address is judged by how it gets one.
struct fallback_rule {
    const char *type_marker;
    uint32_t verdict;
};
constexpr fallback_rule FALLBACK_RULES[] = {{"dhcp", WAN_DHCP_SERVICE_ERROR}, {"ppp", WAN_PPP_SERVICE_ERROR}};

// What a ping result says about the gateway.
uint32_t verdict_of_ping(uint32_t ping) {
    if (ping == PING_UNREACHABLE) return WAN_GATEWAY_UNREACHABLE;
    return ping == PING_NORMAL ? WAN_CONNECT_NORMAL : WAN_CONNECT_UNSTABLE;
}

uint32_t fallback_verdict(const zqSD_wan_diag &block) {
    for (const fallback_rule &rule : FALLBACK_RULES)
        if (zq::contains(block.type, rule.type_marker)) return rule.verdict;
    return WAN_STATIC_SERVICE_ERROR;
}

// Each answer is copied, cut to its field. An interface name or address
// that does not fit is refused instead (left empty): cut, it would name
// another interface or address.
template <size_t N> void query_texts(const text_key (&keys)[N], uint32_t index, zqSD_wan_diag &block) {
    auto *bytes = reinterpret_cast<char *>(&block);
    for (const text_key &k : keys) {
        const std::string_view answer = zq::view(get_wan_info(k.key, index));
        if (k.whole && answer.size() >= k.size) {
            ZQ_LOG_AS("zq_get_wan_status_struct", "wan_info %s of WAN %u [%s] is longer than %zu: refused",
                      k.key, index, zq::shown(answer).text, k.size - 1);
            continue;
        }
        zq::copy(bytes + k.offset, k.size, answer);
    }
}

void query_numbers(uint32_t index, zqSD_wan_diag &block) {
    auto *bytes = reinterpret_cast<unsigned char *>(&block);
    for (const number_key &k : NUMBER_KEYS) {
        const int value = zq::to_int(get_wan_info(k.key, index));
        const uint8_t narrow = static_cast<uint8_t>(value);
        const uint16_t wide = static_cast<uint16_t>(value);
        memcpy(bytes + k.offset, k.width == 1 ? static_cast<const void *>(&narrow) : &wide, k.width);
    }
}

// One protocol of one WAN: ping its gateway from its address. A value that
// is no address of the protocol (the manager may report anything, cut to
// its field) counts as missing: it never reaches the command line, and the
// WAN is judged by its type as one without an address.
template <size_t N>
uint32_t check_connect(const zqSD_wan_diag &block, uint8_t family, const char (&ip)[N],
                       const char (&gateway)[N]) {
    const std::string_view ip_text = zq::view(ip);
    const std::string_view gateway_text = zq::view(gateway);
    if (ip_text.empty() || gateway_text.empty()) return fallback_verdict(block);
    for (std::string_view value : {ip_text, gateway_text}) {
        if (!(family == 6 ? zq::is_ipv6_address(value) : zq::is_ipv4_address(value))) {
            ZQ_LOG("wan address [%s] is no IPv%d address: taken as empty", zq::shown(value).text, family);
            return fallback_verdict(block);
        }
    }
    return verdict_of_ping(ping_request_verdict(family, gateway_text, ip_text));
}

void write_verdict(const zqSD_wan_diag &block, const char *protocol, uint32_t verdict) {
    const std::string_view name = zq::view(block.wan_name);
    zq_diag_msg_printf(wan_verdict_level(verdict), "%.*s[%s] %s", static_cast<int>(name.size()), name.data(),
                       protocol, verdict < 6 ? wan_verdict_text[verdict] : "");
}

} // namespace

const char *get_wan_info(const char *key, uint32_t index) {
    if (!zq::is_shell_word(zq::view(key))) {
        ZQ_LOG("invalid key");
        memset(zq_cmd_result_buff, 0, sizeof(zq_cmd_result_buff));
        return zq_cmd_result_buff;
    }
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "diagM get wan_info %s %d", key, static_cast<int>(index));
    return zq_get_cmd_result(cmd);
}

int zq_get_wan_status_struct(zq_diag_args args) {
    uint32_t index = 0;
    memcpy(&index, args.in_buf, sizeof(index));
    zqSD_wan_diag block = {};
    query_texts(IDENTITY_KEYS, index, block);
    query_numbers(index, block);
    if (zq::contains(block.type, "route")) {
        if (zq::contains(block.protocol, "v4")) query_texts(V4_KEYS, index, block);
        if (zq::contains(block.protocol, "v6")) query_texts(V6_KEYS, index, block);
    }
    memcpy(args.out_buf, &block, WAN_BLOCK_SIZE);
    return 0;
}

int zq_get_wan_status_diag(zq_diag_args) {
    int count =
        zq::read_number(__func__, "wan_num", zq::view(zq_get_cmd_result("diagM get wan_info wan_num")));
    if (count > MAX_WANS) {
        ZQ_LOG("wan_num %d is more than %d, only the first are diagnosed", count, MAX_WANS);
        count = MAX_WANS;
    }
    for (int i = 0; i < count; ++i) {
        zqSD_wan_diag record = {};
        uint32_t v4 = WAN_GATEWAY_UNREACHABLE;
        uint32_t v6 = WAN_GATEWAY_UNREACHABLE;
        const auto index = static_cast<uint32_t>(i);
        zq_get_sys_diag("wan_status", ACTION_STRUCT, zq_args(&index, sizeof(index), &record, WAN_BLOCK_SIZE));
        if (zq::contains(record.type, "br")) continue;
        if (zq::contains(record.protocol, "v4")) {
            v4 = check_wan_v4_connect(record);
            write_verdict(record, "v4", v4);
        }
        if (zq::contains(record.protocol, "v6")) {
            v6 = check_wan_v6_connect(record);
            write_verdict(record, "v6", v6);
        }
        record.v4_conn_state = v4;
        record.v6_conn_state = v6;
        zq_diag_record(WAN_DIAG_DATA, &record, sizeof(record));
    }
    return 0;
}

uint32_t check_wan_v4_connect(const zqSD_wan_diag &block) {
    return check_connect(block, 4, block.v4_ip, block.v4_gateway);
}

uint32_t check_wan_v6_connect(const zqSD_wan_diag &block) {
    return check_connect(block, 6, block.v6_ip, block.v6_gateway);
}

uint32_t wan_verdict_level(uint32_t verdict) {
    if (verdict == WAN_CONNECT_NORMAL) return DIAG_MSG_NORMAL;
    return verdict == WAN_CONNECT_UNSTABLE ? DIAG_MSG_WARN : DIAG_MSG_ERROR;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules WAN_RULES = {zq::ANY_BLOCK, in_out_exact(sizeof(uint32_t), WAN_BLOCK_SIZE),
                                       zq::ANY_BLOCK, zq::ANY_BLOCK};

// The WANs are looked at once some PON is registered (state 0).
int wan_status_condition() {
    return any_diag_record<zqSD_pon_diag>(__func__, [](const zqSD_pon_diag &r) { return r.reg_state == 0; });
}
} // namespace

const zq::method_descriptor wan_status_method = {
    .entry = {.name = "wan_status",
              .get_struct = zq_get_wan_status_struct,
              .diag = zq_get_wan_status_diag,
              .envoy = zq::envoy<WAN_RULES>},
    .diag_when = wan_status_condition,
};

} // namespace zq
