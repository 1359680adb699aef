// route_status: whether the kernel's routing table (route -n) holds, for
// every routed IPv4 WAN, a route whose network contains the WAN's gateway.
#include <arpa/inet.h>
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "methods/result_word.h"
#include "records/records.h"

namespace zq {

namespace {

constexpr size_t ROUTE_TEXT_SIZE = 512;
constexpr size_t TOKEN_SIZE = 16;
constexpr uint8_t LAST_ROUTE_SLOT = 31;
constexpr uint32_t ROUTE_MISSING = 1;

// The next whitespace-separated token, at most 15 characters of it (the
// rest of a longer one is the next token), into a cleared buffer.
void next_token(std::string_view line, size_t &at, char (&token)[TOKEN_SIZE]) {
    memset(token, 0, sizeof(token));
    while (at < line.size() && zq::is_space(line[at])) ++at;
    size_t n = 0;
    while (at < line.size() && !zq::is_space(line[at]) && n < TOKEN_SIZE - 1) token[n++] = line[at++];
}

// The address as the standard dotted-quad conversion gives it; all ones for
// a text that does not convert.
in_addr_t address_of(const char *text) { return inet_addr(text); }

// True when the network of some route holds `gateway`.
bool has_route_to(const route_table &table, in_addr_t gateway) {
    for (unsigned i = 0; i < table.count && i < 32; ++i) {
        char destination[TOKEN_SIZE + 1] = {};
        char mask[TOKEN_SIZE + 1] = {};
        zq::copy(destination, table.destinations[i]);
        zq::copy(mask, table.masks[i]);
        if (address_of(destination) == (gateway & address_of(mask))) return true;
    }
    return false;
}

} // namespace

void parse_route_table(std::string_view text, route_table &table) {
    bool title = true;
    while (!text.empty()) {
        const size_t newline = text.find('\n');
        const size_t length = newline == std::string_view::npos ? text.size() : newline;
        const std::string_view line(text.data(), length);
        text.remove_prefix(length == text.size() ? length : length + 1);
        if (line.empty()) continue;
        if (title) { // "Kernel IP routing table"
            title = false;
            continue;
        }
        char destination[TOKEN_SIZE];
        char gateway[TOKEN_SIZE];
        char mask[TOKEN_SIZE];
        size_t at = 0;
        next_token(line, at, destination);
        next_token(line, at, gateway);
        next_token(line, at, mask);
        // The column header ("Destination Gateway Genmask") converts to all
        // ones in both places, as does a broadcast route.
        if (address_of(destination) == INADDR_NONE && address_of(mask) == INADDR_NONE) continue;
        const uint8_t slot = table.count < LAST_ROUTE_SLOT ? table.count : LAST_ROUTE_SLOT;
        zq::copy(table.destinations[slot], destination);
        zq::copy(table.masks[slot], mask);
        if (table.count < LAST_ROUTE_SLOT) ++table.count;
    }
}

// A caller other than the diag action may hand in a smaller block (the
// validator lets struct requests pass): the table is written only into a
// block that holds it.
int zq_get_route_status_struct(zq_diag_args args) {
    if (!args.out_buf || args.out_size < sizeof(route_table)) {
        ZQ_LOG("route table needs %zu bytes", sizeof(route_table));
        return -1;
    }
    char cmd[16] = "route -n";
    char text[ROUTE_TEXT_SIZE] = {};
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, sizeof(cmd), text, sizeof(text)));
    route_table table;
    memcpy(&table, args.out_buf, sizeof(table));
    parse_route_table(zq::view(text), table);
    memcpy(args.out_buf, &table, sizeof(table));
    return 0;
}

int zq_get_route_status_diag(zq_diag_args args) {
    route_table table = {};
    zq_get_sys_diag("route_status", ACTION_STRUCT, zq_args(nullptr, 0, &table, sizeof(table)));
    uint32_t result = zq::read_result(args);
    list_diag_record<zqSD_wan_diag>(__func__, [&](zqSD_wan_diag &wan) {
        if (!zq::contains(wan.type, "route") || !zq::contains(wan.protocol, "IPv4")) return false;
        const std::string_view name = zq::view(wan.wan_name);
        if (wan.v4_ip[0] == '\0' || wan.v4_gateway[0] == '\0') {
            wan.route_state = ROUTE_MISSING;
        } else {
            char gateway[sizeof(wan.v4_gateway) + 1] = {};
            zq::copy(gateway, wan.v4_gateway);
            if (has_route_to(table, address_of(gateway))) {
                zq_diag_msg_printf(DIAG_MSG_NORMAL, "Route of %.*s is normal", static_cast<int>(name.size()),
                                   name.data());
                wan.route_state = result;
                return false;
            }
            // Once one WAN lacks its route, every later WAN of the pass is
            // marked too.
            result |= ROUTE_MISSING;
            wan.route_state = result;
        }
        zq_diag_msg_printf(DIAG_MSG_ERROR, "Route of %.*s is missing", static_cast<int>(name.size()),
                           name.data());
        return false;
    });
    zq::write_result(args, result);
    return 0;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules ROUTE_RULES = {zq::out_exact(sizeof(route_table)), zq::ANY_BLOCK,
                                         zq::out_exact(zq::RESULT_WORD_SIZE), zq::ANY_BLOCK};

int route_status_condition() {
    return any_diag_record<zqSD_wan_diag>(__func__,
                                          [](const zqSD_wan_diag &r) { return r.v4_gateway[0] != '\0'; });
}
} // namespace

const zq::method_descriptor route_status_method = {
    .entry = {.name = "route_status",
              .get_struct = zq_get_route_status_struct,
              .diag = zq_get_route_status_diag,
              .envoy = zq::envoy<ROUTE_RULES>},
    .diag_when = route_status_condition,
};

} // namespace zq
