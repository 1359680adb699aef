// The zqdiag command, run as a subprocess inside the gateway lab. The test
// binary links the shipped library itself to hold the permit the way another
// management process would, and to compare the tool's output with a record
// chain of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "cli_support.hpp"
#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace {

using nlohmann::json;

using namespace cli_support;

// ---- Records ----------------------------------------------------------------

std::string type_name(uint32_t code) {
    const std::map<uint32_t, std::string> names = {{WAN_DIAG_DATA, "WAN_DIAG_DATA"},
                                                   {PORT_DIAG_DATA, "PORT_DIAG_DATA"},
                                                   {PON_DIAG_DATA, "PON_DIAG_DATA"},
                                                   {DHCP_DIAG_DATA, "DHCP_DIAG_DATA"},
                                                   {SYS_DIAG_DATA, "SYS_DIAG_DATA"}};
    const auto it = names.find(code);
    return it == names.end() ? "?" : it->second;
}

std::vector<const diag_data_node *> chain_nodes() {
    std::vector<const diag_data_node *> nodes;
    for (const diag_data_node *node = zq_diag_data_chain.next; node && nodes.size() < 64; node = node->next)
        nodes.push_back(node);
    return nodes;
}

template <size_t N> std::string text(const char (&field)[N]) { return std::string(field, strnlen(field, N)); }

// Bytes of a text field that the JSON reader decodes differently: `raw`
// reads back as `shown`.
struct Decoding {
    std::string raw;
    std::string shown;
};

// The fields of a record as the tool must show them, read from this
// process's own copy of the record.
json expected_fields(const diag_data_node &node, const Decoding &decoding) {
    const auto text = [&decoding](const auto &field) {
        std::string value = ::text(field);
        // Shown without the line ending the gateway's tools print.
        while (!value.empty() && (value.back() == '\n' || value.back() == '\r')) value.pop_back();
        if (decoding.raw.empty()) return value;
        for (size_t at = value.find(decoding.raw); at != std::string::npos;
             at = value.find(decoding.raw, at + decoding.shown.size()))
            value.replace(at, decoding.raw.size(), decoding.shown);
        return value;
    };
    switch (node.type) {
    case WAN_DIAG_DATA: {
        const auto &r = *static_cast<const zqSD_wan_diag *>(node.data);
        return {{"nat_enable", r.nat_enable},
                {"vlan_enable", r.vlan_enable},
                {"vlan", r.vlan},
                {"type", text(r.type)},
                {"protocol", text(r.protocol)},
                {"v4_ip", text(r.v4_ip)},
                {"v4_gateway", text(r.v4_gateway)},
                {"v4_master_dns", text(r.v4_master_dns)},
                {"v4_slave_dns", text(r.v4_slave_dns)},
                {"nas_interface", text(r.nas_interface)},
                {"service_type", text(r.service_type)},
                {"v6_ip", text(r.v6_ip)},
                {"v6_gateway", text(r.v6_gateway)},
                {"wan_name", text(r.wan_name)},
                {"disable_lan_dhcp", r.disable_lan_dhcp},
                {"itfGroup", r.itfGroup},
                {"v4_conn_state", r.v4_conn_state},
                {"v6_conn_state", r.v6_conn_state},
                {"dns_state", r.dns_state},
                {"params_state", r.params_state},
                {"pppoe_state", r.pppoe_state},
                {"route_state", r.route_state},
                {"dhcp_state", r.dhcp_state}};
    }
    case PORT_DIAG_DATA: {
        const auto &r = *static_cast<const zqSD_port_diag *>(node.data);
        return {{"status", text(r.status)}, {"speed", text(r.speed)}, {"duplex", text(r.duplex)}};
    }
    case PON_DIAG_DATA: {
        const auto &r = *static_cast<const zqSD_pon_diag *>(node.data);
        return {{"pon_mode", text(r.pon_mode)},
                {"pon_state", text(r.pon_state)},
                {"rx_power", r.rx_power},
                {"tx_power", r.tx_power},
                {"customer_ver", text(r.customer_ver)},
                {"reg_state", r.reg_state}};
    }
    case DHCP_DIAG_DATA: {
        const auto &r = *static_cast<const zqSD_dhcp_diag *>(node.data);
        return {{"server_running", r.server_running},
                {"interface", text(r.interface)},
                {"ip_addr", text(r.ip_addr)},
                {"pool_addr_start", text(r.pool_addr_start)},
                {"pool_addr_end", text(r.pool_addr_end)},
                {"subnet", text(r.subnet)},
                {"gateway", text(r.gateway)},
                {"dns", text(r.dns)},
                {"secondary_dns", text(r.secondary_dns)},
                {"fault_flags", r.fault_flags},
                {"lan_dhcp_disabled", r.lan_dhcp_disabled}};
    }
    case SYS_DIAG_DATA: {
        const auto &r = *static_cast<const zqSD_sys_diag *>(node.data);
        return {{"sys_mem_total", r.sys_mem_total},
                {"sys_mem_free", r.sys_mem_free},
                {"sys_mem_usage", r.sys_mem_usage},
                {"sys_cpu_usage", r.sys_cpu_usage},
                {"pid_boa", r.pid_boa},
                {"pid_cwmpClient", r.pid_cwmpClient},
                {"pid_omci_oam", r.pid_omci_oam},
                {"dnsmasq", text(r.dnsmasq)},
                {"software_version", text(r.software_version)},
                {"fault_flags", r.fault_flags}};
    }
    default:
        ADD_FAILURE() << "a record type this test does not know yet: " << node.type;
        return json::object();
    }
}

// Every record shows where it stands in the chain, and every field of its
// layout by name and value.
void expect_record(const json &record, const diag_data_node &node, const Decoding &decoding) {
    ASSERT_TRUE(record.is_object()) << record.dump();
    ASSERT_TRUE(record.contains("fields") && record["fields"].is_object()) << record.dump();
    json head = record;
    head.erase("fields");
    const json expected_head = {
        {"type", type_name(node.type)}, {"code", node.type}, {"index", node.index}, {"count", node.count}};
    EXPECT_TRUE(head == expected_head) << "differences: " << json::diff(expected_head, head).dump();
    // The record's reals are floats: compared at a float's precision.
    json shown = record["fields"];
    for (json &value : shown)
        if (value.is_number_float()) value = static_cast<float>(value.get<double>());
    json expected = expected_fields(node, decoding);
    // A verdict the diagnosis did not give is null; when it is null is
    // checked against the schema's rules by cli_records_json_schema.
    for (const char *verdict : {"v4_conn_state", "v6_conn_state", "dns_state", "params_state", "pppoe_state",
                                "route_state", "dhcp_state"})
        if (shown.contains(verdict) && shown[verdict].is_null()) expected[verdict] = nullptr;
    EXPECT_TRUE(shown == expected) << "differences: " << json::diff(expected, shown).dump();
}

json parse_json(const std::string &text) {
    json parsed = json::parse(text, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << "not valid JSON:\n" << text;
    return parsed;
}

// ---- Help and usage ---------------------------------------------------------

TEST(CliUsage, HelpForTheToolAndEverySubcommandRunsNothing) {
    const CliResult top = cli({"--help"});
    EXPECT_EQ(top.status, 0);
    for (const std::string name :
         {"diagnose", "repair", "records", "package", "upload", "capture", "permit"}) {
        EXPECT_TRUE(contains(top.out, "  " + name + " ")) << name;
        for (const std::vector<std::string> &args : {std::vector<std::string>{name, "-h"}, {"help", name}}) {
            const CliResult r = cli(args);
            EXPECT_EQ(r.status, 0) << args[0] << " " << args[1];
            EXPECT_EQ(r.out.rfind("usage: zqdiag " + name, 0), 0u) << r.out;
        }
    }
    // Help runs nothing, even next to options that would start a run.
    EXPECT_EQ(cli({"records", "--json", "--help"}).status, 0);
    EXPECT_FALSE(zqlab::file_exists("/tmp/diag_file/diag_log"));
    EXPECT_FALSE(permit_taken());
}

// The tool's own options work after the command as before it.
TEST(CliUsage, ToolOptionsAfterTheCommand) {
    const CliResult coloured = cli({"records", "--mode", "1", "--color", "always"});
    EXPECT_EQ(coloured.status, 0) << coloured.err;
    EXPECT_TRUE(contains(coloured.out, "\033[")) << coloured.out;
    const CliResult verbose = cli({"upload", "-v", "--url", "ftp://u:p@203.0.113.21/x"});
    EXPECT_NE(verbose.status, 2) << verbose.err;
    EXPECT_TRUE(contains(verbose.err, "![")) << "the library's log lines: " << verbose.err;
    // After "--" nothing is the tool's.
    EXPECT_EQ(cli({"permit", "--", "--verbose"}).status, 2);
}

TEST(CliUsage, BadUsageExitsTwoAndRunsNothing) {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"--color", "pink", "permit"},
        {"diagnose", "--bogus"},
        {"diagnose", "--mode", "11"},
        {"diagnose", "--mode=1x"},
        {"diagnose", "extra"},
        {"records", "--json=yes"},
        {"permit", "frobnicate"},
        {"upload"},
        {"upload", "--url", "ftp://h/", "--wan", "9"},
        {"upload", "--url", "ftp://h/", "--protocol", "http"},
        // URLs the library would refuse, judged before any work
        {"upload", "--url", "http://h/"},
        {"upload", "--url", "ftp://h/../x"},
        {"upload", "--url", "ftp://u:p;reboot@h/"},
        {"upload", "--url", "ftp://u@h/"},
        {"upload", "--url", "ftp://h:70000/"},
        {"upload", "--url", "ftp://u:p@10.0.0.1/a/path/that/is/too/long"},
        {"capture", "upload", "--url", "tftp://-h"}};
    for (const auto &args : bad) {
        std::string joined;
        for (const std::string &arg : args) joined += arg + " ";
        const CliResult r = cli(args);
        EXPECT_EQ(r.status, 2) << joined;
        EXPECT_TRUE(contains(r.err, "usage: zqdiag")) << joined << "\n" << r.err;
        EXPECT_TRUE(r.out.empty()) << joined << "\n" << r.out;
    }
    EXPECT_FALSE(zqlab::file_exists("/tmp/diag_file/diag_log"));
    EXPECT_FALSE(zqlab::file_exists("/tmp/diag_file/diag_log.tar"));
    EXPECT_FALSE(permit_taken());
    const CliResult why = cli({"upload", "--url", "ftp://u:secret@h/../x"});
    EXPECT_TRUE(contains(why.err, "bad URL 'ftp://u:****@h/../x': the URL may hold only")) << why.err;
}

// ---- diagnose ---------------------------------------------------------------

TEST(CliDiagnose, ExitStatusFollowsTheFindingsAndEveryFindingIsShown) {
    CliResult r = cli({"diagnose", "--mode", "2"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "Pon registered")) << r.out;
    EXPECT_FALSE(contains(r.out, "[error  ]")) << r.out;
    EXPECT_FALSE(contains(r.out, "port_status")) << "mode 2 is the PON's path only: " << r.out;

    // Each diagnosis removes the log of the one before and writes a new one.
    zqlab::scenario("pon-unregistered");
    r = cli({"diagnose"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "[error  ] Pon is NOT_REGISTERED")) << r.out;
    EXPECT_FALSE(contains(r.out, "Pon registered")) << "a finding of the run before";
    EXPECT_FALSE(contains(r.out, "\033[")) << "colour codes in piped output";
    EXPECT_FALSE(contains(r.out, "pon_status.pon_mode")) << "the record dump is not a finding";
    // Every finding of the log was shown, in order, and nothing else.
    const std::vector<std::string> logged = log_findings(zqlab::read_file("/tmp/diag_file/diag_log"));
    EXPECT_FALSE(logged.empty());
    EXPECT_EQ(shown_findings(r.out), logged);
    EXPECT_FALSE(permit_taken());
}

TEST(CliDiagnose, PermitHeldByAnotherProcessIsReportedAndKept) {
    ASSERT_EQ(get_diag_permit(), 0);
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"diagnose"}, {"repair"}, {"records", "--json"}}) {
        const CliResult r = cli(args);
        EXPECT_EQ(r.status, 3) << args[0];
        EXPECT_TRUE(contains(r.err, "permit is taken")) << r.err;
        EXPECT_FALSE(contains(r.out, "[")) << "no findings: " << r.out;
        EXPECT_TRUE(args[0] != "records" || r.out.empty()) << "no JSON when no diagnosis ran: " << r.out;
        EXPECT_TRUE(permit_taken()) << args[0] << " gave back a permit it did not take";
    }
    release_diag_permit();
}

// Without a manager the library starts the run, but its path search gets no
// permit and no step runs: that is no clean bill.
TEST(CliDiagnose, RunWithoutAManagerIsNoSuccess) {
    zqlab::set("diagm.running", "no");
    const CliResult r = cli({"diagnose"});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "no diagnosis manager")) << r.err;
    EXPECT_FALSE(permit_taken());
}

// A pid file that names no pid is no manager either, and is named as the cause.
TEST(CliDiagnose, PidFileWithoutAPidIsNamedAsTheCause) {
    zqlab::write_file("/var/run/diagM.pid", "garbage\n");
    const CliResult r = cli({"diagnose"});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_TRUE(
        contains(r.err, "no diagnosis manager is running (/var/run/diagM.pid is missing or names no pid)"))
        << r.err;
    EXPECT_FALSE(permit_taken());
}

TEST(CliDiagnose, TimeoutGivesThePermitBack) {
    hang_diagnosis_manager();
    const CliResult r = cli({"diagnose", "--timeout", "1"});
    EXPECT_EQ(r.status, 4) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "timed out after 1 s")) << r.err;
    EXPECT_FALSE(permit_taken());
}

// ---- repair -----------------------------------------------------------------

TEST(CliRepair, DiagnosesFirstAndIsJudgedOnItsOwnFindings) {
    zqlab::scenario("pon-unregistered");
    CliResult r = cli({"repair"});
    // The diagnosis found the unregistered PON (an error); the repair fixed it.
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    const size_t repair = r.out.find("\nRepair\n");
    ASSERT_NE(repair, std::string::npos) << r.out;
    EXPECT_LT(r.out.find("Diagnosis before the repair"), repair) << r.out;
    EXPECT_LT(r.out.find("[error  ] Pon is NOT_REGISTERED"), repair) << r.out;
    EXPECT_GT(r.out.find("== pon_status (fix)"), repair) << r.out;
    EXPECT_TRUE(contains(zqlab::run("flash get PON_DETECT"), "=1"));
    EXPECT_FALSE(permit_taken());

    // A repair that fails is an error of its own.
    zqlab::scenario("pon-unregistered");
    zqlab::set("flash.readonly", "yes");
    r = cli({"repair"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_GT(r.out.find("[error  ] Pon auto detect was turn on fail!"), r.out.find("\nRepair\n")) << r.out;
}

// The repair restarts the dropped daemons and leaves one LAN DHCP server;
// the diagnosis after it shows which findings went.
TEST(CliRepair, RestartsDaemonsLeavesOneServerAndShowsTheChange) {
    zqlab::scenario("restart-fails");
    fast_pings();
    zqlab::set("daemons.broken", "");
    zqlab::set("udhcpd.count", "3");
    const CliResult r = cli({"repair"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    const size_t repair = r.out.find("\nRepair\n");
    const size_t after = r.out.find("\nDiagnosis after the repair, mode 0 (the whole path)\n");
    ASSERT_NE(repair, std::string::npos) << r.out;
    ASSERT_NE(after, std::string::npos) << r.out;
    EXPECT_LT(repair, after);
    EXPECT_TRUE(contains(r.out, "== sys_status (fix)\n"
                                "    [success] The boa process succeeded in being fixed\n"
                                "    [success] The cwmpClient process succeeded in being fixed\n"
                                "    [normal ] 'Multi lan' problem solve\n"))
        << r.out;
    const size_t summary = r.out.find("\nDiagnosis: ", after);
    const std::string changes =
        r.out.substr(after, summary == std::string::npos ? summary : summary + 1 - after);
    for (const char *line : {"  gone sys_status   [error  ] The boa process dropped --Repairable\n",
                             "  gone sys_status   [error  ] The cwmpClient process dropped --Repairable\n",
                             "  gone sys_status   [error  ] Multi lan process exist --Repairable\n",
                             "  new  sys_status   [normal ] The system status diagnosis is normal\n"})
        EXPECT_TRUE(contains(changes, line)) << line << changes;
    EXPECT_FALSE(contains(changes, "port_status")) << "unchanged findings are not listed: " << changes;
    EXPECT_EQ(zqlab::pids("boa").size(), 1u);
    EXPECT_EQ(zqlab::pids("cwmpClient").size(), 1u);
    EXPECT_EQ(zqlab::pids("udhcpd").size(), 1u);
    EXPECT_FALSE(permit_taken());

    // Nothing to repair: no second diagnosis.
    const CliResult healthy = cli({"repair"});
    EXPECT_EQ(healthy.status, 0) << healthy.err;
    EXPECT_TRUE(contains(healthy.out, "    nothing to repair\n")) << healthy.out;
    EXPECT_FALSE(contains(healthy.out, "Diagnosis after the repair")) << healthy.out;
}

// ---- records ----------------------------------------------------------------

struct RecordsCase {
    const char *name;
    const char *scenario;
    const char *custname;     // replaces /etc/custname when not null
    const char *customer_ver; // how the JSON reader decodes it, when not plain text
};

void PrintTo(const RecordsCase &c, std::ostream *os) { *os << c.name; }

class CliRecords : public ::testing::TestWithParam<RecordsCase> {};

// The tool runs its diagnosis first (each run takes the permit and gives it
// back), then this process runs its own and compares record by record.
TEST_P(CliRecords, JsonMatchesTheRecordChain) {
    zqlab::scenario(GetParam().scenario);
    fast_pings();
    if (GetParam().custname) zqlab::write_file("/etc/custname", GetParam().custname);
    const CliResult r = cli({"records", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    const json doc = parse_json(r.out);
    ASSERT_TRUE(doc.is_object()) << r.out;
    EXPECT_EQ(doc.value("mode", 99u), 0u);
    ASSERT_TRUE(doc.contains("records") && doc["records"].is_array()) << r.out;

    std::set<std::string> types;
    for (const json &record : doc["records"])
        if (record.is_object()) types.insert(record.value("type", ""));
    for (const char *type : {"PORT_DIAG_DATA", "PON_DIAG_DATA", "DHCP_DIAG_DATA", "SYS_DIAG_DATA"})
        EXPECT_EQ(types.count(type), 1u) << type;

    ASSERT_EQ(run_spec_entire_diag(0), 0);
    const std::vector<const diag_data_node *> nodes = chain_nodes();
    ASSERT_EQ(doc["records"].size(), nodes.size()) << r.out;
    // The customer name's first line stands in customer_ver and in
    // software_version.
    Decoding decoding;
    if (GetParam().customer_ver) {
        const std::string raw = GetParam().custname, shown = GetParam().customer_ver;
        decoding = {raw.substr(0, raw.find('\n')), shown.substr(0, shown.find('\n'))};
    }
    for (size_t i = 0; i < nodes.size(); ++i) {
        SCOPED_TRACE("record " + std::to_string(i) + " of type " + type_name(nodes[i]->type));
        expect_record(doc["records"][i], *nodes[i], decoding);
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, CliRecords,
                         ::testing::Values(RecordsCase{"Unregistered", "pon-unregistered", nullptr, nullptr},
                                           RecordsCase{"Registered", "healthy-gpon", nullptr, nullptr},
                                           // quote, backslash, tab, a control byte, a stray byte, valid UTF-8
                                           RecordsCase{"OddBytes", "healthy-gpon",
                                                       "Q\"\\\t\x01\xff\xc3\xa9\x7f\n",
                                                       // a stray byte stands for the code point of its value
                                                       "Q\"\\\t\x01\xc3\xbf\xc3\xa9\x7f\n"}),
                         [](const ::testing::TestParamInfo<RecordsCase> &param_info) {
                             return std::string(param_info.param.name);
                         });

TEST(CliRecordsText, ShowsEveryRecordWithItsFields) {
    fast_pings();
    const CliResult r = cli({"records"});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(run_spec_entire_diag(0), 0);
    size_t headers = 0;
    for (const std::string &line : lines_of(r.out))
        if (line.find("_DIAG_DATA ") != std::string::npos && line[0] != ' ') ++headers;
    EXPECT_EQ(headers, chain_nodes().size()) << r.out;
    EXPECT_TRUE(contains(r.out, "-18.52 dBm")) << r.out;
}

// ---- package and permit -----------------------------------------------------

} // namespace
