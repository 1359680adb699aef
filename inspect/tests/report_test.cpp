// zqdiag-inspect on the lab's real uploads (inspect/fixtures) and on
// hostile ones built here.
#include <archive.h>
#include <archive_entry.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/wait.h>

#include "archive.hpp"
#include "db.hpp"
#include "refusal.hpp"
#include "report.hpp"
#include "text.hpp"
#include "zq_diag.h"

namespace fs = std::filesystem;
using namespace zqinspect;
using json = nlohmann::json;

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

Report fixture(const std::string &scenario, const std::string &name = "11161621dia.tar") {
    const std::string path = std::string(ZQI_FIXTURES) + "/" + scenario + "/" + name;
    return build_report(slurp(path), path);
}

const Exchange *find(const Report &r, const std::string &protocol, const std::string &stopped = "") {
    for (const Exchange &e : r.exchanges)
        if (e.protocol == protocol && (stopped.empty() || e.stopped_at == stopped)) return &e;
    return nullptr;
}
// A pointer into a temporary report would dangle.
const Exchange *find(const Report &&, const std::string &, const std::string & = "") = delete;

// ---- A small JSON Schema check: type, const, enum, required, properties,
// items (what report.schema.json uses), and no key outside properties.
void validate(const json &schema, const json &v, const std::string &at, std::vector<std::string> &errors) {
    const std::string type = schema.value("type", "");
    const auto fail = [&](const std::string &why) { errors.push_back(at + ": " + why); };
    if (type == "object" && !v.is_object()) return fail("not an object");
    if (type == "array" && !v.is_array()) return fail("not an array");
    if (type == "string" && !v.is_string()) return fail("not a string");
    if (type == "integer" && !v.is_number_integer()) return fail("not an integer");
    if (type == "number" && !v.is_number()) return fail("not a number");
    if (type == "boolean" && !v.is_boolean()) return fail("not a boolean");
    if (schema.contains("const") && v != schema["const"]) fail("not " + schema["const"].dump());
    if (schema.contains("enum") &&
        std::find(schema["enum"].begin(), schema["enum"].end(), v) == schema["enum"].end())
        fail(v.dump() + " not in the enum");
    if (type == "object") {
        for (const auto &k : schema.value("required", json::array()))
            if (!v.contains(k.get<std::string>())) fail("missing " + k.get<std::string>());
        if (schema.contains("properties"))
            for (const auto &[k, sub] : v.items()) {
                if (!schema["properties"].contains(k))
                    fail("undocumented key " + k);
                else
                    validate(schema["properties"][k], sub, at + "." + k, errors);
            }
    }
    if (type == "array" && schema.contains("items"))
        for (size_t i = 0; i < v.size(); ++i)
            validate(schema["items"], v[i], at + "[" + std::to_string(i) + "]", errors);
}

// ---- Hostile archives, written with libarchive in memory.
struct Entry {
    std::string name;
    std::string data;
    mode_t type = AE_IFREG;
    std::string link;     // symlink target
    std::string hardlink; // hard link target
    int64_t size = -1;    // declared size, when it differs from data
};

std::string make_tar(const std::vector<Entry> &entries, bool gzip = false) {
    std::vector<char> buf(64 << 20);
    size_t used = 0;
    archive *a = archive_write_new();
    archive_write_set_format_pax_restricted(a);
    if (gzip) archive_write_add_filter_gzip(a);
    archive_write_set_bytes_in_last_block(a, 1);
    archive_write_open_memory(a, buf.data(), buf.size(), &used);
    for (const Entry &e : entries) {
        archive_entry *en = archive_entry_new();
        archive_entry_set_pathname(en, e.name.c_str());
        archive_entry_set_filetype(en, e.type);
        archive_entry_set_perm(en, 0644);
        if (!e.link.empty()) archive_entry_set_symlink(en, e.link.c_str());
        if (!e.hardlink.empty()) archive_entry_set_hardlink(en, e.hardlink.c_str());
        archive_entry_set_size(
            en, e.type == AE_IFREG && e.hardlink.empty() ? static_cast<int64_t>(e.data.size()) : 0);
        archive_write_header(a, en);
        if (!e.data.empty()) archive_write_data(a, e.data.data(), e.data.size());
        archive_entry_free(en);
    }
    archive_write_close(a);
    archive_write_free(a);
    return std::string(buf.data(), used);
}

std::string refusal(const std::string &data, const ArchiveCaps &caps = {}) {
    try {
        build_report(data, "11161621dia.tar", caps);
    } catch (const Refusal &e) {
        return e.what();
    }
    return "";
}

std::string pcap_header(uint32_t snaplen, uint32_t link, uint32_t magic = 0xa1b2c3d4) {
    const uint32_t h[6] = {magic, 0x00040002, 0, 0, snaplen, link};
    return std::string(reinterpret_cast<const char *>(h), sizeof(h));
}
std::string pcap_record(const std::string &bytes, uint32_t caplen, uint32_t len) {
    const uint32_t h[4] = {1, 0, caplen, len};
    return std::string(reinterpret_cast<const char *>(h), sizeof(h)) + bytes;
}

int run_tool(const std::string &args) {
    const int status = system((std::string(ZQI_TOOL) + " " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

// ---- The lab's real uploads --------------------------------------------------

TEST(InspectReport, DiagnosisPackageFromTheLab) {
    const Report r = fixture("pppoe-chap-failure");
    EXPECT_EQ(r.kind, UploadKind::diagnosis);
    ASSERT_EQ(r.upload.times.size(), 1u);
    EXPECT_EQ(r.upload.times[0], "11-16 16:21");
    EXPECT_EQ(fact(r, "pon_status.pon_mode"), "GPON");
    EXPECT_FALSE(fact(r, "sys_status.software_version").empty());
    // The steps in the order written, and the findings of each by level.
    ASSERT_GE(r.log.steps.size(), 9u);
    EXPECT_EQ(r.log.steps.front().method, "port_status");
    EXPECT_EQ(r.log.steps.back().method, "end");
    bool auth_finding = false;
    for (const Step &s : r.log.steps)
        for (const Finding &f : s.findings)
            if (s.method == "pppoe_status" && f.level == DIAG_MSG_ERROR &&
                f.text.find("Auth fail!") != std::string::npos)
                auth_finding = true;
    EXPECT_TRUE(auth_finding);
    // The commands the library ran, with what they printed.
    ASSERT_FALSE(r.commands.empty());
    EXPECT_EQ(r.commands.front().source, "cmd_log");
    bool listing = false;
    for (const Command &c : r.commands) listing |= c.source == "firewall_stat" && c.command == "route -n";
    EXPECT_TRUE(listing);
    // The PPPoE session: the client's CHAP response refused, as the
    // library judged it.
    const Exchange *p = find(r, "pppoe");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->stopped_at, "authentication");
    EXPECT_EQ(p->verdict, 0u);
    ASSERT_EQ(p->findings.size(), 1u);
    EXPECT_EQ(p->findings[0].second, "server 1 (isp1): authentication failed");
    EXPECT_EQ(p->messages.front().name, "PADI");
    EXPECT_EQ(p->messages.back().name, "PADT");
}

TEST(InspectReport, VerdictsOfTheLabsExchanges) {
    // The report holds the exchanges: it must outlive the pointers into it.
    const Report unanswered = fixture("dhcp-no-server");
    const Exchange *none = find(unanswered, "dhcp");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->verdict, 2u);
    EXPECT_EQ(none->stopped_at, "OFFER");
    EXPECT_TRUE(none->server.empty());

    const Report served = fixture("dhcp-server");
    const Exchange *ok = find(served, "dhcp");
    ASSERT_NE(ok, nullptr);
    EXPECT_EQ(ok->verdict, 0u);
    EXPECT_EQ(ok->stopped_at, "complete");
    std::vector<std::string> names;
    for (const Message &m : ok->messages) names.push_back(m.name);
    EXPECT_EQ(names, (std::vector<std::string>{"DISCOVER", "OFFER", "REQUEST", "ACK"}));

    const Report connected = fixture("pppoe-success");
    const Exchange *up = find(connected, "pppoe");
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(up->verdict, 6u);
    EXPECT_EQ(up->stopped_at, "complete");

    // A user capture uploaded as a capture archive: LCP refused, with the
    // options the server asked for.
    const Report cap = fixture("pppoe-lcp-not-agreed", "11161621cap.tar");
    EXPECT_EQ(cap.kind, UploadKind::capture);
    ASSERT_EQ(cap.captures.size(), 1u);
    EXPECT_EQ(cap.captures[0].link_type, "LINUX_SLL2");
    const Exchange *lcp = find(cap, "pppoe");
    ASSERT_NE(lcp, nullptr);
    EXPECT_EQ(lcp->stopped_at, "LCP");
    ASSERT_EQ(lcp->findings.size(), 1u);
    EXPECT_EQ(lcp->findings[0].second,
              "server 1 (isp1): LCP failed; the server asked for MRU 1492, Auth CHAP, MD5");
}

TEST(InspectReport, JsonFollowsItsSchema) {
    const json schema = json::parse(slurp(ZQI_SCHEMA));
    for (const char *s : {"pppoe-chap-failure", "dhcp-server", "pon-unregistered", "pppoe-success"}) {
        std::vector<std::string> errors;
        validate(schema, json::parse(render_json(fixture(s))), s, errors);
        EXPECT_TRUE(errors.empty()) << errors.front();
    }
    std::vector<std::string> errors;
    validate(schema, json::parse(render_json(fixture("pppoe-lcp-not-agreed", "11161621cap.tar"))), "cap",
             errors);
    EXPECT_TRUE(errors.empty()) << errors.front();
    // The check itself catches a report that drifts from the schema.
    json bad = json::parse(render_json(fixture("dhcp-server")));
    bad["exchanges"][0]["verdict"] = "0";
    bad["extra"] = 1;
    errors.clear();
    validate(schema, bad, "bad", errors);
    EXPECT_EQ(errors.size(), 2u);
}

TEST(InspectReport, UploadNames) {
    EXPECT_EQ(parse_upload_name("11161621dia.tar").times, (std::vector<std::string>{"11-16 16:21"}));
    // Seven digits: January 16 or November 6.
    EXPECT_EQ(parse_upload_name("1161621capt.tar").times,
              (std::vector<std::string>{"01-16 16:21", "11-06 16:21"}));
    EXPECT_EQ(parse_upload_name("cap_12.pcap").rotate_number, "12");
    EXPECT_TRUE(parse_upload_name("diag_log.tar").times.empty());
    EXPECT_TRUE(parse_upload_name("13329999dia.tar").times.empty());
}

// ---- Gateway text never runs or reaches a terminal raw ------------------------

TEST(InspectReport, GatewayTextIsEscapedEverywhere) {
    const std::string log = "\n>>>> pon_status diag <<<<\n[error  ]<script>alert(1)</script>\n"
                            "[warn   ]<img src=x onerror=alert(2)> \x1b[31mred\x1b[0m \xff\xfe\n";
    const std::string tar = make_tar({{"diag_log", log, AE_IFREG, "", "", -1},
                                      {"cmd_log", "cmd: [echo \"<b>\"]\n<b>\n\n", AE_IFREG, "", "", -1}});
    const Report r = build_report(tar, "11161621dia.tar");
    const std::string h = render_html(r);
    EXPECT_EQ(h.find("<script"), std::string::npos);
    EXPECT_EQ(h.find("<img"), std::string::npos);
    EXPECT_EQ(h.find("<b>"), std::string::npos);
    EXPECT_NE(h.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
    const std::string t = render_text(r, false);
    EXPECT_EQ(t.find('\x1b'), std::string::npos);
    EXPECT_NE(t.find("\\x1b[31mred"), std::string::npos);
    EXPECT_NE(t.find("\\xff\\xfe"), std::string::npos);
    EXPECT_FALSE(r.notes.empty());
    EXPECT_NO_THROW(json::parse(render_json(r)));
}

TEST(InspectReport, DetailLinesStayUnderTheirFinding) {
    // A line without a level continues the finding before it; the text
    // report indents it under that finding's text.
    const std::string log = "\n>>>> port_status diag <<<<\n[warn   ]Port[2] down\nlink lost at boot\n"
                            "  carrier 0\n[normal ]Port[3] up\n";
    const Report r = build_report(make_tar({{"diag_log", log, AE_IFREG, "", "", -1}}), "11161621dia.tar");
    ASSERT_EQ(r.log.steps.size(), 1u);
    ASSERT_EQ(r.log.steps[0].findings.size(), 2u);
    EXPECT_EQ(r.log.steps[0].findings[0].text, "Port[2] down\nlink lost at boot\n  carrier 0");
    const std::string t = render_text(r, false);
    EXPECT_NE(t.find("  warn     Port[2] down\n            link lost at boot\n              carrier 0\n"
                     "  normal   Port[3] up\n"),
              std::string::npos)
        << t;
}

// ---- Hostile archives ------------------------------------------------------------

TEST(InspectHostile, ArchivesAreRefusedWithAReason) {
    const auto reg = [](std::string name, std::string data = "x") {
        return Entry{std::move(name), std::move(data), AE_IFREG, "", "", -1};
    };
    EXPECT_NE(refusal(make_tar({reg("../diag_log")})).find("'..'"), std::string::npos);
    EXPECT_NE(refusal(make_tar({reg("a/../../diag_log")})).find("'..'"), std::string::npos);
    EXPECT_NE(refusal(make_tar({reg("/etc/passwd")})).find("absolute"), std::string::npos);
    EXPECT_NE(refusal(make_tar({reg("diag_log"), {"cmd_log", "", AE_IFLNK, "/etc/shadow", "", -1}}))
                  .find("symbolic link"),
              std::string::npos);
    EXPECT_NE(
        refusal(make_tar({reg("diag_log"), {"cmd_log", "", AE_IFREG, "", "diag_log", -1}})).find("hard link"),
        std::string::npos);
    EXPECT_NE(refusal(make_tar({{"dev", "", AE_IFCHR, "", "", -1}})).find("character device"),
              std::string::npos);
    EXPECT_NE(refusal(make_tar({{"dev", "", AE_IFBLK, "", "", -1}})).find("block device"), std::string::npos);
    EXPECT_NE(refusal(make_tar({{"fifo", "", AE_IFIFO, "", "", -1}})).find("FIFO"), std::string::npos);
    ArchiveCaps caps;
    caps.members = 3;
    EXPECT_NE(
        refusal(make_tar({reg("diag_log"), reg("a"), reg("b"), reg("c")}), caps).find("more than 3 members"),
        std::string::npos);
    caps = {};
    caps.member_size = 1000;
    EXPECT_NE(refusal(make_tar({reg("diag_log", std::string(1001, 'a'))}), caps).find("over the cap"),
              std::string::npos);
    // A compression bomb: 12 MiB of zeros (under the member cap) in a few KiB of gzip.
    EXPECT_NE(
        refusal(make_tar({reg("diag_log", std::string(12 << 20, '\0'))}, true)).find("compression ratio"),
        std::string::npos);
    const std::string good = make_tar({reg("diag_log", std::string(5000, 'a'))});
    EXPECT_NE(refusal(good.substr(0, 1200)).find("truncated"), std::string::npos);
    std::string corrupt = good;
    corrupt[148] ^= 0x55; // the header's checksum
    EXPECT_FALSE(refusal(corrupt).empty());
    EXPECT_NE(
        refusal("this is no archive at all, only some text that goes on for a while....").find("not a tar"),
        std::string::npos);
    EXPECT_NE(refusal(make_tar({reg("notes.txt")})).find("neither"), std::string::npos);
    EXPECT_EQ(refusal(good), "");
}

TEST(InspectHostile, CapturesAreRefusedWithAReason) {
    const std::string frame(60, '\0');
    const auto cap = [](const std::string &file) {
        return make_tar({{"capture.pcap", file, AE_IFREG, "", "", -1}});
    };
    EXPECT_EQ(refusal(pcap_header(65535, 1) + pcap_record(frame, 60, 60)), "");
    EXPECT_NE(refusal(pcap_header(65535, 1, 0x12345678) + pcap_record(frame, 60, 60)).find("not a tar"),
              std::string::npos);
    EXPECT_NE(refusal(cap(pcap_header(1 << 20, 1) + pcap_record(frame, 60, 60))).find("snap length"),
              std::string::npos);
    EXPECT_NE(refusal(cap(pcap_header(65535, 1) + pcap_record(std::string(300000, 'a'), 300000, 300000)))
                  .find("record"),
              std::string::npos);
    EXPECT_NE(
        refusal(cap(pcap_header(65535, 1) + pcap_record(frame, 60, 60).substr(0, 40))).find("truncated"),
        std::string::npos);
    EXPECT_NE(refusal(cap(pcap_header(65535, 105) + pcap_record(frame, 60, 60))).find("link type 105"),
              std::string::npos);
    EXPECT_NE(refusal(cap(pcap_header(65535, 1) + pcap_record(frame, 60, 50))).find("record length"),
              std::string::npos);
}

TEST(InspectHostile, RefusalWritesNothing) {
    const fs::path dir = fs::temp_directory_path() / ("zqi-refusal-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string hostile = make_tar({{"../escape", "x", AE_IFREG, "", "", -1}});
    std::ofstream(dir / "11161621dia.tar", std::ios::binary) << hostile;
    EXPECT_EQ(run_tool("report " + (dir / "11161621dia.tar").string() + " --format html -o " +
                       (dir / "out.html").string()),
              1);
    EXPECT_FALSE(fs::exists(dir / "out.html"));
    EXPECT_FALSE(fs::exists(dir.parent_path() / "escape"));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);
    EXPECT_EQ(run_tool("report"), 2);
    fs::remove_all(dir);
}

// ---- A fleet ------------------------------------------------------------------

TEST(InspectFleet, IngestLosesNoGoodArchiveAndIsIdempotent) {
    const fs::path dir = fs::temp_directory_path() / ("zqi-fleet-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::copy(ZQI_FIXTURES, dir, fs::copy_options::recursive);
    fs::remove(dir / "make-fixtures");
    std::ofstream(dir / "pppoe-success" / "1161621capt.tar", std::ios::binary) << "not an archive";
    std::ofstream(dir / "dhcp-server" / "11170900dia.tar", std::ios::binary)
        << make_tar({{"diag_log", "x", AE_IFLNK, "/etc/passwd", "", -1}});
    const std::string db_path = (dir / "fleet.db").string();
    ASSERT_EQ(run_tool("ingest " + dir.string() + " --db " + db_path), 0);
    auto db = open_db(db_path);
    EXPECT_EQ(db->query("SELECT COUNT(*) FROM archives WHERE bad = 0")[0][0], "6");
    EXPECT_EQ(db->query("SELECT COUNT(*) FROM archives WHERE bad = 1")[0][0], "2");
    EXPECT_EQ(db->query("SELECT COUNT(*) FROM gateways")[0][0], "6");
    EXPECT_EQ(db->query("SELECT reason FROM archives WHERE name = '11170900dia.tar'")[0][0],
              "member 'diag_log' is a symbolic link");
    EXPECT_EQ(
        db->query(
            "SELECT stopped_at FROM exchanges e JOIN archives a ON a.id = e.archive_id JOIN gateways g ON "
            "g.id = a.gateway_id WHERE g.name = 'pppoe-chap-failure' AND protocol = 'pppoe'")[0][0],
        "authentication");
    const std::string counts =
        db->query("SELECT (SELECT COUNT(*) FROM findings) || '/' || (SELECT COUNT(*) FROM exchanges)")[0][0];
    // Again, and with a copy of an archive under another name: nothing new.
    fs::copy(dir / "dhcp-server" / "11161621dia.tar", dir / "dhcp-server" / "copy.tar");
    ASSERT_EQ(run_tool("ingest " + dir.string() + " --db " + db_path), 0);
    EXPECT_EQ(db->query("SELECT COUNT(*) FROM archives")[0][0], "8");
    EXPECT_EQ(
        db->query("SELECT (SELECT COUNT(*) FROM findings) || '/' || (SELECT COUNT(*) FROM exchanges)")[0][0],
        counts);
    // The journal is the write-ahead log.
    EXPECT_EQ(db->query("PRAGMA journal_mode")[0][0], "wal");
    // Export: one line per archive, finding and exchange, each with the
    // report's schema name and version.
    ASSERT_EQ(run_tool("export --ndjson --db " + db_path + " -o " + (dir / "out.ndjson").string()), 0);
    std::ifstream in(dir / "out.ndjson");
    size_t archives = 0, findings = 0, exchanges = 0;
    for (std::string line; std::getline(in, line);) {
        const json j = json::parse(line);
        EXPECT_EQ(j["schema"], REPORT_SCHEMA);
        EXPECT_EQ(j["version"], REPORT_SCHEMA_VERSION);
        archives += j["type"] == "archive";
        findings += j["type"] == "finding";
        exchanges += j["type"] == "exchange";
    }
    EXPECT_EQ(archives, 8u);
    EXPECT_EQ(std::to_string(findings) + "/" + std::to_string(exchanges), counts);
    fs::remove_all(dir);
}
