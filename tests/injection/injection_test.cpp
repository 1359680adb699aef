// Every payload of the injection table through every field of outside text the library uses (control blocks,
// requests, files, decoded captures, the diagnosis manager's answers), as the method reading it does. A
// capture filter reaches tcpdump quoted: tests/capture/filter_corpus_test.cpp.
#include "injection.hpp"

namespace {

using namespace injection;
using capture_support::request;

// Prints the payload table for scripts/injection.
TEST(Payloads, Table) {
    std::string list;
    for (size_t i = 0; i < payloads().size(); ++i)
        if (i == 0 || payloads()[i - 1].family != payloads()[i].family) list += payloads()[i].family + " ";
    printf("injection-table: %zu payloads in families %s\n", payloads().size(), list.c_str());
}

// Refused, the capture's archive stays on the gateway, stamped.
TEST_F(Injection, BlockUrls) {
    run_field({"g_cap_exec.url", {URL_REFUSALS}, true}, [](const payload &p, bool &) {
        zqlab::write_file(ZQ_CAPTURE_TAR, "the capture\n");
        g_cap_exec = {};
        fill(g_cap_exec.url, p.text);
        g_cap_exec.action = 2;
        EXPECT_EQ(capture_set(), 0);
        for (int i = 0; i < 3000 && zq::worker_busy(g_cap_exec); ++i) usleep(10000);
        EXPECT_EQ(zq::get_state(g_cap_exec), EXEC_UPLOAD_FAIL);
        EXPECT_TRUE(zqlab::file_exists("/tmp/capture_file/11161621cap.tar"));
    });
    run_field({"g_cap_exec.url (rotate mode)", {URL_REFUSALS}, true}, [](const payload &p, bool &) {
        g_cap_exec = {};
        fill(g_cap_exec.url, p.text);
        g_cap_exec.mode = 1;
        g_cap_exec.action = 1;
        EXPECT_EQ(capture_set(), -1);
        EXPECT_TRUE(zqlab::pids("tcpdump").empty());
    });
}

// The capture block's new archive is what goes out, whatever the old name held.
TEST_F(Injection, FileNamesOfTheBlocks) {
    run_field({"g_diag_exec.file_name", {NAME_REFUSALS}, true, true}, [](const payload &p, bool &) {
        std::remove("/tmp/diag_file/diag_log.tar");
        fill(g_diag_exec.file_name, p.text);
        upload_params params{};
        diagnose_upload_setting(&params);
    });
    run_field({"g_cap_exec.file_name", {NAME_REFUSALS}, true, true}, [](const payload &p, bool &) {
        zqlab::write_file(ZQ_CAPTURE_TAR, "the capture\n");
        fill(g_cap_exec.file_name, p.text);
        upload_params params{};
        capture_upload_setting(&params);
        EXPECT_STREQ(params.local_file, "/tmp/capture_file/11161621cap.tar");
        EXPECT_TRUE(zqlab::file_exists(params.local_file));
    });
}

// A request names its interface; the capture block names it by index, and the diagnosis manager names the
// interface.
TEST_F(Injection, CaptureInterfaces) {
    run_field({"tcpdump_req.interface", {INTERFACE_REFUSALS}, true, true}, [](const payload &p, bool &) {
        zq_get_tcpdump_file(request(0, 10, p.text));
        stop_any_capture();
    });
    run_field({"diagM wan_info nas_interface (capture)", {INTERFACE_REFUSALS, NUL_REFUSAL}, true},
              [](const payload &p, bool &) {
                  zqlab::put("wan.2.nas_interface", p.text);
                  g_cap_exec = {};
                  g_cap_exec.kind = 1;
                  g_cap_exec.action = 1;
                  if (capture_set() == 0) { // a NUL's prefix is an interface
                      g_cap_exec.action = 0;
                      capture_set();
                  }
              });
}

// Names a caller passes: a process's and a step's method. (A record's source address for the preset DNS
// pings goes through the ping source check: methods/methods_test.cpp.)
TEST_F(Injection, NamesFromTheCaller) {
    run_field({"zq_get_pid name", {"invalid process name"}, true, true},
              [](const payload &p, bool &) { EXPECT_EQ(zq_get_pid(p.text.c_str()), 0u); });
    run_field({"zq_intact_diag_run step.method", {"can't find the method"}, true},
              [](const payload &p, bool &) {
                  zq_diag_step s{};
                  fill(s.method, p.text);
                  s.action = ACTION_DIAG;
                  zq_intact_diag_run(&s);
                  EXPECT_NE(std::string(zq_diag_msg).find("processing fail"), std::string::npos);
              });
}

// Configuration files, only ever read: each value kept is a word of the payload, cut to its field.
TEST_F(Injection, ConfigurationFiles) {
    run_field({"/var/udhcpd/udhcpd.conf"}, [](const payload &p, bool &kept) {
        std::string conf;
        for (const char *keyword :
             {"interface ", "server ", "start ", "end ", "opt subnet ", "opt router ", "opt dns "})
            conf += keyword + p.text + "\n";
        zqlab::write_file("/var/udhcpd/udhcpd.conf", conf);
        zqSD_dhcp_diag block{};
        zq_get_sys_diag("dhcp_config", ACTION_STRUCT, zq_args(nullptr, 0, &block, 130));
        kept = block.server_running == 1;
        for (const char(*field)[16] : {&block.interface, &block.ip_addr, &block.pool_addr_start,
                                       &block.pool_addr_end, &block.subnet, &block.gateway, &block.dns})
            kept = kept && p.text.find(text_of(*field)) != std::string::npos;
    });
    run_field({"/var/dnsmasq.conf"}, [](const payload &p, bool &kept) {
        zqlab::write_file("/var/dnsmasq.conf", "server=1" + p.text + "\nserver=198.51.100.53@nas0_0\n");
        zqSD_sys_diag block{};
        read_dns_servers(block);
        kept = zq::terminated(block.dnsmasq);
    });
    run_field({"/etc/version, /etc/custname"}, [](const payload &p, bool &kept) {
        zqlab::write_file("/etc/version", p.text + "\n");
        zqlab::write_file("/etc/custname", p.text + "\n");
        zqSD_sys_diag block{};
        char customer[20] = {};
        read_software_version(block);
        zq_get_customver(customer);
        kept = zq::terminated(block.software_version) && (p.text + "\n").find(text_of(customer)) == 0;
    });
}

// Files that hold a number: the capture allowance and the clock's state.
TEST_F(Injection, NumberFiles) {
    run_field({ZQ_CAPTURE_ALLOWANCE, {NUMBER_REFUSAL}, true}, [](const payload &p, bool &) {
        zqlab::write_file(ZQ_CAPTURE_ALLOWANCE, p.text);
        EXPECT_LE(get_max_size_of_tcpdump_file(), 3u);
    });
    run_field({"/tmp/timeStatus", {NUMBER_REFUSAL}, true}, [](const payload &p, bool &) {
        zqlab::write_file("/tmp/timeStatus", p.text);
        EXPECT_EQ(is_time_synced(), 0);
    });
}

TEST_F(Injection, ManagerPidFile) {
    const std::string pid_file = zqlab::read_file("/var/run/diagM.pid");
    const int signals = zqlab::sigusr2_count();
    run_field({"/var/run/diagM.pid", {NUMBER_REFUSAL, "is no running diagnosis manager"}, true},
              [](const payload &p, bool &) {
                  zqlab::write_file("/var/run/diagM.pid", p.text);
                  if (get_diag_permit() == 0) release_diag_permit();
                  notify_diag_manager();
              });
    zqlab::write_file("/var/run/diagM.pid", pid_file);
    EXPECT_EQ(zqlab::sigusr2_count(), signals) << "the manager was signalled through a pid it does not have";
}

// Text tcpdump printed about packets, only ever read: a PPPoE discovery's Service-Name, a DHCP request's
// Hostname.
TEST_F(Injection, TextsOfTheDecodedCapture) {
    run_field({"decoded capture: PPPoE Service-Name"}, [](const payload &p, bool &kept) {
        const std::string padi =
            "nas0_1 Out PPPoE PADI [Service-Name \"" + p.text + "\"] [Host-Uniq 0x00000004]\n";
        zqlab::write_file(ZQ_CAPTURE_PARSE, padi + padi + padi);
        zq_diag_msg_reset();
        kept = zq_check_pppoe_error() == 5 &&
               std::string(zq_diag_msg).find("[warn   ]\tNo servers respond!\n") == 0;
    });
    run_field({"decoded capture: DHCP Hostname"}, [](const payload &p, bool &kept) {
        const std::string discover = "nas0_0 Out IP 0.0.0.0.68 > 255.255.255.255.67: BOOTP/DHCP\n"
                                     "\t    DHCP-Message (53), length 1: Discover\n"
                                     "\t    Hostname (12), length 9: \"";
        const std::string offer = "\"\nnas0_0 In IP 100.64.0.1.67 > 100.64.0.10.68: BOOTP/DHCP\n"
                                  "\t    DHCP-Message (53), length 1: Offer\n";
        zqlab::write_file(ZQ_CAPTURE_PARSE, discover + p.text + offer);
        kept = dhcp_packet_flags() == 3;
    });
}

// The same texts sent by the lab's peers (lab/scenarios/peer-shell-text) as PPPoE services and a DHCP
// hostname, in a real capture of a WAN restart read by the two protocol methods.
TEST_F(Injection, CaptureTextFromTheLabsPeers) {
    zqlab::scenario("peer-shell-text");
    lay_canaries();
    std::string dhcp, pppoe;
    capture_support::log_of([&] {
        step("wan_status");
        step("dhcp_status");
        dhcp = zq_diag_msg;
        step("pppoe_status");
        pppoe = zq_diag_msg;
    });
    const bool touched = canary_touched();
    EXPECT_FALSE(touched);
    // The texts did cross the link, and came back as data.
    const std::string decoded = zqlab::run("tcpdump -v -n -r /tmp/capture_file/capture.pcap 2>/dev/null");
    EXPECT_NE(decoded.find("Hostname (12), length 32: \"h;touch${IFS}/tmp/zq-canary-made\""),
              std::string::npos)
        << decoded.substr(0, 3000);
    EXPECT_NE(dhcp.find("\tDhcp server responded"), std::string::npos) << dhcp;
    for (const char *server : {"[normal ]Requested server1 ($(touch${IFS}/tmp/zq-canary-made)): \n",
                               "[normal ]Requested server2 (`touch${IFS}/tmp/zq-canary-made`): \n",
                               "[normal ]Requested server3 (x;rm${IFS}-f${IFS}/tmp/zq-canary-k): \n"})
        EXPECT_NE(pppoe.find(server), std::string::npos) << pppoe;
    report("decoded capture from the lab's peers", 4, touched, 0, !touched * 4);
}

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

// A refused address leaves a DHCP WAN judged as one without its address (a NUL's prefix may be a real one).
// Only the first row counts the second WAN in; the IPv6 rows judge a WAN that carries IPv6 alone.
void address_row(const char *key, bool v6, size_t wans) {
    if (v6) {
        zqlab::put("wan.0.protocol", "IPv6");
        zqlab::put("wan.0.v6_ip", "2001:db8:1::10");
        zqlab::put("wan.0.v6_gateway", "2001:db8:1::1");
    }
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
TEST_F(ManagerAnswers, WanIpv6Address) { address_row("v6_ip", true, 1); }
TEST_F(ManagerAnswers, WanIpv6Gateway) { address_row("v6_gateway", true, 1); }

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

// Texts that only name or classify a WAN: kept as reported, cut to their fields; the name also into a
// wan_status step's findings (its WAN has no address: judged by its type, without a ping).
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
