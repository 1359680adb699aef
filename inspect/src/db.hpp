// The fleet's database: one schema, in SQLite (the embedded default, WAL
// mode) or PostgreSQL (libpq). Statements are always parameterised; they
// are written with '?' placeholders, which the PostgreSQL side numbers.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zqinspect {

using Param = std::optional<std::string>; // nullopt is SQL NULL
using Row = std::vector<std::string>;     // NULL reads as ""

class Db {
  public:
    virtual ~Db() = default;
    virtual std::vector<Row> query(const std::string &sql, const std::vector<Param> &params = {}) = 0;
    void exec(const std::string &sql, const std::vector<Param> &params = {}) { query(sql, params); }
    virtual void begin() = 0;
    virtual void commit() = 0;
    virtual const char *backend() const = 0;
};

// "postgresql://..." or "postgres://..." opens PostgreSQL, anything else is
// a SQLite file. The schema is created when missing. Throws
// std::runtime_error.
std::unique_ptr<Db> open_db(const std::string &target);

} // namespace zqinspect
