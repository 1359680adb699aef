// The zqdiag command, run as a subprocess inside the gateway lab. The test
// binary links the shipped library itself to hold the permit the way another
// management process would, and to compare the tool's output with a record
// chain of its own.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "lab/zqlab.hpp"
#include "zq_diag.h"

namespace {

using nlohmann::json;

// ---- Running the tool -------------------------------------------------------

struct CliResult {
    int status = -1; // exit status; 128 + N when signal N ended it
    std::string out;
    std::string err;
};

constexpr const char *OUT_FILE = "/tmp/zqdiag_cli.out";
constexpr const char *ERR_FILE = "/tmp/zqdiag_cli.err";

std::string quote(const std::string &arg) {
    std::string quoted = "'";
    for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string command_line(const std::vector<std::string> &args) {
    std::string line = std::string("exec ") + ZQ_CLI_COMMAND;
    for (const std::string &arg : args) line += " " + quote(arg);
    return line + " >" + OUT_FILE + " 2>" + ERR_FILE;
}

int exit_status(int wait_status) {
    if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
    if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
    return -1;
}

// Starts the tool in the background; its output goes to OUT_FILE/ERR_FILE.
pid_t spawn(const std::vector<std::string> &args) {
    const std::string line = command_line(args);
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

CliResult collect(pid_t pid) {
    CliResult result;
    int wait_status = 0;
    if (pid > 0 && waitpid(pid, &wait_status, 0) == pid) result.status = exit_status(wait_status);
    result.out = zqlab::read_file(OUT_FILE);
    result.err = zqlab::read_file(ERR_FILE);
    return result;
}

CliResult cli(const std::vector<std::string> &args) { return collect(spawn(args)); }

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// ---- Findings ---------------------------------------------------------------

const char *const LEVEL_PREFIXES[] = {"[normal ]", "[success]", "[warn   ]", "[error  ]"};

bool starts_with_level(const std::string &text) {
    for (const char *prefix : LEVEL_PREFIXES)
        if (text.rfind(prefix, 0) == 0) return true;
    return false;
}

// The findings of the diagnosis log, "[level  ]text", the record dump left out.
std::vector<std::string> log_findings(const std::string &log) {
    std::vector<std::string> findings;
    bool in_dump = false;
    for (const std::string &line : lines_of(log)) {
        if (line == ">>>>>>> DIAG DATA <<<<<<<") in_dump = true;
        if (line.rfind(">>>> ", 0) == 0 && line.size() > 10 && line.substr(line.size() - 5) == " <<<<")
            in_dump = false;
        if (!in_dump && starts_with_level(line)) findings.push_back(line);
    }
    return findings;
}

// The findings the tool showed, back in the log's form: the tool indents
// them and puts a blank between the level and the text.
std::vector<std::string> shown_findings(const std::string &out) {
    std::vector<std::string> findings;
    for (const std::string &line : lines_of(out)) {
        const size_t start = line.find_first_not_of(' ');
        if (start == std::string::npos || !starts_with_level(line.substr(start))) continue;
        std::string finding = line.substr(start);
        if (finding.size() > 9 && finding[9] == ' ') finding.erase(9, 1);
        findings.push_back(finding);
    }
    return findings;
}

// ---- The permit and the lab -------------------------------------------------

bool permit_taken() { return is_diag_permit_holding() == 1; }

// diagM answers nothing and hangs: a diagnosis stays in its first step.
void hang_diagnosis_manager() {
    zqlab::write_file("/run/zqlab/override/diagM", "#!/bin/sh\nexec sleep 60\n");
    ASSERT_EQ(zqlab::run_status("chmod +x /run/zqlab/override/diagM"), 0);
}

// ---- Records ----------------------------------------------------------------

const char *type_name(uint32_t code) {
    switch (code) {
    case WAN_DIAG_DATA:
        return "WAN_DIAG_DATA";
    case PORT_DIAG_DATA:
        return "PORT_DIAG_DATA";
    case PON_DIAG_DATA:
        return "PON_DIAG_DATA";
    case DHCP_DIAG_DATA:
        return "DHCP_DIAG_DATA";
    case SYS_DIAG_DATA:
        return "SYS_DIAG_DATA";
    default:
        return "?";
    }
}

std::vector<const diag_data_node *> chain_nodes() {
    std::vector<const diag_data_node *> nodes;
    for (const diag_data_node *node = zq_diag_data_chain.next; node && nodes.size() < 64; node = node->next)
        nodes.push_back(node);
    return nodes;
}

// How a record's text reads once it went through JSON: valid UTF-8 stays,
// every other byte stands for the code point of its value.
std::string decoded_text(const char *field, size_t width) {
    const std::string bytes(field, strnlen(field, width));
    std::string text;
    for (size_t i = 0; i < bytes.size();) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        size_t len = b < 0x80                   ? 1
                     : (b >= 0xc2 && b <= 0xdf) ? 2
                     : (b >= 0xe0 && b <= 0xef) ? 3
                     : (b >= 0xf0 && b <= 0xf4) ? 4
                                                : 0;
        bool valid = len > 0 && i + len <= bytes.size();
        for (size_t k = 1; valid && k < len; ++k)
            valid = (static_cast<unsigned char>(bytes[i + k]) & 0xc0) == 0x80;
        if (valid && len > 1) {
            const auto b1 = static_cast<unsigned char>(bytes[i + 1]);
            valid = !(b == 0xe0 && b1 < 0xa0) && !(b == 0xed && b1 > 0x9f) && !(b == 0xf0 && b1 < 0x90) &&
                    !(b == 0xf4 && b1 > 0x8f);
        }
        if (valid) {
            text.append(bytes, i, len);
            i += len;
        } else {
            text += static_cast<char>(0xc0 | (b >> 6));
            text += static_cast<char>(0x80 | (b & 0x3f));
            ++i;
        }
    }
    return text;
}

// Compares the "fields" object of one JSON record with the record, field by
// field, and finally checks that the object holds no other member.
class FieldCheck {
  public:
    explicit FieldCheck(const json &fields) : fields_(fields) {}

    template <class T> void number(const char *name, T value) {
        if (const json *v = member(name)) {
            EXPECT_TRUE(v->is_number_unsigned()) << name << ": " << v->dump();
            if (v->is_number_unsigned()) {
                EXPECT_EQ(v->get<uint64_t>(), static_cast<uint64_t>(value)) << name;
            }
        }
    }
    void real(const char *name, float value) {
        if (const json *v = member(name)) {
            EXPECT_TRUE(v->is_number()) << name << ": " << v->dump();
            if (v->is_number()) {
                EXPECT_EQ(static_cast<float>(v->get<double>()), value) << name;
            }
        }
    }
    template <size_t N> void text(const char *name, const char (&value)[N]) {
        if (const json *v = member(name)) {
            EXPECT_TRUE(v->is_string()) << name << ": " << v->dump();
            if (v->is_string()) {
                EXPECT_EQ(v->get<std::string>(), decoded_text(value, N)) << name;
            }
        }
    }
    // A field whose value differs between two runs (the CPU load).
    void present(const char *name) { member(name); }

    ~FieldCheck() {
        for (const auto &item : fields_.items())
            EXPECT_TRUE(checked_.count(item.key())) << "unexpected field " << item.key();
    }

  private:
    const json *member(const char *name) {
        checked_.insert(name);
        auto it = fields_.find(name);
        if (it == fields_.end()) {
            ADD_FAILURE() << "field " << name << " missing in " << fields_.dump();
            return nullptr;
        }
        return &*it;
    }

    const json &fields_;
    std::set<std::string> checked_;
};

void expect_wan(const json &fields, const zqSD_wan_diag &r) {
    FieldCheck c(fields);
    c.number("nat_enable", r.nat_enable);
    c.number("vlan_enable", r.vlan_enable);
    c.number("vlan", r.vlan);
    c.text("type", r.type);
    c.text("protocol", r.protocol);
    c.text("v4_ip", r.v4_ip);
    c.text("v4_gateway", r.v4_gateway);
    c.text("v4_master_dns", r.v4_master_dns);
    c.text("v4_slave_dns", r.v4_slave_dns);
    c.text("nas_interface", r.nas_interface);
    c.text("service_type", r.service_type);
    c.text("v6_ip", r.v6_ip);
    c.text("v6_gateway", r.v6_gateway);
    c.text("wan_name", r.wan_name);
    c.number("disable_lan_dhcp", r.disable_lan_dhcp);
    c.number("itfGroup", r.itfGroup);
    c.number("v4_conn_state", r.v4_conn_state);
    c.number("v6_conn_state", r.v6_conn_state);
    c.number("dns_state", r.dns_state);
    c.number("params_state", r.params_state);
    c.number("pppoe_state", r.pppoe_state);
    c.number("route_state", r.route_state);
    c.number("dhcp_state", r.dhcp_state);
}

void expect_port(const json &fields, const zqSD_port_diag &r) {
    FieldCheck c(fields);
    c.text("status", r.status);
    c.text("speed", r.speed);
    c.text("duplex", r.duplex);
}

void expect_pon(const json &fields, const zqSD_pon_diag &r) {
    FieldCheck c(fields);
    c.text("pon_mode", r.pon_mode);
    c.text("pon_state", r.pon_state);
    c.real("rx_power", r.rx_power);
    c.real("tx_power", r.tx_power);
    c.text("customer_ver", r.customer_ver);
    c.number("reg_state", r.reg_state);
}

void expect_dhcp(const json &fields, const zqSD_dhcp_diag &r) {
    FieldCheck c(fields);
    c.number("server_running", r.server_running);
    c.text("interface", r.interface);
    c.text("ip_addr", r.ip_addr);
    c.text("pool_addr_start", r.pool_addr_start);
    c.text("pool_addr_end", r.pool_addr_end);
    c.text("subnet", r.subnet);
    c.text("gateway", r.gateway);
    c.text("dns", r.dns);
    c.text("secondary_dns", r.secondary_dns);
    c.number("fault_flags", r.fault_flags);
    c.number("lan_dhcp_disabled", r.lan_dhcp_disabled);
}

void expect_sys(const json &fields, const zqSD_sys_diag &r) {
    constexpr uint32_t CPU_FAULT = 32; // the host's CPU load differs between two runs
    FieldCheck c(fields);
    c.number("sys_mem_total", r.sys_mem_total);
    c.number("sys_mem_free", r.sys_mem_free);
    c.number("sys_mem_usage", r.sys_mem_usage);
    c.present("sys_cpu_usage");
    c.number("pid_boa", r.pid_boa);
    c.number("pid_cwmpClient", r.pid_cwmpClient);
    c.number("pid_omci_oam", r.pid_omci_oam);
    c.text("dnsmasq", r.dnsmasq);
    c.text("software_version", r.software_version);
    if (fields.contains("fault_flags") && fields["fault_flags"].is_number_unsigned()) {
        EXPECT_EQ(fields["fault_flags"].get<uint32_t>() & ~CPU_FAULT, r.fault_flags & ~CPU_FAULT);
    }
    c.present("fault_flags");
}

void expect_record(const json &record, const diag_data_node &node) {
    ASSERT_TRUE(record.is_object()) << record.dump();
    EXPECT_EQ(record.value("type", ""), type_name(node.type));
    EXPECT_EQ(record.value("code", 0u), node.type);
    EXPECT_EQ(record.value("index", 999u), node.index);
    EXPECT_EQ(record.value("count", 999u), node.count);
    ASSERT_TRUE(record.contains("fields") && record["fields"].is_object()) << record.dump();
    ASSERT_EQ(node.size, get_diag_data_size(node.type));
    const json &fields = record["fields"];
    switch (node.type) {
    case WAN_DIAG_DATA:
        return expect_wan(fields, *static_cast<const zqSD_wan_diag *>(node.data));
    case PORT_DIAG_DATA:
        return expect_port(fields, *static_cast<const zqSD_port_diag *>(node.data));
    case PON_DIAG_DATA:
        return expect_pon(fields, *static_cast<const zqSD_pon_diag *>(node.data));
    case DHCP_DIAG_DATA:
        return expect_dhcp(fields, *static_cast<const zqSD_dhcp_diag *>(node.data));
    case SYS_DIAG_DATA:
        return expect_sys(fields, *static_cast<const zqSD_sys_diag *>(node.data));
    default:
        ADD_FAILURE() << "unknown record type " << node.type;
    }
}

json parse_json(const std::string &text) {
    json parsed = json::parse(text, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << "not valid JSON:\n" << text;
    return parsed;
}

// ---- Help and usage ---------------------------------------------------------

const std::vector<std::string> SUBCOMMANDS = {"diagnose", "repair", "records", "package", "permit"};

TEST(CliUsage, HelpForTheToolAndEverySubcommand) {
    for (const std::vector<std::string> &args : {std::vector<std::string>{"--help"}, {"-h"}, {"help"}}) {
        const CliResult r = cli(args);
        EXPECT_EQ(r.status, 0) << args[0];
        EXPECT_EQ(r.out.rfind("usage: zqdiag ", 0), 0u) << r.out;
        for (const std::string &name : SUBCOMMANDS) EXPECT_TRUE(contains(r.out, "  " + name + " ")) << name;
    }
    for (const std::string &name : SUBCOMMANDS) {
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{name, "--help"}, {name, "-h"}, {"help", name}}) {
            const CliResult r = cli(args);
            EXPECT_EQ(r.status, 0) << args[0] << " " << args[1];
            EXPECT_EQ(r.out.rfind("usage: zqdiag " + name, 0), 0u) << r.out;
            EXPECT_TRUE(contains(r.out, "--help")) << r.out;
            EXPECT_TRUE(r.err.empty()) << r.err;
        }
    }
    // Help runs nothing, even next to options that would start a run.
    EXPECT_EQ(cli({"records", "--json", "--help"}).status, 0);
    EXPECT_FALSE(zqlab::file_exists("/tmp/diag_file/diag_log"));
    EXPECT_FALSE(permit_taken());
}

TEST(CliUsage, RepairHelpSaysItDiagnosesFirst) {
    const CliResult r = cli({"repair", "--help"});
    std::string lower = r.out;
    for (char &c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    EXPECT_TRUE(contains(lower, "first runs a diagnosis")) << r.out;
    EXPECT_TRUE(contains(cli({"--help"}).out, "'repair' diagnoses first"));
}

TEST(CliUsage, BadUsageExitsTwoAndRunsNothing) {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"--bogus", "permit"},
        {"--color", "pink", "permit"},
        {"diagnose", "--bogus"},
        {"diagnose", "--mode"},
        {"diagnose", "--mode", "x"},
        {"diagnose", "--mode", "-1"},
        {"diagnose", "--mode", "11"},
        {"diagnose", "--mode", "4294967296"},
        {"diagnose", "--mode", " 1"},
        {"diagnose", "--mode=1x"},
        {"diagnose", "--timeout", "0"},
        {"diagnose", "extra"},
        {"repair", "--mode", "99"},
        {"records", "--json=yes"},
        {"records", "--mode", ""},
        {"package", "now"},
        {"permit", "frobnicate"},
        {"permit", "release", "now"},
        {"help", "frobnicate"},
    };
    for (const auto &args : bad) {
        std::string joined;
        for (const std::string &arg : args) joined += arg + " ";
        const CliResult r = cli(args);
        EXPECT_EQ(r.status, 2) << joined;
        EXPECT_TRUE(contains(r.err, "usage: zqdiag")) << joined << "\n" << r.err;
        EXPECT_TRUE(r.out.empty()) << joined << "\n" << r.out;
    }
    EXPECT_FALSE(zqlab::file_exists("/tmp/diag_file/diag_log"));
    EXPECT_FALSE(permit_taken());
}

// ---- diagnose ---------------------------------------------------------------

TEST(CliDiagnose, ErrorFindingGivesNonZeroExitAndEveryFindingIsShown) {
    zqlab::scenario("pon-unregistered");
    const CliResult r = cli({"diagnose"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "pon_status")) << r.out;
    EXPECT_TRUE(contains(r.out, "[error  ] Pon is NOT_REGISTERED")) << r.out;
    EXPECT_FALSE(contains(r.out, "\033[")) << "colour codes in piped output";
    EXPECT_FALSE(contains(r.out, "pon_status.pon_mode")) << "the record dump is not a finding";
    // Every finding of the log was shown, in order, and nothing else.
    const std::vector<std::string> logged = log_findings(zqlab::read_file("/tmp/diag_file/diag_log"));
    EXPECT_FALSE(logged.empty());
    EXPECT_EQ(shown_findings(r.out), logged);
    EXPECT_FALSE(permit_taken());
}

TEST(CliDiagnose, FollowsTheNewLogOfEachRun) {
    // Each diagnosis removes the log of the one before and writes a new one.
    ASSERT_NE(cli({"diagnose", "--mode", "2"}).status, 3);
    zqlab::set("pon.state", "NOT_REGISTERED");
    const CliResult r = cli({"diagnose", "--mode", "2"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    const std::vector<std::string> logged = log_findings(zqlab::read_file("/tmp/diag_file/diag_log"));
    EXPECT_TRUE(contains(r.out, "[error  ] Pon is NOT_REGISTERED")) << r.out;
    EXPECT_EQ(shown_findings(r.out), logged);
    EXPECT_FALSE(contains(r.out, "Pon registered")) << "a finding of the run before";
}

TEST(CliDiagnose, RunWithoutErrorsGivesExitZero) {
    const CliResult r = cli({"diagnose", "--mode", "2"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "Pon registered")) << r.out;
    EXPECT_TRUE(contains(r.out, " 0 error")) << r.out;
    EXPECT_FALSE(contains(r.out, "[error  ]")) << r.out;
}

TEST(CliDiagnose, ModeNarrowsThePath) {
    const CliResult r = cli({"diagnose", "--mode", "2"});
    EXPECT_TRUE(contains(r.out, "== pon_status (diag)")) << r.out;
    EXPECT_FALSE(contains(r.out, "port_status")) << r.out;
    EXPECT_FALSE(contains(r.out, "sys_status")) << r.out;
}

TEST(CliDiagnose, PermitHeldByAnotherProcessIsReportedAndKept) {
    ASSERT_EQ(get_diag_permit(), 0);
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"diagnose"}, {"repair"}, {"records", "--json"}}) {
        const CliResult r = cli(args);
        EXPECT_EQ(r.status, 3) << args[0];
        EXPECT_TRUE(contains(r.err, "unavailable")) << r.err;
        EXPECT_TRUE(contains(r.err, "permit is taken")) << r.err;
        EXPECT_FALSE(contains(r.out, "[")) << "no findings: " << r.out;
        EXPECT_TRUE(permit_taken()) << args[0] << " gave back a permit it did not take";
    }
    EXPECT_TRUE(cli({"records", "--json"}).out.empty()) << "no JSON when no diagnosis ran";
    release_diag_permit();
}

TEST(CliDiagnose, AlarmBitsAndAMissingManagerAreExplained) {
    zqlab::set("alarm", "0x10");
    CliResult r = cli({"diagnose"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(contains(r.err, "high CPU usage")) << r.err;
    EXPECT_FALSE(contains(r.err, "high memory usage")) << r.err;

    zqlab::set("alarm", "0x08");
    r = cli({"diagnose"});
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(contains(r.err, "high memory usage")) << r.err;

    // Without a manager the library starts the run, but its path search gets
    // no permit and no step runs.
    zqlab::set("alarm", "0");
    zqlab::set("diagm.running", "no");
    r = cli({"diagnose"});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "did not run")) << r.err;
    EXPECT_TRUE(contains(r.err, "no diagnosis manager")) << r.err;
    EXPECT_FALSE(permit_taken());
}

TEST(CliDiagnose, TimeoutGivesThePermitBack) {
    hang_diagnosis_manager();
    const CliResult r = cli({"diagnose", "--timeout", "1"});
    EXPECT_EQ(r.status, 4) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "timed out after 1 s")) << r.err;
    EXPECT_FALSE(permit_taken());
}

TEST(CliDiagnose, InterruptGivesThePermitBack) {
    hang_diagnosis_manager();
    const pid_t pid = spawn({"diagnose"});
    ASSERT_GT(pid, 0);
    // The run holds the permit from its first step on, and hangs there.
    for (int i = 0; i < 6000 && !permit_taken(); ++i) usleep(10000);
    ASSERT_TRUE(permit_taken());
    kill(pid, SIGINT);
    const CliResult r = collect(pid);
    EXPECT_EQ(r.status, 130) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "interrupted")) << r.err;
    EXPECT_FALSE(permit_taken());
}

// ---- repair -----------------------------------------------------------------

TEST(CliRepair, DiagnosesFirstAndIsJudgedOnItsOwnFindings) {
    zqlab::scenario("pon-unregistered");
    const CliResult r = cli({"repair"});
    // The diagnosis found the unregistered PON (an error); the repair fixed it.
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    const size_t diagnosis = r.out.find("Diagnosis before the repair");
    const size_t repair = r.out.find("\nRepair\n");
    ASSERT_NE(diagnosis, std::string::npos) << r.out;
    ASSERT_NE(repair, std::string::npos) << r.out;
    EXPECT_LT(diagnosis, repair);
    EXPECT_NE(r.out.find("[error  ] Pon is NOT_REGISTERED"), std::string::npos);
    EXPECT_LT(r.out.find("[error  ] Pon is NOT_REGISTERED"), repair);
    EXPECT_GT(r.out.find("== pon_status (fix)"), repair) << r.out;
    EXPECT_TRUE(contains(zqlab::run("flash get PON_DETECT"), "=1"));
    EXPECT_FALSE(permit_taken());
}

TEST(CliRepair, ErrorOfTheRepairGivesNonZeroExit) {
    zqlab::scenario("pon-unregistered");
    zqlab::set("flash.readonly", "yes");
    const CliResult r = cli({"repair"});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_GT(r.out.find("[error  ] Pon auto detect was turn on fail!"), r.out.find("\nRepair\n")) << r.out;
}

// ---- records ----------------------------------------------------------------

struct RecordsCase {
    const char *name;
    const char *scenario;
    const char *custname; // replaces /etc/custname when not null
};

void PrintTo(const RecordsCase &c, std::ostream *os) { *os << c.name; }

class CliRecords : public ::testing::TestWithParam<RecordsCase> {};

// The tool runs its diagnosis first (each run takes the permit and gives it
// back), then this process runs its own and compares record by record.
TEST_P(CliRecords, JsonMatchesTheRecordChain) {
    zqlab::scenario(GetParam().scenario);
    if (GetParam().custname) zqlab::write_file("/etc/custname", GetParam().custname);
    const CliResult r = cli({"records", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    const json doc = parse_json(r.out);
    ASSERT_TRUE(doc.is_object()) << r.out;
    EXPECT_EQ(doc.value("mode", 99u), 0u);
    ASSERT_TRUE(doc.contains("records") && doc["records"].is_array()) << r.out;

    ASSERT_EQ(run_spec_entire_diag(0), 0);
    const std::vector<const diag_data_node *> nodes = chain_nodes();
    EXPECT_FALSE(nodes.empty());
    ASSERT_EQ(doc["records"].size(), nodes.size()) << r.out;
    for (size_t i = 0; i < nodes.size(); ++i) {
        SCOPED_TRACE("record " + std::to_string(i) + " of type " + type_name(nodes[i]->type));
        expect_record(doc["records"][i], *nodes[i]);
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, CliRecords,
                         ::testing::Values(RecordsCase{"Healthy", "healthy-gpon", nullptr},
                                           RecordsCase{"Unregistered", "pon-unregistered", nullptr},
                                           RecordsCase{"TwoWans", "bridge-wan", nullptr},
                                           // quote, backslash, tab, a control byte, a stray byte, valid UTF-8
                                           RecordsCase{"OddBytes", "healthy-gpon",
                                                       "Q\"\\\t\x01\xff\xc3\xa9\x7f\n"}),
                         [](const ::testing::TestParamInfo<RecordsCase> &param_info) {
                             return std::string(param_info.param.name);
                         });

TEST(CliRecordsText, ShowsEveryRecordWithItsFields) {
    const CliResult r = cli({"records"});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(run_spec_entire_diag(0), 0);
    size_t headers = 0;
    for (const std::string &line : lines_of(r.out))
        if (line.find("_DIAG_DATA ") != std::string::npos && line[0] != ' ') ++headers;
    EXPECT_EQ(headers, chain_nodes().size()) << r.out;
    EXPECT_TRUE(contains(r.out, "PON_DIAG_DATA 1/1")) << r.out;
    EXPECT_TRUE(contains(r.out, "rx_power")) << r.out;
    EXPECT_TRUE(contains(r.out, "-18.52 dBm")) << r.out;
    EXPECT_TRUE(contains(r.out, "(registered)")) << r.out;
}

// ---- Colour -----------------------------------------------------------------

TEST(CliOutput, ColourOnlyOnRequestAndNeverInJson) {
    EXPECT_FALSE(contains(cli({"diagnose", "--mode", "2"}).out, "\033["));
    EXPECT_TRUE(contains(cli({"--color", "always", "diagnose", "--mode", "2"}).out, "\033["));
    const CliResult r = cli({"--color=always", "records", "--json", "--mode", "2"});
    EXPECT_EQ(r.status, 0);
    EXPECT_FALSE(contains(r.out, "\033["));
    EXPECT_TRUE(parse_json(r.out).is_object());
}

// ---- package ----------------------------------------------------------------

TEST(CliPackage, ListsTheMembersOfTheArchive) {
    ASSERT_NE(cli({"diagnose"}).status, 3);
    const CliResult r = cli({"package"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "/tmp/diag_file/diag_log.tar")) << r.out;
    const std::vector<std::string> members = lines_of(zqlab::run("tar -tf /tmp/diag_file/diag_log.tar"));
    ASSERT_FALSE(members.empty());
    for (const std::string &member : members) EXPECT_TRUE(contains(r.out, "  " + member + "\n")) << member;
    EXPECT_TRUE(contains(r.out, "  diag_log\n")) << r.out;
}

TEST(CliPackage, NothingToPackBeforeAnyDiagnosis) {
    ASSERT_FALSE(zqlab::file_exists("/tmp/diag_file"));
    const CliResult r = cli({"package"});
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_TRUE(contains(r.err, "nothing to pack")) << r.err;
}

// ---- permit -----------------------------------------------------------------

// The status line of one alarm bit.
std::string alarm_line(const std::string &out, const char *bit) {
    const size_t at = out.find(bit);
    if (at == std::string::npos) return "";
    const size_t begin = out.rfind('\n', at) + 1;
    return out.substr(begin, out.find('\n', at) - begin);
}

TEST(CliPermit, StatusShowsThePermitAndTheAlarmBits) {
    CliResult r = cli({"permit"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "permit: free")) << r.out;
    EXPECT_TRUE(contains(r.out, "alarm word: 0x00000000")) << r.out;
    EXPECT_TRUE(contains(r.out, "diagnosis available: yes")) << r.out;
    for (const char *bit : {"ALARM_HIGH_CPU", "ALARM_HIGH_MEMORY"})
        EXPECT_NE(alarm_line(r.out, bit).find(" clear "), std::string::npos) << r.out;

    ASSERT_EQ(get_diag_permit(), 0);
    zqlab::set("alarm", "0x18");
    r = cli({"permit", "status"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "permit: taken")) << r.out;
    EXPECT_TRUE(contains(r.out, "alarm word: 0x00000018")) << r.out;
    for (const char *bit : {"ALARM_HIGH_CPU", "ALARM_HIGH_MEMORY"})
        EXPECT_NE(alarm_line(r.out, bit).find(" set "), std::string::npos) << r.out;
    EXPECT_TRUE(contains(r.out, "diagnosis available: no")) << r.out;
    EXPECT_TRUE(permit_taken()) << "status changes nothing";
    release_diag_permit();
}

TEST(CliPermit, ReleaseFreesThePermitAndNeverRaisesIt) {
    ASSERT_EQ(get_diag_permit(), 0);
    CliResult r = cli({"permit", "release"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "permit released")) << r.out;
    EXPECT_FALSE(permit_taken());

    r = cli({"permit", "release"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(contains(r.out, "nothing to release")) << r.out;
    // A free permit stays a single permit: it can be taken once.
    EXPECT_EQ(get_diag_permit(), 0);
    EXPECT_EQ(get_diag_permit(), -1);
    release_diag_permit();
}

} // namespace
