// DuckDB, which writes and reads the lake. Its library is found at run time: no header of it is
// packaged, and nothing but the lake needs it.

#ifndef FLEET_LAKE_DUCKDB_H_
#define FLEET_LAKE_DUCKDB_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/status.h"

namespace velmora::usage_stat::fleet {

// A database in memory, with the files of the lake in reach. Fetches nothing from a network.
class DuckDb {
 public:
  // Loads the library that $USAGE_STAT_DUCKDB names, else the one that the build found. What does
  // not fit `memory` (such as "1GB") goes to a file in `folder`, which must exist.
  static base::Status Open(const std::string& folder, const std::string& memory,
                           std::unique_ptr<DuckDb>* database);
  ~DuckDb();
  DuckDb(const DuckDb&) = delete;
  DuckDb& operator=(const DuckDb&) = delete;

  base::Status Run(const std::string& sql);

  // The rows of a query as objects, by column name, in its order.
  base::Status Ask(const std::string& sql, nlohmann::json* rows);

  // The rows of a query whose columns are all BIGINT and never NULL, in its order. They are read as
  // they are needed, not held.
  class Stream {
   public:
    Stream();
    ~Stream();
    Stream(Stream&& other) noexcept;
    Stream& operator=(Stream&& other) noexcept;

    // The next row; false at the end.
    bool Next();
    std::int64_t Get(std::size_t column) const { return columns_[column][row_]; }

   private:
    friend class DuckDb;
    struct Result;
    std::unique_ptr<Result> result_;
    std::vector<const std::int64_t*> columns_;
    std::size_t row_ = 0;
    std::size_t size_ = 0;
  };
  base::Status Read(const std::string& sql, std::size_t columns, Stream* stream);

  // Adds rows to a table, whose columns are given one after the other.
  class Appender {
   public:
    ~Appender();
    void Add(std::int64_t number);
    void Add(const std::optional<std::int64_t>& number);
    void Add(std::string_view text);  // valid UTF-8
    void EndRow();
    // Whether all rows arrived.
    base::Status Close();

   private:
    friend class DuckDb;
    void* handle_ = nullptr;
    bool failed_ = false;
  };
  base::Status Append(const std::string& table, Appender* appender);

 private:
  DuckDb() = default;

  void* database_ = nullptr;
  void* connection_ = nullptr;
};

// `text` as a literal of SQL.
std::string Quoted(std::string_view text);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_LAKE_DUCKDB_H_
