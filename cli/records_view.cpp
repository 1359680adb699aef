#include "records_view.hpp"

#include <cstddef>
#include <cstring>
#include <iterator>
#include <span>

#include "console.hpp"
#include "json.hpp"
#include "methods/methods.h"

namespace zqcli {

namespace {

// ---- Field tables -----------------------------------------------------------
// One table per record type: the header's field names with their offsets,
// widths and kinds. Both views are driven by them. The reserved bytes, which
// are always zero, are left out.

enum class Kind : uint8_t { u8, u16, u32, u64, f32, text };

// How the text view explains a number: nothing, the name of a code, or the
// names of the set bits.
enum class Meaning : uint8_t { none, code, bits };

struct Field {
    const char *name;
    size_t offset;
    size_t width;
    Kind kind;
    const char *unit = nullptr; // text view only
    Meaning meaning = Meaning::none;
    std::span<const char *const> labels = {}; // by code or by bit number; null: no label
};

struct RecordType {
    uint32_t code;
    const char *name;
    size_t size; // this tool's sizeof of the layout
    std::span<const Field> fields;
};

#define ZQ_FIELD(T, f, k, ...)                                                                               \
    Field { #f, offsetof(T, f), sizeof(T::f), Kind::k __VA_OPT__(, ) __VA_ARGS__ }

constexpr const char *WAN_VERDICTS[] = {zq::wan_verdict_text[0], zq::wan_verdict_text[1],
                                        zq::wan_verdict_text[2], zq::wan_verdict_text[3],
                                        zq::wan_verdict_text[4], zq::wan_verdict_text[5]};
static_assert(std::size(WAN_VERDICTS) == std::size(zq::wan_verdict_text));
constexpr const char *DNS_STATES[] = {"Internet reachable", "Internet not reachable"};
constexpr const char *ROUTE_STATES[] = {"route present", "route missing"};
constexpr const char *WAN_PARAMS_BITS[] = {nullptr, "NAT off on an Internet WAN", "VLAN off"};
constexpr const char *PON_REG_STATES[] = {"registered", "no optical link", "not registered"};
constexpr const char *DHCP_FAULT_BITS[] = {"DHCP server not running", "pool not in the LAN subnet",
                                           "gateway differs from the server address"};
constexpr const auto &LAN_SIDE_BITS = zq::LAN_SIDE_NAMES;
constexpr const char *SYS_FAULT_BITS[] = {
    "boa down",         "cwmpClient down",     "omci_app down", "eponoamd down", "memory usage > 80 %",
    "CPU usage > 80 %", "more than one udhcpd"};

constexpr Field WAN_FIELDS[] = {
    ZQ_FIELD(zqSD_wan_diag, nat_enable, u8),
    ZQ_FIELD(zqSD_wan_diag, vlan_enable, u8),
    ZQ_FIELD(zqSD_wan_diag, vlan, u16),
    ZQ_FIELD(zqSD_wan_diag, type, text),
    ZQ_FIELD(zqSD_wan_diag, protocol, text),
    ZQ_FIELD(zqSD_wan_diag, v4_ip, text),
    ZQ_FIELD(zqSD_wan_diag, v4_gateway, text),
    ZQ_FIELD(zqSD_wan_diag, v4_master_dns, text),
    ZQ_FIELD(zqSD_wan_diag, v4_slave_dns, text),
    ZQ_FIELD(zqSD_wan_diag, nas_interface, text),
    ZQ_FIELD(zqSD_wan_diag, service_type, text),
    ZQ_FIELD(zqSD_wan_diag, v6_ip, text),
    ZQ_FIELD(zqSD_wan_diag, v6_gateway, text),
    ZQ_FIELD(zqSD_wan_diag, wan_name, text),
    ZQ_FIELD(zqSD_wan_diag, disable_lan_dhcp, u8),
    ZQ_FIELD(zqSD_wan_diag, itfGroup, u16, nullptr, Meaning::bits, LAN_SIDE_BITS),
    ZQ_FIELD(zqSD_wan_diag, v4_conn_state, u32, nullptr, Meaning::code, WAN_VERDICTS),
    ZQ_FIELD(zqSD_wan_diag, v6_conn_state, u32, nullptr, Meaning::code, WAN_VERDICTS),
    ZQ_FIELD(zqSD_wan_diag, dns_state, u32, nullptr, Meaning::code, DNS_STATES),
    ZQ_FIELD(zqSD_wan_diag, params_state, u32, nullptr, Meaning::bits, WAN_PARAMS_BITS),
    ZQ_FIELD(zqSD_wan_diag, pppoe_state, u32),
    ZQ_FIELD(zqSD_wan_diag, route_state, u32, nullptr, Meaning::code, ROUTE_STATES),
    ZQ_FIELD(zqSD_wan_diag, dhcp_state, u32),
};

constexpr Field PORT_FIELDS[] = {
    ZQ_FIELD(zqSD_port_diag, status, text),
    ZQ_FIELD(zqSD_port_diag, speed, text),
    ZQ_FIELD(zqSD_port_diag, duplex, text),
};

constexpr Field PON_FIELDS[] = {
    ZQ_FIELD(zqSD_pon_diag, pon_mode, text),
    ZQ_FIELD(zqSD_pon_diag, pon_state, text),
    ZQ_FIELD(zqSD_pon_diag, rx_power, f32, "dBm"),
    ZQ_FIELD(zqSD_pon_diag, tx_power, f32, "dBm"),
    ZQ_FIELD(zqSD_pon_diag, customer_ver, text),
    ZQ_FIELD(zqSD_pon_diag, reg_state, u32, nullptr, Meaning::code, PON_REG_STATES),
};

constexpr Field DHCP_FIELDS[] = {
    ZQ_FIELD(zqSD_dhcp_diag, server_running, u8),
    ZQ_FIELD(zqSD_dhcp_diag, interface, text),
    ZQ_FIELD(zqSD_dhcp_diag, ip_addr, text),
    ZQ_FIELD(zqSD_dhcp_diag, pool_addr_start, text),
    ZQ_FIELD(zqSD_dhcp_diag, pool_addr_end, text),
    ZQ_FIELD(zqSD_dhcp_diag, subnet, text),
    ZQ_FIELD(zqSD_dhcp_diag, gateway, text),
    ZQ_FIELD(zqSD_dhcp_diag, dns, text),
    ZQ_FIELD(zqSD_dhcp_diag, secondary_dns, text),
    ZQ_FIELD(zqSD_dhcp_diag, fault_flags, u32, nullptr, Meaning::bits, DHCP_FAULT_BITS),
    ZQ_FIELD(zqSD_dhcp_diag, lan_dhcp_disabled, u32, nullptr, Meaning::bits, LAN_SIDE_BITS),
};

constexpr Field SYS_FIELDS[] = {
    ZQ_FIELD(zqSD_sys_diag, sys_mem_total, u32, "KiB"),
    ZQ_FIELD(zqSD_sys_diag, sys_mem_free, u32, "KiB"),
    ZQ_FIELD(zqSD_sys_diag, sys_mem_usage, u8, "%"),
    ZQ_FIELD(zqSD_sys_diag, sys_cpu_usage, u8, "%"),
    ZQ_FIELD(zqSD_sys_diag, pid_boa, u64),
    ZQ_FIELD(zqSD_sys_diag, pid_cwmpClient, u64),
    ZQ_FIELD(zqSD_sys_diag, pid_omci_oam, u64),
    ZQ_FIELD(zqSD_sys_diag, dnsmasq, text),
    ZQ_FIELD(zqSD_sys_diag, software_version, text),
    ZQ_FIELD(zqSD_sys_diag, fault_flags, u32, nullptr, Meaning::bits, SYS_FAULT_BITS),
};

#undef ZQ_FIELD

constexpr RecordType RECORD_TYPES[] = {
    {WAN_DIAG_DATA, "WAN_DIAG_DATA", sizeof(zqSD_wan_diag), WAN_FIELDS},
    {PORT_DIAG_DATA, "PORT_DIAG_DATA", sizeof(zqSD_port_diag), PORT_FIELDS},
    {PON_DIAG_DATA, "PON_DIAG_DATA", sizeof(zqSD_pon_diag), PON_FIELDS},
    {DHCP_DIAG_DATA, "DHCP_DIAG_DATA", sizeof(zqSD_dhcp_diag), DHCP_FIELDS},
    {SYS_DIAG_DATA, "SYS_DIAG_DATA", sizeof(zqSD_sys_diag), SYS_FIELDS},
};

constexpr size_t width_of(Kind kind) {
    switch (kind) {
    case Kind::u8:
        return 1;
    case Kind::u16:
        return 2;
    case Kind::u32:
    case Kind::f32:
        return 4;
    case Kind::u64:
        return 8;
    case Kind::text:
        return 0;
    }
    return 0;
}

// Every number field's kind matches its member's width, and every field
// lies inside its record.
constexpr bool tables_consistent() {
    for (const RecordType &type : RECORD_TYPES)
        for (const Field &f : type.fields)
            if ((f.kind != Kind::text && width_of(f.kind) != f.width) || f.offset + f.width > type.size)
                return false;
    return true;
}
static_assert(tables_consistent(), "a field table disagrees with zq_diag.h");

const RecordType *find_type(uint32_t code) {
    for (const RecordType &type : RECORD_TYPES)
        if (type.code == code) return &type;
    return nullptr;
}

// A chain longer than every type's maximum of records is broken.
constexpr size_t MAX_NODES = 8 * std::size(RECORD_TYPES);

// ---- Reading fields ---------------------------------------------------------

const unsigned char *field_bytes(const diag_data_node *node, const Field &f) {
    return static_cast<const unsigned char *>(node->data) + f.offset;
}

template <class T> T load(const unsigned char *bytes) {
    T value;
    memcpy(&value, bytes, sizeof(value));
    return value;
}

uint64_t read_unsigned(const unsigned char *bytes, Kind kind) {
    switch (kind) {
    case Kind::u8:
        return load<uint8_t>(bytes);
    case Kind::u16:
        return load<uint16_t>(bytes);
    case Kind::u32:
        return load<uint32_t>(bytes);
    case Kind::u64:
        return load<uint64_t>(bytes);
    case Kind::f32:
    case Kind::text:
        break;
    }
    return 0;
}

// The text of a fixed array: up to its first NUL, or the whole array.
// The text of a field without the line ending that the tool it came from
// printed after it ("GPON\n" from diagM is the value "GPON").
std::string_view read_text(const unsigned char *bytes, size_t width) {
    const char *text = reinterpret_cast<const char *>(bytes);
    std::string_view value(text, strnlen(text, width));
    while (!value.empty() && (value.back() == '\n' || value.back() == '\r')) value.remove_suffix(1);
    return value;
}

// ---- Verdicts not given -----------------------------------------------------
// A WAN record is made by wan_status with every later verdict at 0, which
// reads as one ("Internet reachable", "route present"), and with the
// verdict 2 for an address family the WAN does not carry. Until the step
// that writes a verdict has judged the record, the field is shown as not
// run.

template <size_t N> bool holds(const char (&field)[N], const char *needle) {
    return std::string_view(field, strnlen(field, N)).find(needle) != std::string_view::npos;
}

struct LaterVerdict {
    const char *field;
    const char *step;
    bool (*judges)(const zqSD_wan_diag &); // the records the step judges
};

constexpr LaterVerdict LATER_VERDICTS[] = {
    // wan_status stores 2 for the family a WAN does not carry.
    {"v4_conn_state", "wan_status", [](const zqSD_wan_diag &w) { return holds(w.protocol, "v4"); }},
    {"v6_conn_state", "wan_status", [](const zqSD_wan_diag &w) { return holds(w.protocol, "v6"); }},
    {"dns_state", "dns_status",
     [](const zqSD_wan_diag &w) { return holds(w.service_type, "INTERNET") && w.v4_conn_state <= 1; }},
    {"params_state", "wan_params",
     [](const zqSD_wan_diag &w) { return holds(w.type, "route") && holds(w.protocol, "IPv4"); }},
    {"route_state", "route_status",
     [](const zqSD_wan_diag &w) { return holds(w.type, "route") && holds(w.protocol, "IPv4"); }},
    {"pppoe_state", "pppoe_status",
     [](const zqSD_wan_diag &w) { return holds(w.type, "route-ppp") && w.v4_conn_state > 1; }},
    {"dhcp_state", "dhcp_status", [](const zqSD_wan_diag &w) { return holds(w.type, "route-dhcp"); }},
};

// False when `f` is a later step's verdict that this record has not had.
bool was_judged(const diag_data_node *node, const Field &f, const std::vector<std::string> &steps) {
    if (node->type != WAN_DIAG_DATA) return true;
    for (const LaterVerdict &v : LATER_VERDICTS) {
        if (strcmp(v.field, f.name) != 0) continue;
        zqSD_wan_diag wan;
        memcpy(&wan, node->data, sizeof(wan));
        bool ran = false;
        for (const std::string &step : steps) ran = ran || step == v.step;
        return ran && v.judges(wan);
    }
    return true;
}

// ---- Text view --------------------------------------------------------------

// "bytes" -> "\"bytes\"" with quotes, backslashes and non-printing bytes
// escaped C-style.
std::string quoted(std::string_view bytes) {
    std::string out = "\"";
    for (char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < 0x20 || byte >= 0x7f) {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", byte);
            out += hex;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string label_of(const Field &f, uint64_t value) {
    std::string label;
    if (f.meaning == Meaning::code) {
        if (value < f.labels.size() && f.labels[value]) label = f.labels[value];
    } else if (f.meaning == Meaning::bits) {
        for (size_t bit = 0; bit < 64; ++bit) {
            if (!(value >> bit & 1)) continue;
            const char *name = bit < f.labels.size() ? f.labels[bit] : nullptr;
            label += (label.empty() ? "" : ", ") + (name ? std::string(name) : "bit " + std::to_string(bit));
        }
    }
    return label;
}

std::string text_value(const diag_data_node *node, const Field &f) {
    const unsigned char *bytes = field_bytes(node, f);
    std::string value;
    if (f.kind == Kind::text) return quoted(read_text(bytes, f.width));
    if (f.kind == Kind::f32) {
        value = shortest_float(load<float>(bytes));
    } else {
        const uint64_t number = read_unsigned(bytes, f.kind);
        value = std::to_string(number);
        if (f.meaning == Meaning::bits) {
            char hex[24];
            snprintf(hex, sizeof(hex), "0x%llx", static_cast<unsigned long long>(number));
            value = hex;
        }
        const std::string label = label_of(f, number);
        if (!label.empty()) value += " (" + label + ")";
    }
    if (f.unit) value += std::string(" ") + f.unit;
    return value;
}

size_t name_column(const RecordType &type) {
    size_t width = 0;
    for (const Field &f : type.fields) width = std::max(width, strlen(f.name));
    return width;
}

// ---- JSON view --------------------------------------------------------------

std::string json_value(const diag_data_node *node, const Field &f) {
    const unsigned char *bytes = field_bytes(node, f);
    switch (f.kind) {
    case Kind::text:
        return json_string(read_text(bytes, f.width));
    case Kind::f32:
        return json_float(load<float>(bytes));
    default:
        return std::to_string(read_unsigned(bytes, f.kind));
    }
}

void print_record_json(const diag_data_node *node, const RecordType &type,
                       const std::vector<std::string> &steps, bool last) {
    say("    {\n");
    say("      \"type\": %s,\n", json_string(type.name).c_str());
    say("      \"code\": %u,\n", type.code);
    say("      \"index\": %u,\n", static_cast<unsigned>(node->index));
    say("      \"count\": %u,\n", static_cast<unsigned>(node->count));
    say("      \"fields\": {\n");
    for (size_t i = 0; i < type.fields.size(); ++i) {
        const Field &f = type.fields[i];
        say("        %s: %s%s\n", json_string(f.name).c_str(),
            was_judged(node, f, steps) ? json_value(node, f).c_str() : "null",
            i + 1 < type.fields.size() ? "," : "");
    }
    say("      }\n");
    say("    }%s\n", last ? "" : ",");
}

} // namespace

std::vector<const diag_data_node *> collect_records(std::vector<std::string> &skipped) {
    std::vector<const diag_data_node *> records;
    size_t visited = 0;
    for (const diag_data_node *node = zq_diag_data_chain.next; node; node = node->next) {
        if (++visited > MAX_NODES) {
            skipped.push_back("the record chain is longer than " + std::to_string(MAX_NODES) +
                              " nodes; the rest is not shown");
            break;
        }
        const RecordType *type = find_type(node->type);
        if (!type) {
            skipped.push_back("a record of unknown type " + std::to_string(node->type));
            continue;
        }
        const uint64_t size = get_diag_data_size(node->type);
        if (size != type->size || node->size != size || !node->data) {
            skipped.push_back(std::string("a ") + type->name + " record of " + std::to_string(node->size) +
                              " bytes (the library says " + std::to_string(size) + ", this tool reads " +
                              std::to_string(type->size) + ")");
            continue;
        }
        records.push_back(node);
    }
    return records;
}

void print_records_text(const std::vector<const diag_data_node *> &records,
                        const std::vector<std::string> &steps) {
    if (records.empty()) {
        say("no records\n");
        return;
    }
    for (size_t i = 0; i < records.size(); ++i) {
        const diag_data_node *node = records[i];
        const RecordType *type = find_type(node->type);
        if (!type) continue; // collect_records keeps known types only
        say("%s%s %u/%u\n", i ? "\n" : "", paint(Paint::cyan, type->name).c_str(),
            static_cast<unsigned>(node->index) + 1, static_cast<unsigned>(node->count));
        const int column = static_cast<int>(name_column(*type));
        for (const Field &f : type->fields)
            say("  %-*s  %s\n", column, f.name,
                was_judged(node, f, steps) ? text_value(node, f).c_str()
                                           : paint(Paint::dim, "not run").c_str());
    }
}

void print_records_json(const std::vector<const diag_data_node *> &records, uint32_t mode,
                        const std::vector<std::string> &steps) {
    std::string ran;
    for (const std::string &step : steps) ran += (ran.empty() ? "" : ", ") + json_string(step);
    say("{\n  \"schema\": %s,\n  \"mode\": %u,\n  \"steps\": [%s],\n  \"records\": [%s\n",
        json_string(RECORDS_SCHEMA).c_str(), mode, ran.c_str(), records.empty() ? "]" : "");
    for (size_t i = 0; i < records.size(); ++i)
        if (const RecordType *type = find_type(records[i]->type))
            print_record_json(records[i], *type, steps, i + 1 == records.size());
    say("%s}\n", records.empty() ? "" : "  ]\n");
}

} // namespace zqcli
