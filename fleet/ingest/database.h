// PostgreSQL with owners for its handles and results that can't be overlooked.

#ifndef FLEET_INGEST_DATABASE_H_
#define FLEET_INGEST_DATABASE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/status.h"

struct pg_conn;
struct pg_result;

namespace velmora::usage_stat::fleet {

// The rows of a query, as texts. A null reads as empty text and 0.
class Rows {
 public:
  int size() const;
  bool IsNull(int row, int column) const;
  std::string_view Text(int row, int column) const;
  std::int64_t Int(int row, int column) const;
  std::string Bytes(int row, int column) const;  // of a bytea

 private:
  friend class Database;
  struct Clear {
    void operator()(pg_result* result) const;
  };
  std::unique_ptr<pg_result, Clear> result_;
};

// The rows of one COPY, in PostgreSQL's binary format. A row is begun, then gets its columns.
class CopyRows {
 public:
  CopyRows();
  void Begin(int columns);
  void Int16(std::int64_t value);
  void Int32(std::int64_t value);
  void Int64(std::int64_t value);
  void Bytes(std::string_view value);  // a bytea, a text or a json
  void Null();
  bool empty() const { return rows_ == 0; }

 private:
  friend class Database;
  void Put(std::uint64_t value, std::size_t size);

  std::string bytes_;
  std::size_t rows_ = 0;
};

// A row of a COPY that is read, valid until the next.
class CopiedRow {
 public:
  std::optional<std::string_view> Text(std::size_t column) const { return fields_[column]; }
  std::optional<std::int64_t> Number(std::size_t column) const;  // a smallint, integer or bigint

 private:
  friend class Database;
  std::vector<std::optional<std::string_view>> fields_;
};

using Parameter = std::optional<std::string>;

// One connection.
class Database {
 public:
  // `conninfo` as PostgreSQL's own programs take it; what it leaves open, the environment tells.
  static base::Status Open(const std::string& conninfo, Database* database);

  // Statements without parameters, in one message; `rows` are those of the last one.
  base::Status Execute(const std::string& sql, Rows* rows = nullptr);
  // One statement with parameters $1, $2, ...
  base::Status Run(const char* sql, const std::vector<Parameter>& parameters, Rows* rows = nullptr);
  // `target` is such as "records(day, device)".
  base::Status Copy(const std::string& target, const CopyRows& rows);

  // Hands the rows of a query to `take` as they come, without holding them.
  base::Status Read(const std::string& sql, std::size_t columns,
                    const std::function<void(const CopiedRow&)>& take);
  // The rows of a query as objects, by column name, in its order.
  base::Status Ask(const std::string& sql, nlohmann::json* rows);

  // False after the connection is lost, which only Open() mends.
  bool is_connected() const;

 private:
  struct Finish {
    void operator()(pg_conn* connection) const;
  };
  base::Status Check(pg_result* result, Rows* rows);
  base::Status Failure() const;

  std::unique_ptr<pg_conn, Finish> connection_;
};

// A transaction that is taken back unless it was committed.
class Transaction {
 public:
  explicit Transaction(Database* database) : database_(database) {}
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // Each with what `sql` does within it, in the same message; `rows` are of its last statement.
  base::Status Begin(const std::string& sql = {}, Rows* rows = nullptr);
  base::Status Commit(const std::string& sql = {});

 private:
  Database* database_;
  bool is_open_ = false;
};

// `values` as the text of an array, whose elements hold neither quotes nor backslashes.
std::string ArrayOf(const std::vector<std::string>& values);
// The text form of a bytea.
std::string ByteaOf(std::string_view bytes);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_INGEST_DATABASE_H_
