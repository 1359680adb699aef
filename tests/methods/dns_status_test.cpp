// dns_status and its two exported probes, against the lab's root servers
// and name servers.
#include "tests/methods/wan_fixture.hpp"

#include "methods/methods.h"

using namespace zq;

namespace {

const char *const ROOTS[] = {"192.5.5.241", "192.36.148.17", "192.203.230.10"};

class DnsStatus : public WanMethod {
  protected:
    static void diagnose() { EXPECT_EQ(zq_get_sys_diag("dns_status", ACTION_DIAG, {}), 0); }
    static zqSD_wan_diag internet(const char *name, uint32_t v4_state = 0) {
        return wan(name, "route-dhcp", "IPv4", "TR069_INTERNET", "192.0.2.10", "192.0.2.1", v4_state);
    }
};

// The exported probes, as another process of the gateway calls them.
TEST_F(DnsStatus, ExportedProbes) {
    zqSD_wan_diag w = internet("A");
    EXPECT_EQ(v4_ping_preset_dns(reinterpret_cast<char *>(&w)), 0);
    EXPECT_EQ(v4_ping_preset_dns(nullptr), -1);
    EXPECT_EQ(if_dns_avaliable(nullptr), 1) << "the record is not read";
    EXPECT_EQ(findings(), "[normal ]DNS is available\n");

    // A source that is no address is left out of the command.
    reset();
    memset(w.v4_ip, ';', sizeof(w.v4_ip)); // no terminator either
    EXPECT_EQ(v4_ping_preset_dns(reinterpret_cast<char *>(&w)), 0);
    EXPECT_EQ(journal_of("timeout"), std::vector<std::string>{"timeout -t 10 ping -4 -c 5 -W 1 192.5.5.241"});
}

} // namespace
