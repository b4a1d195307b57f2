// A database for one test, and rows to put into it.

#ifndef USAGE_STAT_TESTS_TOOLS_STORE_FIXTURE_H_
#define USAGE_STAT_TESTS_TOOLS_STORE_FIXTURE_H_

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tools/records/record.h"
#include "tools/store/reader.h"
#include "tools/store/schema.h"
#include "tools/store/writer.h"

namespace usage_stat_test {

namespace store = velmora::usage_stat::store;

#define ASSERT_OK(expression)                         \
  do {                                                \
    const store::Status ok_status = (expression);     \
    ASSERT_TRUE(ok_status.ok()) << ok_status.message; \
  } while (false)

#define EXPECT_OK(expression) EXPECT_EQ((expression).message, "")

// The first column of a query of plain SQLite, with no program of ours, rows apart by a space.
inline std::string Answer(const std::string& path, const std::string& sql) {
  sqlite3* database = nullptr;
  std::string rows;
  EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
  sqlite3_busy_timeout(database, 60'000);  // in ms; a collector may be writing
  const auto add = [](void* all, int, char** values, char**) {
    auto* text = static_cast<std::string*>(all);
    *text += std::string(text->empty() ? "" : " ") + (values[0] ? values[0] : "NULL");
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), add, &rows, nullptr), SQLITE_OK)
      << sql << ": " << sqlite3_errmsg(database);
  sqlite3_close(database);
  return rows;
}

// The first column of the first row of a query, as the store's readers see the database.
inline std::int64_t NumberIn(const std::string& path, const std::string& sql) {
  store::Connection connection;
  std::int64_t number = -1;
  EXPECT_OK(store::OpenForReading(path, &connection));
  EXPECT_OK(connection.Read(sql, &number));
  return number;
}

class StoreTest : public testing::Test {
 protected:
  std::unique_ptr<store::Writer> OpenWriter() {
    std::unique_ptr<store::Writer> writer;
    const store::Status status = store::Writer::Open(database_, "test", &writer);
    EXPECT_TRUE(status.ok()) << status.message;
    return writer;
  }

  // The events that match, in the order in which they are read.
  template <class Source>
  static std::vector<std::string> Read(Source& source, const store::Query& query = {}) {
    std::vector<std::string> found;
    const store::Status status = source.ForEach(query, [&found](const store::RecordRow& row) {
      found.push_back(row.event);
      return true;
    });
    EXPECT_TRUE(status.ok()) << status.message;
    return found;
  }

  static store::RecordRow Row(const std::string& event, std::int64_t timestamp_ms,
                              const std::string& fields = "{}") {
    return {0,     timestamp_ms + 1, {42, 7}, 2021,
            event, timestamp_ms,     fields,  std::string("\0\xff", 2)};
  }

  // A row of a real record.
  template <class EventClass>
  static store::RecordRow RowOf(EventClass event, std::int64_t timestamp_ms) {
    event.timestamp_ = timestamp_ms;
    std::ostringstream out;
    event.WriteToStream(out);
    const auto decoded = velmora::usage_stat::records::Decode(out.str());
    const auto& record = std::get<velmora::usage_stat::records::Record>(decoded);
    return {0,
            timestamp_ms + 1,
            {42, 7},
            record.type,
            std::string(record.event),
            timestamp_ms,
            velmora::usage_stat::records::Dump(record.values),
            out.str()};
  }

  const TempFolder folder_;
  std::string database_ = folder_ / "records.db";
};

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_TOOLS_STORE_FIXTURE_H_
