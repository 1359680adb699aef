// wan_params: NAT and VLAN of every routed IPv4 WAN, from the records alone.
#include "tests/methods/wan_fixture.hpp"

namespace {

class WanParams : public WanMethod {
  protected:
    static uint32_t diagnose() {
        uint32_t result = 99;
        EXPECT_EQ(zq_get_sys_diag("wan_params", ACTION_DIAG, zq_args(nullptr, 0, &result, 4)), 0);
        return result;
    }
    static zqSD_wan_diag routed(const char *name, const char *service, uint8_t nat, uint8_t vlan,
                                const char *protocol = "IPv4", const char *type = "route-dhcp") {
        zqSD_wan_diag w = wan(name, type, protocol, service, "", "");
        w.nat_enable = nat;
        w.vlan_enable = vlan;
        w.params_state = 9;
        return w;
    }
};

TEST_F(WanParams, FlagsAndFindingsPerRoutedIpv4Wan) {
    store(routed("A", "TR069_INTERNET", 1, 1));
    store(routed("B", "INTERNET", 0, 0));
    store(routed("C", "Other", 0, 1));
    store(routed("D", "VOIP", 0, 1));  // not an Internet WAN: its NAT is not judged
    store(routed("E", "OTHER", 1, 0)); // "Other" is case-sensitive
    store(routed("F", "INTERNET", 0, 0, "v4"));
    store(routed("G", "INTERNET", 0, 0, "IPv4", "bridge"));
    EXPECT_EQ(diagnose(), 0u) << "the last record is no routed IPv4 WAN";
    EXPECT_EQ(findings(), "[normal ]A[ipv4] params:\n[normal ]\tNat enable\n"
                          "[error  ]B[ipv4] params:\n[error  ]\tNat not enable\n[warn   ]\tVlan not enable\n"
                          "[error  ]C[ipv4] params:\n[error  ]\tNat not enable\n"
                          "[normal ]D[ipv4] params:\n[normal ]\tNat enable\n"
                          "[warn   ]E[ipv4] params:\n[normal ]\tNat enable\n[warn   ]\tVlan not enable\n");
    std::vector<uint32_t> states;
    for (const zqSD_wan_diag &w : wan_records()) states.push_back(w.params_state);
    EXPECT_EQ(states, (std::vector<uint32_t>{0, 6, 2, 0, 4, 9, 9}));

    reset();
    store(routed("B", "INTERNET", 0, 0));
    EXPECT_EQ(diagnose(), 6u) << "the flags of the last WAN";
}

TEST_F(WanParams, NoRecordNoFinding) {
    EXPECT_EQ(diagnose(), 0u);
    EXPECT_EQ(findings(), "");
    uint32_t word = 0;
    EXPECT_EQ(zq_get_sys_diag("wan_params", ACTION_DIAG, zq_args(nullptr, 0, &word, 8)), -4);
}

} // namespace
