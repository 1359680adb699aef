// dhcp_config: the gateway's own DHCP server on the LAN side: whether it
// runs, whether its pool lies in its subnet, whether it hands out its own
// address as the gateway, and whether a routed WAN has switched LAN DHCP
// off on some LAN ports or access points.
#include <arpa/inet.h>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "records/records.h"

namespace zq {

namespace {

// The server block is the record without its two result words.
constexpr size_t DHCP_BLOCK_SIZE = offsetof(zqSD_dhcp_diag, reserved_tail);
constexpr const char *UDHCPD_COMMAND_LINE = "/bin/udhcpd -S /var/udhcpd/udhcpd.conf";
constexpr size_t CONF_PATH_SIZE = 48;
constexpr size_t CONF_LINE_SIZE = 64;
constexpr const char *DHCPS_DISABLE_CMD = "ebtables -L dhcps_disable | grep dhcps_disable -A20";

using text_field = char (zqSD_dhcp_diag::*)[16];

// The configuration's keywords in the order they are tested: the first one
// found anywhere in a line selects the row; the row's words must then
// start the line, followed by the value. No field: the DNS servers.
struct conf_keyword {
    const char *keyword;
    const char *words;
    text_field field;
};

constexpr conf_keyword CONF_KEYWORDS[] = {
    {"interface", "interface", &zqSD_dhcp_diag::interface},
    {"server", "server", &zqSD_dhcp_diag::ip_addr},
    {"start", "start", &zqSD_dhcp_diag::pool_addr_start},
    {"end", "end", &zqSD_dhcp_diag::pool_addr_end},
    {"subnet", "opt subnet", &zqSD_dhcp_diag::subnet},
    {"router", "opt router", &zqSD_dhcp_diag::gateway},
    {"dns", "opt dns", nullptr},
};

// The value after `words` as sscanf reads "<words> %s": the words must
// stand at the very start of the line (a blank between them matches any
// run of blanks, none included); the value is the next run of non-blank
// characters. Empty when the line does not match.
std::string_view scan_value(std::string_view line, std::string_view words) {
    size_t pos = 0;
    for (char w : words) {
        if (w == ' ') {
            while (pos < line.size() && zq::is_space(line[pos])) ++pos;
        } else if (pos < line.size() && line[pos] == w) {
            ++pos;
        } else {
            return {};
        }
    }
    while (pos < line.size() && zq::is_space(line[pos])) ++pos;
    const size_t start = pos;
    while (pos < line.size() && !zq::is_space(line[pos])) ++pos;
    return zq::slice(line, start, pos);
}

// The first "opt dns" line gives the DNS server, the second the secondary
// one; later lines are ignored.
void store_dns(zqSD_dhcp_diag &block, std::string_view value) {
    char dns[16] = {};
    zq::copy(dns, value);
    if (block.dns[0] == '\0')
        zq::copy(block.dns, dns);
    else if (block.secondary_dns[0] == '\0')
        zq::copy(block.secondary_dns, dns);
}

in_addr_t address_of(const char (&text)[16]) {
    char terminated[17] = {};
    zq::copy(terminated, zq::view(text));
    return inet_addr(terminated);
}

// Reads the running server's configuration into the block; the log lines
// are the struct action's.
int read_server_block(zqSD_dhcp_diag &block) {
    constexpr const char *reader = "zq_get_dhcp_config_struct";
    if (zq_get_pid("udhcpd") == 0) {
        block.server_running = 0;
        return 0;
    }
    block.server_running = 1;
    char path[CONF_PATH_SIZE] = {};
    copy_last_word(path, sizeof(path), UDHCPD_COMMAND_LINE);
    if (path[0] == '\0') {
        ZQ_LOG_AS(reader, "dhcp configuration file path does not find!");
        return 0;
    }
    FILE *file = fopen(path, "r");
    if (!file) {
        ZQ_LOG_AS(reader, "create fd fail!");
        return -1;
    }
    char line[CONF_LINE_SIZE] = {};
    while (fgets(line, sizeof(line), file)) parse_udhcpd_conf_line(line, block);
    fclose(file);
    return 0;
}

// ---- Findings ---------------------------------------------------------------

bool server_off(const zqSD_dhcp_diag &b) { return b.server_running == 0; }
bool pool_outside_subnet(const zqSD_dhcp_diag &b) { return b.server_running != 0 && dhcp_pool_check(b) != 0; }
bool gateway_not_server(const zqSD_dhcp_diag &b) {
    return b.server_running != 0 && zq::view(b.ip_addr) != zq::view(b.gateway);
}

enum : uint32_t { SERVER_OFF = 1, POOL_OUTSIDE_SUBNET = 2, GATEWAY_NOT_SERVER = 4 };

struct server_check {
    uint32_t bit;
    uint32_t level;
    const char *finding;
    bool (*fails)(const zqSD_dhcp_diag &);
};

constexpr server_check SERVER_CHECKS[] = {
    {SERVER_OFF, DIAG_MSG_WARN, "\"Enable DHCP Server\" in the \"LAN\" configuration is disable", server_off},
    {POOL_OUTSIDE_SUBNET, DIAG_MSG_ERROR,
     "The address pool network segment is inconsistent with the ONU LAN network segment",
     pool_outside_subnet},
    {GATEWAY_NOT_SERVER, DIAG_MSG_ERROR, "The assigned gateway is different from the IP address",
     gateway_not_server},
};

// The LAN-side interfaces on which routed WANs switch LAN DHCP off, when
// the bridge filter has a rule naming an input interface.
uint32_t lan_dhcp_disabled_by_wans() {
    char cmd[128] = {};
    char out[256] = {};
    ZQ_FORMAT(cmd, "%s", DHCPS_DISABLE_CMD);
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, sizeof(cmd), out, sizeof(out)));
    if (!zq::contains(out, "-i")) return 0;

    uint32_t disabled = 0;
    list_diag_record<zqSD_wan_diag>("zq_get_dhcp_config_diag", [&disabled](const zqSD_wan_diag &wan) {
        if (!zq::contains(wan.type, "route") || wan.disable_lan_dhcp == 0 || wan.itfGroup == 0) return false;
        const std::string_view name = zq::view(wan.wan_name);
        zq_diag_msg_printf(DIAG_MSG_WARN, "[%.*s] disable LAN DHCP:", static_cast<int>(name.size()),
                           name.data());
        for (uint32_t bit = 0; bit < std::size(LAN_SIDE_NAMES); ++bit) {
            if (!(wan.itfGroup >> bit & 1u)) continue;
            disabled |= 1u << bit;
            zq_diag_msg_printf(DIAG_MSG_WARN, "\t%s is disable", LAN_SIDE_NAMES[bit]);
        }
        return false;
    });
    return disabled;
}

} // namespace

// A text without a blank is one word, copied whole.
void copy_last_word(char *dst, size_t size, const char *text) {
    if (!dst || size == 0) return;
    memset(dst, 0, size);
    const std::string_view all = zq::view(text);
    const size_t blank = all.rfind(' ');
    zq::copy(dst, size, blank == std::string_view::npos ? all : zq::slice(all, blank + 1));
}

// A value longer than its 16-byte field keeps its first 15 characters: it
// is cut, never written past the field.
void parse_udhcpd_conf_line(const char *line, zqSD_dhcp_diag &block) {
    const std::string_view text = zq::view(line);
    for (const conf_keyword &row : CONF_KEYWORDS) {
        if (!zq::contains(text, row.keyword)) continue;
        const std::string_view value = scan_value(text, row.words);
        if (value.empty()) return;
        if (row.field)
            zq::copy(block.*row.field, value);
        else
            store_dns(block, value);
        return;
    }
}

int dhcp_pool_check(const zqSD_dhcp_diag &block) {
    const in_addr_t server = address_of(block.ip_addr);
    const in_addr_t start = address_of(block.pool_addr_start);
    const in_addr_t end = address_of(block.pool_addr_end);
    const in_addr_t mask = address_of(block.subnet);
    if (server == 0) return -1;
    if (((server ^ start) & mask) != 0 || ((server ^ end) & mask) != 0) return -1;
    return 0;
}

int zq_get_dhcp_config_struct(zq_diag_args args) {
    zqSD_dhcp_diag block{};
    memcpy(&block, args.out_buf, DHCP_BLOCK_SIZE);
    const int rc = read_server_block(block);
    memcpy(args.out_buf, &block, DHCP_BLOCK_SIZE);
    return rc;
}

int zq_get_dhcp_config_diag(zq_diag_args) {
    zqSD_dhcp_diag record{};
    zq_get_dhcp_config_struct(zq_args(nullptr, 0, &record, DHCP_BLOCK_SIZE));

    uint32_t faults = 0;
    for (const server_check &check : SERVER_CHECKS) {
        if (!check.fails(record)) continue;
        faults |= check.bit;
        zq_diag_msg_printf(check.level, "%s", check.finding);
    }
    const uint32_t disabled = lan_dhcp_disabled_by_wans();
    if (faults == 0 && disabled == 0)
        zq_diag_msg_printf(DIAG_MSG_NORMAL, "The lan configuration diagnosis is normal");

    record.fault_flags = faults;
    record.lan_dhcp_disabled = disabled;
    zq_diag_record(DHCP_DIAG_DATA, &record, sizeof(record));
    return 0;
}

// The server's configuration is the user's to change; nothing is repaired.
int zq_get_dhcp_config_fix(zq_diag_args) { return 0; }

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules DHCP_CONFIG_RULES = {zq::ANY_BLOCK, out_exact(DHCP_BLOCK_SIZE), zq::ANY_BLOCK,
                                               zq::ANY_BLOCK};

// A server that is switched off is the user's choice: no repair is offered.
int dhcp_config_fix_condition() {
    return any_diag_record<zqSD_dhcp_diag>(__func__, [](const zqSD_dhcp_diag &r) {
        return r.fault_flags != 0 && (r.fault_flags & SERVER_OFF) == 0;
    });
}
} // namespace

const zq::method_descriptor dhcp_config_method = {
    .entry = {.name = "dhcp_config",
              .get_struct = zq_get_dhcp_config_struct,
              .diag = zq_get_dhcp_config_diag,
              .fix = zq_get_dhcp_config_fix,
              .envoy = zq::envoy<DHCP_CONFIG_RULES>},
    .fix_when = dhcp_config_fix_condition,
};

} // namespace zq
