// Helpers of the protocol method tests: WAN records as wan_status stores
// them, and fixtures of what tcpdump printed.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "engine/engine.h"
#include "engine/util.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

namespace wanlab {

// Stores a WAN record that is down, as wan_status would.
inline void store_down_wan(const char *name, const char *ifc, const char *type) {
    zqSD_wan_diag wan{};
    strncpy(wan.wan_name, name, sizeof(wan.wan_name) - 1);
    strncpy(wan.nas_interface, ifc, sizeof(wan.nas_interface) - 1);
    strncpy(wan.type, type, sizeof(wan.type) - 1);
    strncpy(wan.protocol, "IPv4", sizeof(wan.protocol) - 1);
    wan.v4_conn_state = zq::contains(type, "ppp") ? WAN_PPP_SERVICE_ERROR : WAN_DHCP_SERVICE_ERROR;
    zq_diag_record(WAN_DIAG_DATA, &wan, sizeof(wan));
}

inline const zqSD_wan_diag *wan_record(int position) {
    const diag_data_node *node = zq_search_diag_record(WAN_DIAG_DATA);
    for (int i = 0; node && i < position; ++i) node = node->next;
    return node ? static_cast<const zqSD_wan_diag *>(node->data) : nullptr;
}

// What changes from one run to the next (transaction ids, IP ids, seconds
// elapsed, the veth's random MAC address) is blanked out; the rest is
// compared as tcpdump printed it.
inline std::string normalized(const std::string &text) {
    static const std::regex varying(
        R"((xid 0x)[0-9a-f]+|(, id )[0-9]+(, offset)|(secs )[0-9]+|([0-9a-f]{2}:){5}[0-9a-f]{2})");
    return std::regex_replace(text, varying, "$1$2$4N$3");
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

} // namespace wanlab
