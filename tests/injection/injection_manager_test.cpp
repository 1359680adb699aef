// Every payload of the injection table through every answer of the diagnosis manager the library reads.
#include "injection.hpp"

namespace {

using namespace injection;

// The records of type T a step of `method` leaves, with `value` as the manager's answer for `key`.
template <class T>
std::vector<T> stepped(const char *method, const std::string &key, const std::string &value) {
    zqlab::put(key, value);
    clear_diag_chain();
    step(method);
    return records<T>();
}

// WAN 0's status block as the struct getter reads it, with the payload in its `key`.
zqSD_wan_diag wan0_block(const char *key, const payload &p) {
    zqlab::put(std::string("wan.0.") + key, p.text);
    zqSD_wan_diag wan{};
    const uint32_t index = 0;
    zq_get_sys_diag("wan_status", ACTION_STRUCT, zq_args(&index, sizeof(index), &wan, WAN_BLOCK_SIZE));
    return wan;
}

// WAN 0's record after a wan_status step with the payload in its `key`. With the lab's second WAN counted in
// (`wans` 2, lab/scenarios/injection), that one must be judged as before, whatever WAN 0 reported.
zqSD_wan_diag wan0_judged(const char *key, const payload &p, size_t wans) {
    zqlab::put("wan.num", std::to_string(wans));
    auto stored = stepped<zqSD_wan_diag>("wan_status", std::string("wan.0.") + key, p.text);
    EXPECT_EQ(stored.size(), wans);
    stored.resize(wans);
    if (wans == 2) {
        EXPECT_EQ(stored[1].v4_conn_state, WAN_CONNECT_NORMAL) << "WAN 1 changed with WAN 0's " << key;
    }
    return stored[0];
}

using ManagerAnswers = Injection;

// A refused address leaves the WAN judged by its type: a DHCP WAN without its address (a NUL's prefix may be
// a real address, and be pinged). The second WAN is counted in (and pinged) in the first row only; the IPv6
// rows judge a WAN that carries IPv6 alone.
void address_row(const char *key, bool v6, size_t wans) {
    const std::string label = std::string("diagM wan_info ") + key;
    run_field(
        {label.c_str(), {"is no IPv4 address", "is no IPv6 address", "is longer than", NUL_REFUSAL}, true},
        [&](const payload &p, bool &) {
            const zqSD_wan_diag wan = wan0_judged(key, p, wans);
            if (!p.nul()) {
                EXPECT_EQ(v6 ? wan.v6_conn_state : wan.v4_conn_state, WAN_DHCP_SERVICE_ERROR);
            }
        });
}

TEST_F(ManagerAnswers, WanIpv4Address) { address_row("v4_ip", false, 2); }
TEST_F(ManagerAnswers, WanIpv4Gateway) { address_row("v4_gateway", false, 1); }
TEST_F(ManagerAnswers, WanIpv6Address) {
    zqlab::put("wan.0.protocol", "IPv6");
    zqlab::put("wan.0.v6_gateway", "2001:db8:1::1");
    address_row("v6_ip", true, 1);
}
TEST_F(ManagerAnswers, WanIpv6Gateway) {
    zqlab::put("wan.0.protocol", "IPv6");
    zqlab::put("wan.0.v6_ip", "2001:db8:1::10");
    address_row("v6_gateway", true, 1);
}

// The interface the protocol methods narrow a decoded capture to.
TEST_F(ManagerAnswers, WanInterfaceForTheDecodedCapture) {
    zqlab::write_file(ZQ_CAPTURE_PARSE,
                      "nas0_0 Out ifindex 3 IP 0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP\n");
    run_field({"diagM wan_info nas_interface (capture filters)",
               {"invalid interface name", "is longer than", NUL_REFUSAL},
               true},
              [](const payload &p, bool &) {
                  const zqSD_wan_diag wan = wan0_block("nas_interface", p);
                  char interface[sizeof(wan.nas_interface) + 1] = {};
                  zq::copy(interface, wan.nas_interface);
                  dhcp_filter_special(interface);
                  pppoe_filter_special(interface);
              });
}

// Texts that only name or classify a WAN: kept as reported, cut to their fields. The name is also followed
// into a wan_status step's findings (its WAN has no address: judged by its type, without a ping); the others
// only choose later steps, from the record.
void text_row(const char *key, size_t size, size_t offset, bool judged) {
    run_field({(std::string("diagM wan_info ") + key).c_str(), {NUL_REFUSAL}},
              [&](const payload &p, bool &kept) {
                  const zqSD_wan_diag wan = judged ? wan0_judged(key, p, 1) : wan0_block(key, p);
                  const char *field = reinterpret_cast<const char *>(&wan) + offset;
                  const std::string text = as_read(p.text, size);
                  kept = std::string(field, strnlen(field, size)) == text &&
                         (!judged || std::string(zq_diag_msg).find(text + "[v4] ") != std::string::npos);
              });
}
#define ZQ_TEXT_ROW(key, judged)                                                                             \
    text_row(#key, sizeof(zqSD_wan_diag::key), offsetof(zqSD_wan_diag, key), judged)

TEST_F(ManagerAnswers, WanName) {
    zqlab::put("wan.0.v4_ip", "");
    ZQ_TEXT_ROW(wan_name, true);
}
TEST_F(ManagerAnswers, WanType) { ZQ_TEXT_ROW(type, false); }
TEST_F(ManagerAnswers, WanProtocol) { ZQ_TEXT_ROW(protocol, false); }
TEST_F(ManagerAnswers, WanServiceType) { ZQ_TEXT_ROW(service_type, false); }

// Bridged WANs are not pinged: what is counted is what matters here. The leading number counts, as atoi reads
// it (at most 32 WANs, of which the chain keeps the first eight that are not bridged).
TEST_F(ManagerAnswers, WanCount) {
    zqlab::put("wan.0.type", "bridge");
    zqlab::put("wan.1.type", "bridge");
    run_field({"diagM wan_info wan_num", {NUMBER_REFUSAL, NUL_REFUSAL}, true}, [](const payload &p, bool &) {
        const int count = atoi(as_read(p.text, 4096).c_str());
        const size_t stored = count > 10 ? 8 : count < 2 ? 0 : count - 2;
        EXPECT_EQ(stepped<zqSD_wan_diag>("wan_status", "wan.num", p.text).size(), stored);
    });
}

TEST_F(ManagerAnswers, PortCountAndStatus) {
    run_field({"diagM port_info port_num", {NUMBER_REFUSAL, NUL_REFUSAL}, true},
              [](const payload &p, bool &) {
                  EXPECT_GE(stepped<zqSD_port_diag>("port_status", "port.num", p.text).size(), 1u);
              });
    zqlab::put("port.num", "1");
    run_field({"diagM port_info status", {NUL_REFUSAL}}, [](const payload &p, bool &kept) {
        const auto ports = stepped<zqSD_port_diag>("port_status", "port.0.status", p.text);
        kept = ports.size() == 1 && text_of(ports[0].status) == as_read(p.text, sizeof(ports[0].status));
    });
}

// The PON answers end with a line end, which the texts keep. Each is put back after its row: the next row
// reads it too.
TEST_F(ManagerAnswers, PonAnswers) {
    for (const std::string key : {"state", "mode", "rx_power"}) {
        const std::string answer = zqlab::get("pon." + key);
        run_field({("diagM pon_info pon_" + key).c_str(), {NUL_REFUSAL}}, [&](const payload &p, bool &kept) {
            const auto pon = stepped<zqSD_pon_diag>("pon_status", "pon." + key, p.text);
            const std::string text = p.text + "\n";
            kept = pon.size() == 1 &&
                   (key == "state"  ? text_of(pon[0].pon_state) == as_read(text, sizeof(pon[0].pon_state))
                    : key == "mode" ? text_of(pon[0].pon_mode) == as_read(text, sizeof(pon[0].pon_mode))
                                    : pon[0].rx_power ==
                                          static_cast<float>(strtod(as_read(text, 4096).c_str(), nullptr)));
        });
        zqlab::put("pon." + key, answer);
    }
}

// The route for an upload's server; the two settings only a yes or a no is read from.
TEST_F(ManagerAnswers, RouteAndSettings) {
    run_field({"diagM wan_route answer", {NUMBER_REFUSAL, NUL_REFUSAL}, true}, [](const payload &p, bool &) {
        zqlab::put("diagm.wan_route", p.text);
        upload_params params{};
        zq::copy(params.host, "203.0.113.21");
        params.wan_index = 1;
        add_upload_route(&params);
    });
    run_field({"diagM diag_state, tr069_enable", {NUL_REFUSAL}}, [](const payload &p, bool &kept) {
        zqlab::put("diagm.diag_state", p.text);
        zqlab::put("diagm.tr069_enable", p.text);
        EXPECT_EQ(is_self_diagnose_enable(), p.text.find("enable") != std::string::npos ? 1 : 0);
        EXPECT_EQ(is_tr069_enable(), as_read(p.text + "\n", 4096).find('1') != std::string::npos ? 1 : 0);
        kept = true;
    });
}

} // namespace
