// The writing side: batches of rows, each committed whole together with its counts.

#ifndef TOOLS_STORE_WRITER_H_
#define TOOLS_STORE_WRITER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// What one transaction adds. The rows' ids and runs are given by the database.
struct Batch {
  using Counts = std::map<std::pair<std::int64_t, std::string>, std::int64_t>;  // by uid and reason

  std::vector<RecordRow> records;
  std::vector<QuarantineRow> quarantine;
  Counts refused;
  std::int64_t received = 0;  // datagrams, as counted by whoever received them

  bool empty() const { return received == 0; }
};

// One run of a collector, from its first row to its last.
class Writer {
 public:
  // Opens or creates the database at `path` and enters a new run. Journals the opening.
  static Status Open(const std::string& path, const std::string& endpoint,
                     std::unique_ptr<Writer>* writer);

  // Commits all of `batch` or nothing. After a failure the same batch can be tried again; when the
  // status is_moved() or is_damage(), with a new writer.
  Status Commit(const Batch& batch);

  // Ends the run cleanly.
  Status Finish();

  Connection& connection() { return connection_; }
  bool created() const { return created_; }  // whether there was no database before

 private:
  Writer() = default;
  Status Add(const Batch& batch);

  std::string path_;
  Connection connection_;
  Statement insert_record_;
  Statement insert_quarantine_;
  Statement count_;
  Statement advance_run_;
  std::int64_t run_ = 0;
  bool created_ = false;
};

// Moves a row out of the quarantine after it has been decoded as `record`, of which only type,
// event, timestamp and fields count: receive time, sender and bytes stay those of the row. The
// counts follow. Does nothing, successfully, when the row is no longer there.
Status Release(Connection* connection, const QuarantineRow& row, const RecordRow& record);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_WRITER_H_
