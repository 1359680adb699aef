// dns_status and its two exported probes, against the lab's root servers
// and name servers.
#include "tests/methods/wan_fixture.hpp"

#include "methods/methods.h"

using namespace zq;

namespace {

const char *const ROOTS[] = {"192.5.5.241", "192.36.148.17", "192.203.230.10"};

std::string ping_of(const char *root) {
    return std::string("timeout -t 10 ping -4 -c 5 -W 1 ") + root + " -I 192.0.2.10";
}
std::string lookup_of(const char *name) { return std::string("timeout -t 5 nslookup ") + name; }

class DnsStatus : public WanMethod {
  protected:
    static void diagnose() { EXPECT_EQ(zq_get_sys_diag("dns_status", ACTION_DIAG, {}), 0); }
    static zqSD_wan_diag internet(const char *name, uint32_t v4_state = 0) {
        return wan(name, "route-dhcp", "IPv4", "TR069_INTERNET", "192.0.2.10", "192.0.2.1", v4_state);
    }
};

TEST_F(DnsStatus, OnlyUpInternetWansAreProbed) {
    zqSD_wan_diag down = internet("down", WAN_GATEWAY_UNREACHABLE);
    down.dns_state = 7;
    store(down);
    store(wan("voip", "route-static", "IPv4", "VOIP", "10.9.9.10", "10.9.9.1"));
    diagnose();
    EXPECT_EQ(findings(), "");
    EXPECT_TRUE(zqlab::journal().empty());
    EXPECT_EQ(wan_records().at(0).dns_state, 7u) << "left as it was";
}

// One name check for the run, then one connectivity finding per WAN; the
// first root server that answers ends the probing, the first name that
// resolves ends the lookups.
TEST_F(DnsStatus, TwoWansOneNameCheck) {
    store(internet("A"));
    store(internet("B", WAN_CONNECT_UNSTABLE));
    diagnose();
    EXPECT_EQ(findings(), "[normal ]DNS is available\n"
                          "[normal ]A [V4] Internet connectivity is normal\n"
                          "[normal ]B [V4] Internet connectivity is normal\n");
    EXPECT_EQ(journal_of("timeout"),
              (std::vector<std::string>{lookup_of("www.example.com"), ping_of(ROOTS[0]), ping_of(ROOTS[0])}));
    for (const zqSD_wan_diag &w : wan_records()) EXPECT_EQ(w.dns_state, 0u);
    EXPECT_TRUE(
        has(zqlab::isp_run("cat /run/zqlab/isp/dns.log"), "query[A] www.example.com from 192.0.2.10"));
}

// Silent root servers are passed over in order until one answers; names
// that do not resolve are all tried.
TEST_F(DnsStatus, SilentRootsAndUnknownNames) {
    zqlab::set(std::string("isp.ping.") + ROOTS[0], "none");
    zqlab::set(std::string("isp.ping.") + ROOTS[1], "none");
    zqlab::unset("isp.hosts");
    store(internet("A"));
    diagnose();
    EXPECT_EQ(findings(), "[error  ]DNS is unavailable\n"
                          "[normal ]A [V4] Internet connectivity is normal\n");
    EXPECT_EQ(journal_of("timeout"),
              (std::vector<std::string>{lookup_of("www.example.com"), lookup_of("www.example.net"),
                                        ping_of(ROOTS[0]), ping_of(ROOTS[1]), ping_of(ROOTS[2])}));
    EXPECT_EQ(wan_records().at(0).dns_state, 0u);
}

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
