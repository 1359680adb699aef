// ingest, query and export: a fleet's uploads as one database.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "commands.hpp"
#include "db.hpp"
#include "refusal.hpp"
#include "report.hpp"
#include "text.hpp"
#include "zq_diag.h"

namespace zqinspect {

namespace {

constexpr int EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 2;
constexpr const char *DEFAULT_DB = "zqdiag-inspect.db";
constexpr size_t BATCH = 256; // archives per transaction

int usage_error(const std::string &reason) {
    fprintf(stderr, "zqdiag-inspect: %s\nTry 'zqdiag-inspect --help'.\n", reason.c_str());
    return EXIT_USAGE;
}

struct File {
    std::string path;
    std::string gateway; // the directory the server stored it under
    uint64_t size = 0;
    int64_t mtime = 0;
};

bool is_own_file(const std::string &name) {
    return name.find(DEFAULT_DB) != std::string::npos || name.ends_with(".db") || name.ends_with(".db-wal") ||
           name.ends_with(".db-shm");
}

// Every plain file under `dir`, handed to `visit` as it is found (a
// directory at a time: the memory does not grow with the fleet), links and
// other kinds left alone; the gateway is named by the first directory
// under the root.
template <typename Visit>
void walk(const std::string &root, const std::string &dir, const std::string &gateway, Visit &visit,
          int depth) {
    if (depth > 16) return;
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (const dirent *e = readdir(d))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        std::string path = dir;
        path += '/';
        path += name;
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode))
            walk(root, path, gateway.empty() ? name : gateway, visit, depth + 1);
        else if (S_ISREG(st.st_mode) && !is_own_file(name))
            visit(File{path, gateway.empty() ? "(top)" : gateway, static_cast<uint64_t>(st.st_size),
                       static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec});
    }
}

std::string db_target(const std::string &given, const std::string &first_dir) {
    if (!given.empty()) return given;
    return first_dir + "/" + DEFAULT_DB;
}

int64_t next_id(Db &db, const char *table) {
    const auto rows = db.query(std::string("SELECT COALESCE(MAX(id), 0) FROM ") + table);
    return rows.empty() ? 1 : std::stoll(rows[0][0].empty() ? "0" : rows[0][0]) + 1;
}

class Ingest {
  public:
    explicit Ingest(Db &db) : db_(db) {
        next_gateway_ = next_id(db, "gateways");
        next_archive_ = next_id(db, "archives");
    }

    // Files one upload; returns false when it was already filed.
    bool file(const File &f, bool &bad) {
        bad = false;
        const std::string size = std::to_string(f.size), mtime = std::to_string(f.mtime);
        // A path is stored as shown (escaped): a name the server took from a
        // gateway need not be UTF-8, and PostgreSQL refuses text that is not.
        const std::string path = escaped(f.path);
        // Unchanged since it was filed (same path, size and time): its hash
        // is known and it is not read again.
        const auto known = db_.query("SELECT sha256 FROM files WHERE path = ? AND size = ? AND mtime = ?",
                                     {path, size, mtime});
        if (!known.empty()) return false;
        std::string data;
        std::string sha;
        Report r;
        std::string reason;
        try {
            data = read_input_file(f.path);
            sha = sha256_hex(data);
            db_.exec("DELETE FROM files WHERE path = ?", {path});
            db_.exec("INSERT INTO files (path, size, mtime, sha256) VALUES (?, ?, ?, ?)",
                     {path, size, mtime, sha});
            if (!db_.query("SELECT 1 FROM archives WHERE sha256 = ?", {sha}).empty()) return false;
            r = build_report(data, f.path);
        } catch (const Refusal &e) {
            if (sha.empty()) return false; // unreadable now: tried again next time
            reason = e.what();
            bad = true;
        }
        const std::string gateway = gateway_id(f.gateway);
        const std::string archive = std::to_string(next_archive_++);
        const std::string name = escaped(f.path.substr(f.path.rfind('/') + 1));
        if (bad) {
            const UploadName u = parse_upload_name(name);
            db_.exec(
                "INSERT INTO archives (id, gateway_id, sha256, name, path, kind, size, stamp, upload_time, "
                "software_version, errors, warnings, bad, reason, report) VALUES (?, ?, ?, ?, ?, 'bad', ?, "
                "?, "
                "?, '', 0, 0, 1, ?, '')",
                {archive, gateway, sha, name, path, size, u.stamp, u.times.empty() ? "" : u.times[0],
                 escaped(reason)});
            return true;
        }
        nlohmann::ordered_json j = report_json(r);
        j["archive"]["gateway"] = escaped(f.gateway);
        int errors = 0, warnings = 0;
        int seq = 0;
        for (const Step &s : r.log.steps)
            for (const Finding &fd : s.findings) {
                errors += fd.level == DIAG_MSG_ERROR;
                warnings += fd.level == DIAG_MSG_WARN;
                db_.exec("INSERT INTO findings (archive_id, seq, method, level, text) VALUES (?, ?, ?, ?, ?)",
                         {archive, std::to_string(seq++), escaped(s.method), level_name(fd.level),
                          escaped(std::string(trimmed(fd.text)), true)});
            }
        seq = 0;
        for (const Command &c : r.commands)
            db_.exec("INSERT INTO commands (archive_id, seq, source, command, output) VALUES (?, ?, ?, ?, ?)",
                     {archive, std::to_string(seq++), c.source, escaped(c.command), escaped(c.output, true)});
        seq = 0;
        for (const auto &e : j["exchanges"]) {
            db_.exec(
                "INSERT INTO exchanges (archive_id, seq, protocol, interface, client, server, stopped_at, "
                "verdict, verdict_text, report) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                {archive, std::to_string(seq++), e["protocol"].get<std::string>(),
                 e["interface"].get<std::string>(), e["client"].get<std::string>(),
                 e["server"].get<std::string>(), e["stopped_at"].get<std::string>(),
                 std::to_string(e["verdict"].get<int>()), e["verdict_text"].get<std::string>(), e.dump()});
        }
        // The archive's own line keeps what the tables above do not.
        nlohmann::ordered_json summary = j;
        summary.erase("exchanges");
        summary.erase("commands");
        db_.exec("INSERT INTO archives (id, gateway_id, sha256, name, path, kind, size, stamp, upload_time, "
                 "software_version, errors, warnings, bad, reason, report) VALUES (?, ?, ?, ?, ?, ?, ?, ?, "
                 "?, ?, ?, "
                 "?, 0, '', ?)",
                 {archive, gateway, sha, name, path, kind_name(r.kind), size, r.upload.stamp,
                  r.upload.times.empty() ? "" : r.upload.times[0],
                  escaped(fact(r, "sys_status.software_version")), std::to_string(errors),
                  std::to_string(warnings), summary.dump()});
        return true;
    }

  private:
    std::string gateway_id(const std::string &name) {
        const std::string shown = escaped(name);
        const auto rows = db_.query("SELECT id FROM gateways WHERE name = ?", {shown});
        if (!rows.empty()) return rows[0][0];
        std::string id = std::to_string(next_gateway_++);
        db_.exec("INSERT INTO gateways (id, name) VALUES (?, ?)", {id, shown});
        return id;
    }

    Db &db_;
    int64_t next_gateway_ = 1;
    int64_t next_archive_ = 1;
};

} // namespace

int run_ingest(const std::vector<std::string> &args) {
    std::vector<std::string> dirs;
    std::string db_path;
    bool quiet = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--db" && i + 1 < args.size())
            db_path = args[++i];
        else if (args[i] == "--quiet" || args[i] == "-q")
            quiet = true;
        else if (args[i].starts_with("-"))
            return usage_error("ingest: unknown option '" + args[i] + "'");
        else
            dirs.push_back(args[i]);
    }
    if (dirs.empty()) return usage_error("ingest: which directory?");
    for (const std::string &d : dirs) {
        struct stat st {};
        if (stat(d.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            fprintf(stderr, "zqdiag-inspect: ingest: %s is not a directory\n", d.c_str());
            return EXIT_FAILED;
        }
    }
    auto db = open_db(db_target(db_path, dirs[0]));
    Ingest ingest(*db);
    const auto start = std::chrono::steady_clock::now();
    auto last_report = start;
    size_t done = 0, filed = 0, bad = 0, skipped = 0;
    const auto visit = [&](const File &f) {
        bool was_bad = false;
        if (ingest.file(f, was_bad)) {
            ++filed;
            if (was_bad) {
                ++bad;
                if (!quiet)
                    fprintf(stderr, "zqdiag-inspect: %s: bad archive, recorded and skipped\n",
                            escaped(f.path).c_str());
            }
        } else {
            ++skipped;
        }
        if (++done % BATCH == 0) {
            db->commit();
            db->begin();
        }
        const auto now = std::chrono::steady_clock::now();
        if (!quiet && now - last_report > std::chrono::seconds(1)) {
            last_report = now;
            const double s = std::chrono::duration<double>(now - start).count();
            fprintf(stderr, "ingest: %zu archives, %.0f/s, %zu bad so far\n", done, done / s, bad);
        }
    };
    db->begin();
    for (const std::string &d : dirs) walk(d, d, "", visit, 0);
    db->commit();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    fprintf(stderr, "ingest: %zu files in %.2f s (%.0f/s): %zu filed, %zu bad, %zu already filed\n", done, s,
            s > 0 ? done / s : 0.0, filed - bad, bad, skipped);
    return EXIT_OK;
}

namespace {

struct Question {
    const char *name;
    const char *summary;
    const char *sql;
    std::vector<const char *> columns;
    bool needs_gateway = false;
};

const std::vector<Question> &questions() {
    static const std::vector<Question> q = {
        {"pon-unregistered",
         "gateways whose latest diagnosis has an error-level pon_status finding",
         "SELECT g.name, a.name, f.text FROM archives a JOIN gateways g ON g.id = a.gateway_id JOIN findings "
         "f ON "
         "f.archive_id = a.id WHERE f.method = 'pon_status' AND f.level = 'error' AND a.id = (SELECT "
         "MAX(b.id) FROM "
         "archives b WHERE b.gateway_id = a.gateway_id AND b.kind = 'diagnosis') ORDER BY g.name, f.seq",
         {"gateway", "archive", "finding"}},
        {"pppoe-failures",
         "PPPoE exchanges by the stage they stopped at",
         "SELECT stopped_at, COUNT(*), COUNT(DISTINCT a.gateway_id) FROM exchanges e JOIN archives a ON a.id "
         "= "
         "e.archive_id WHERE e.protocol = 'pppoe' AND e.stopped_at <> 'complete' GROUP BY stopped_at ORDER "
         "BY "
         "COUNT(*) DESC, stopped_at",
         {"stopped_at", "exchanges", "gateways"}},
        {"dhcp-no-server",
         "DHCP clients whose DISCOVERs no server answered",
         "SELECT g.name, a.name, e.interface, e.client FROM exchanges e JOIN archives a ON a.id = "
         "e.archive_id JOIN "
         "gateways g ON g.id = a.gateway_id WHERE e.protocol = 'dhcp' AND e.verdict = 2 ORDER BY g.name, "
         "a.name, a.id, e.seq",
         {"gateway", "archive", "interface", "client"}},
        {"top-findings",
         "the most frequent warn and error findings",
         "SELECT level, text, COUNT(*), COUNT(DISTINCT a.gateway_id) FROM findings f JOIN archives a ON a.id "
         "= "
         "f.archive_id WHERE level IN ('warn', 'error') GROUP BY level, text ORDER BY COUNT(*) DESC, level, "
         "text "
         "LIMIT 20",
         {"level", "finding", "count", "gateways"}},
        {"history",
         "a gateway's archives in the order they were filed (--gateway ID)",
         "SELECT a.name, a.kind, a.upload_time, a.errors, a.warnings, a.reason FROM archives a JOIN gateways "
         "g ON "
         "g.id = a.gateway_id WHERE g.name = ? ORDER BY a.id",
         {"archive", "kind", "uploaded", "errors", "warnings", "refused"},
         true},
        {"bad-archives",
         "archives refused, with the reason",
         "SELECT g.name, a.name, a.reason FROM archives a JOIN gateways g ON g.id = a.gateway_id WHERE a.bad "
         "= 1 "
         "ORDER BY g.name, a.name, a.id",
         {"gateway", "archive", "reason"}},
    };
    return q;
}

// A value read back from the database. What ingest filed is already shown
// escaped (escaping it again would double its backslashes); anything else
// that is not clean text is escaped here.
std::string shown(const std::string &value, bool keep_newlines) {
    const bool clean = is_clean_text(value) && (keep_newlines || value.find('\n') == std::string::npos);
    return clean ? value : escaped(value, keep_newlines);
}

std::string table(const std::vector<const char *> &cols, const std::vector<Row> &rows) {
    std::vector<size_t> width(cols.size());
    for (size_t c = 0; c < cols.size(); ++c) width[c] = strlen(cols[c]);
    for (const Row &r : rows)
        for (size_t c = 0; c < cols.size() && c < r.size(); ++c)
            width[c] = std::max(width[c], std::min<size_t>(r[c].size(), 60));
    std::string out;
    const auto line = [&](const std::vector<std::string> &cells) {
        for (size_t c = 0; c < cells.size(); ++c) {
            std::string cell = shown(cells[c], false).substr(0, 60);
            out += cell + (c + 1 < cells.size()
                               ? std::string(width[c] - std::min(width[c], cell.size()) + 2, ' ')
                               : "");
        }
        out += "\n";
    };
    line(std::vector<std::string>(cols.begin(), cols.end()));
    for (const Row &r : rows) line(r);
    return out;
}

} // namespace

int run_query(const std::vector<std::string> &args, const std::string &) {
    std::string name, db_path, gateway;
    bool json = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--db" && i + 1 < args.size())
            db_path = args[++i];
        else if (args[i] == "--gateway" && i + 1 < args.size())
            gateway = args[++i];
        else if (args[i] == "--json")
            json = true;
        else if (args[i].starts_with("-"))
            return usage_error("query: unknown option '" + args[i] + "'");
        else
            name = args[i];
    }
    const Question *q = nullptr;
    for (const Question &c : questions())
        if (name == c.name) q = &c;
    if (!q) {
        std::string list;
        for (const Question &c : questions()) list += std::string("\n  ") + c.name + "  " + c.summary;
        return usage_error("query: which question?" + list);
    }
    if (q->needs_gateway && gateway.empty())
        return usage_error(std::string("query ") + q->name + ": --gateway ID");
    if (db_path.empty()) db_path = DEFAULT_DB;
    auto db = open_db(db_path);
    std::vector<Param> params;
    if (q->needs_gateway) params.push_back(gateway);
    const auto rows = db->query(q->sql, params);
    std::string out;
    if (json) {
        nlohmann::ordered_json arr = nlohmann::ordered_json::array();
        for (const Row &r : rows) {
            nlohmann::ordered_json o;
            for (size_t c = 0; c < q->columns.size() && c < r.size(); ++c)
                o[q->columns[c]] = shown(r[c], true);
            arr.push_back(o);
        }
        out = arr.dump(2) + "\n";
    } else {
        out = table(q->columns, rows);
    }
    return write_output("", out) ? EXIT_OK : EXIT_FAILED;
}

int run_export(const std::vector<std::string> &args) {
    std::string db_path, output;
    bool ndjson = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--db" && i + 1 < args.size())
            db_path = args[++i];
        else if ((args[i] == "-o" || args[i] == "--output") && i + 1 < args.size())
            output = args[++i];
        else if (args[i] == "--ndjson")
            ndjson = true;
        else
            return usage_error("export: unknown argument '" + args[i] + "'");
    }
    if (!ndjson) return usage_error("export: --ndjson is the format");
    if (db_path.empty()) db_path = DEFAULT_DB;
    auto db = open_db(db_path);
    // The lines are written as they are made, a page of archives at a time,
    // so that the memory does not grow with the fleet. A file is written
    // under a temporary name and renamed once complete: a failed export
    // leaves no partial file under the name asked for.
    const std::string part = output.empty() || output == "-" ? "" : output + ".part";
    FILE *out = part.empty() ? stdout : fopen(part.c_str(), "w");
    if (!out) {
        fprintf(stderr, "zqdiag-inspect: cannot write %s: %s\n", part.c_str(), strerror(errno));
        return EXIT_FAILED;
    }
    bool ok = true;
    const auto put = [&](const nlohmann::ordered_json &j) {
        const std::string line = j.dump() + "\n";
        ok = ok && fwrite(line.data(), 1, line.size(), out) == line.size();
    };
    const auto header = [](const char *type) {
        nlohmann::ordered_json j;
        j["schema"] = REPORT_SCHEMA;
        j["version"] = REPORT_SCHEMA_VERSION;
        j["type"] = type;
        return j;
    };
    try {
        std::string after = "0";
        for (;;) {
            const auto page =
                db->query("SELECT a.id, a.sha256, g.name, a.bad, a.reason, a.report, a.name, a.size "
                          "FROM archives a JOIN gateways g ON g.id = a.gateway_id WHERE a.id > ? "
                          "ORDER BY a.id LIMIT 256",
                          {after});
            if (page.empty()) break;
            after = page.back()[0];
            for (const Row &a : page) {
                nlohmann::ordered_json j = header("archive");
                if (a[3] == "1") {
                    j["archive"] = {{"name", a[6]},  {"size", std::stoull(a[7])}, {"sha256", a[1]},
                                    {"kind", "bad"}, {"gateway", a[2]},           {"reason", a[4]}};
                } else {
                    const auto rep = nlohmann::ordered_json::parse(a[5]);
                    for (const auto &[k, v] : rep.items())
                        if (k != "schema" && k != "version" && k != "steps") j[k] = v;
                }
                put(j);
                for (const Row &f :
                     db->query("SELECT method, level, text FROM findings WHERE archive_id = ? ORDER BY seq",
                               {a[0]})) {
                    nlohmann::ordered_json l = header("finding");
                    l["archive"] = a[1];
                    l["gateway"] = a[2];
                    l["method"] = f[0];
                    l["level"] = f[1];
                    l["text"] = f[2];
                    put(l);
                }
                for (const Row &e :
                     db->query("SELECT report FROM exchanges WHERE archive_id = ? ORDER BY seq", {a[0]})) {
                    nlohmann::ordered_json l = header("exchange");
                    l["archive"] = a[1];
                    l["gateway"] = a[2];
                    const nlohmann::ordered_json exchange = nlohmann::ordered_json::parse(e[0]);
                    for (const auto &[k, v] : exchange.items()) l[k] = v;
                    put(l);
                }
            }
            if (!ok) break;
        }
    } catch (...) {
        if (!part.empty()) {
            fclose(out);
            unlink(part.c_str());
        }
        throw;
    }
    const bool closed = out == stdout ? fflush(out) == 0 : fclose(out) == 0;
    if (ok && closed && !part.empty() && rename(part.c_str(), output.c_str()) != 0) ok = false;
    if (!ok || !closed) {
        fprintf(stderr, "zqdiag-inspect: writing %s failed\n",
                output.empty() ? "the output" : output.c_str());
        if (!part.empty()) unlink(part.c_str());
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

} // namespace zqinspect
