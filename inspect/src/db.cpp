#include "db.hpp"

#include <libpq-fe.h>
#include <map>
#include <sqlite3.h>
#include <stdexcept>

namespace zqinspect {

namespace {

// The schema, in the SQL both backends read. Ids are text-compared keys;
// an archive is known by its content hash.
constexpr const char *SCHEMA[] = {
    "CREATE TABLE IF NOT EXISTS gateways (id BIGINT PRIMARY KEY, name TEXT NOT NULL UNIQUE)",
    "CREATE TABLE IF NOT EXISTS archives (id BIGINT PRIMARY KEY, gateway_id BIGINT NOT NULL, sha256 TEXT NOT "
    "NULL "
    "UNIQUE, name TEXT NOT NULL, path TEXT NOT NULL, kind TEXT NOT NULL, size BIGINT NOT NULL, stamp TEXT "
    "NOT NULL, "
    "upload_time TEXT NOT NULL, software_version TEXT NOT NULL, errors INTEGER NOT NULL, warnings INTEGER "
    "NOT NULL, "
    "bad INTEGER NOT NULL, reason TEXT NOT NULL, report TEXT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS files (path TEXT PRIMARY KEY, size BIGINT NOT NULL, mtime BIGINT NOT NULL, "
    "sha256 "
    "TEXT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS findings (archive_id BIGINT NOT NULL, seq INTEGER NOT NULL, method TEXT NOT "
    "NULL, "
    "level TEXT NOT NULL, text TEXT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS commands (archive_id BIGINT NOT NULL, seq INTEGER NOT NULL, source TEXT NOT "
    "NULL, "
    "command TEXT NOT NULL, output TEXT NOT NULL)",
    "CREATE TABLE IF NOT EXISTS exchanges (archive_id BIGINT NOT NULL, seq INTEGER NOT NULL, protocol TEXT "
    "NOT NULL, "
    "interface TEXT NOT NULL, client TEXT NOT NULL, server TEXT NOT NULL, stopped_at TEXT NOT NULL, verdict "
    "INTEGER "
    "NOT NULL, verdict_text TEXT NOT NULL, report TEXT NOT NULL)",
    "CREATE INDEX IF NOT EXISTS findings_archive ON findings (archive_id)",
    "CREATE INDEX IF NOT EXISTS exchanges_archive ON exchanges (archive_id)",
    "CREATE INDEX IF NOT EXISTS archives_gateway ON archives (gateway_id)",
};

class Sqlite : public Db {
  public:
    explicit Sqlite(const std::string &path) {
        if (sqlite3_open_v2(path.c_str(), &db_,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK) {
            const std::string msg = db_ ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close(db_);
            throw std::runtime_error("cannot open database " + path + ": " + msg);
        }
        sqlite3_busy_timeout(db_, 5000);
        exec("PRAGMA journal_mode=WAL");
        exec("PRAGMA synchronous=NORMAL");
        for (const char *s : SCHEMA) exec(s);
    }
    ~Sqlite() override {
        for (auto &[sql, stmt] : cache_) sqlite3_finalize(stmt);
        sqlite3_close(db_);
    }
    std::vector<Row> query(const std::string &sql, const std::vector<Param> &params) override {
        sqlite3_stmt *&stmt = cache_[sql];
        if (!stmt && sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("database: ") + sqlite3_errmsg(db_));
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
        for (size_t i = 0; i < params.size(); ++i) {
            const int at = static_cast<int>(i) + 1;
            if (params[i])
                sqlite3_bind_text(stmt, at, params[i]->data(), static_cast<int>(params[i]->size()),
                                  SQLITE_STATIC);
            else
                sqlite3_bind_null(stmt, at);
        }
        std::vector<Row> rows;
        for (;;) {
            const int r = sqlite3_step(stmt);
            if (r == SQLITE_DONE) break;
            if (r != SQLITE_ROW) {
                const std::string msg = sqlite3_errmsg(db_);
                sqlite3_reset(stmt);
                throw std::runtime_error("database: " + msg);
            }
            Row row;
            for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
                const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(stmt, c));
                row.emplace_back(text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(stmt, c)))
                                      : "");
            }
            rows.push_back(std::move(row));
        }
        sqlite3_reset(stmt);
        return rows;
    }
    void begin() override { exec("BEGIN"); }
    void commit() override { exec("COMMIT"); }
    const char *backend() const override { return "sqlite"; }

  private:
    sqlite3 *db_ = nullptr;
    std::map<std::string, sqlite3_stmt *> cache_;
};

class Postgres : public Db {
  public:
    explicit Postgres(const std::string &url) : conn_(PQconnectdb(url.c_str())) {
        if (PQstatus(conn_) != CONNECTION_OK) {
            const std::string msg = PQerrorMessage(conn_);
            PQfinish(conn_);
            throw std::runtime_error("cannot connect to PostgreSQL: " + msg);
        }
        exec("SET client_min_messages TO WARNING");
        // Text compares byte by byte, as in SQLite, whatever collation the
        // cluster was created with: the operator's questions come back in
        // the same order from either database.
        for (const char *s : SCHEMA) {
            std::string sql = s;
            for (size_t at = 0; (at = sql.find(" TEXT", at)) != std::string::npos; at += 5)
                sql.insert(at + 5, " COLLATE \"C\"");
            exec(sql);
        }
    }
    ~Postgres() override { PQfinish(conn_); }
    std::vector<Row> query(const std::string &sql, const std::vector<Param> &params) override {
        // '?' placeholders become $1, $2, ... (once per statement's text).
        std::string &text = numbered_[sql];
        if (text.empty()) {
            int n = 0;
            for (const char c : sql) {
                if (c == '?')
                    text += "$" + std::to_string(++n);
                else
                    text += c;
            }
        }
        std::vector<const char *> values;
        values.reserve(params.size());
        for (const Param &p : params) values.push_back(p ? p->c_str() : nullptr);
        PGresult *res = PQexecParams(conn_, text.c_str(), static_cast<int>(values.size()), nullptr,
                                     values.data(), nullptr, nullptr, 0);
        const ExecStatusType st = PQresultStatus(res);
        if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) {
            const std::string msg = PQresultErrorMessage(res);
            PQclear(res);
            throw std::runtime_error("database: " + msg);
        }
        std::vector<Row> rows;
        for (int r = 0; r < PQntuples(res); ++r) {
            Row row;
            for (int c = 0; c < PQnfields(res); ++c)
                row.emplace_back(PQgetvalue(res, r, c), PQgetlength(res, r, c));
            rows.push_back(std::move(row));
        }
        PQclear(res);
        return rows;
    }
    void begin() override { exec("BEGIN"); }
    void commit() override { exec("COMMIT"); }
    const char *backend() const override { return "postgresql"; }

  private:
    PGconn *conn_;
    std::map<std::string, std::string> numbered_;
};

} // namespace

std::unique_ptr<Db> open_db(const std::string &target) {
    if (target.starts_with("postgresql://") || target.starts_with("postgres://"))
        return std::make_unique<Postgres>(target);
    return std::make_unique<Sqlite>(target);
}

} // namespace zqinspect
