// Helpers of the protocol method tests: WAN records as wan_status stores
// them, and fixtures of what tcpdump printed.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "engine/engine.h"
#include "engine/util.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace wanlab {

// Stores a WAN record that is down, as wan_status would (texts cut to
// their fields).
inline void store_down_wan(const char *name, const char *ifc, const char *type) {
    zqSD_wan_diag wan{};
    zq::copy(wan.wan_name, name);
    zq::copy(wan.nas_interface, ifc);
    zq::copy(wan.type, type);
    zq::copy(wan.protocol, "IPv4");
    wan.v4_conn_state = zq::contains(type, "ppp") ? WAN_PPP_SERVICE_ERROR : WAN_DHCP_SERVICE_ERROR;
    zq_diag_record(WAN_DIAG_DATA, &wan, sizeof(wan));
}

inline const zqSD_wan_diag *wan_record(int position) {
    const diag_data_node *node = zq_search_diag_record(WAN_DIAG_DATA);
    for (int i = 0; node && i < position; ++i) node = node->next;
    return node ? static_cast<const zqSD_wan_diag *>(node->data) : nullptr;
}

// What changes from one run to the next (transaction ids, IP ids, the
// veth's random MAC address) becomes "N"; the seconds a DHCP client has
// been trying go altogether (tcpdump leaves them out while they are 0, and a
// loaded machine can take a second between two packets); the rest is
// compared as tcpdump printed it.
inline bool is_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }
inline bool is_mac_at(const std::string &t, size_t i) {
    if (i + 17 > t.size()) return false;
    for (size_t k = 0; k < 17; ++k)
        if (k % 3 == 2 ? t[i + k] != ':' : !is_hex(t[i + k])) return false;
    return true;
}
inline bool is_digit(char c) { return c >= '0' && c <= '9'; }
inline std::string normalized(const std::string &text) {
    struct numbered {
        const char *prefix;
        bool (*digit)(char);
        const char *suffix; // must follow the number
        const char *shown;  // what stands for prefix and number
    };
    static const numbered fields[] = {{"xid 0x", is_hex, "", "xid 0xN"},
                                      {", id ", is_digit, ", offset", ", id N"},
                                      {", secs ", is_digit, "", ""}};
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (is_mac_at(text, i)) {
            out += "N";
            i += 17;
            continue;
        }
        bool replaced = false;
        for (const numbered &f : fields) {
            const size_t n = strlen(f.prefix);
            if (text.compare(i, n, f.prefix) != 0) continue;
            size_t end = i + n;
            while (end < text.size() && f.digit(text[end])) ++end;
            if (end == i + n || text.compare(end, strlen(f.suffix), f.suffix) != 0) continue;
            out.append(f.shown);
            i = end;
            replaced = true;
            break;
        }
        if (!replaced) out += text[i++];
    }
    return out;
}

// The decoded packets with each run of retries kept once: how many times a
// client repeats a request within the capture depends on how fast a loaded
// machine runs it. A packet is a line that starts without a blank and the
// lines under it; two packets are the same when they differ only in the
// PPP identifier that each retry counts up.
inline std::string without_retries(const std::string &text) {
    std::string out, last;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = at;
        do {
            end = text.find('\n', end);
            end = end == std::string::npos ? text.size() : end + 1;
        } while (end < text.size() && (text[end] == ' ' || text[end] == '\t'));
        std::string packet = text.substr(at, end - at), key = packet;
        const size_t id = key.find("), id ");
        if (id != std::string::npos) {
            size_t digits = id + 6;
            while (digits < key.size() && is_digit(key[digits])) ++digits;
            key.replace(id + 6, digits - (id + 6), "N");
        }
        if (key != last) out += packet;
        last = key;
        at = end;
    }
    return out;
}

// The fixture's text; with ZQ_UPDATE_FIXTURES set in the environment it is
// first rewritten with `actual`.
inline std::string fixture(const std::string &name, const std::string &actual) {
    const std::string path = std::string(ZQ_TEST_DIR) + "/fixtures/" + name;
    if (getenv("ZQ_UPDATE_FIXTURES")) std::ofstream(path) << actual;
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::string fixture(const std::string &name) {
    std::ifstream in(std::string(ZQ_TEST_DIR) + "/fixtures/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::string decoded_text() { return zqlab::read_file("/tmp/capture_file/capture_parse"); }

// What the library wrote to its technical log while `fn` ran.
template <class Fn> std::string log_of(Fn &&fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

// True when `log` holds the line "![<func> <line>] <message>".
inline bool logged_as(const std::string &log, const std::string &func, const std::string &message) {
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const std::string lead = "![" + func + " ";
        const size_t close = line.find("] ");
        if (line.compare(0, lead.size(), lead) == 0 && close != std::string::npos &&
            line.substr(close + 2) == message)
            return true;
    }
    return false;
}

} // namespace wanlab
