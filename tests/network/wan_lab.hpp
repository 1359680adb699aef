// Helpers of the protocol method tests: a fresh chain and message, and WAN
// records as wan_status stores them.
#pragma once

#include <gtest/gtest.h>

#include "engine/engine.h"
#include "engine/util.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace wanlab {

class Fresh : public ::testing::Test {
  protected:
    void SetUp() override {
        clear_diag_chain();
        zq_diag_msg_reset();
    }
};

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

} // namespace wanlab
