// The writing side: batches of rows, each committed whole together with its counts.

#ifndef TOOLS_STORE_WRITER_H_
#define TOOLS_STORE_WRITER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/store/ledger.h"
#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// What one transaction adds. The rows' ids and runs are given by the database.
struct Batch {
  using Counts = std::map<std::pair<std::int64_t, std::string>, std::int64_t>;  // by uid and reason

  std::vector<RecordRow> records;
  std::vector<QuarantineRow> quarantine;
  Counts not_kept;  // undecodable and beyond what is kept of such, by uid and kind
  Counts refused;
  Counts off = {};  // came while statistics were switched off

  bool has_rows() const { return !records.empty() || !quarantine.empty(); }
};

// The files of one database that SQLite keeps beside it, as opposed to others of their names.
struct FilesBeside {
  std::uint64_t log = 0;
  std::uint64_t index = 0;
  bool operator==(const FilesBeside&) const = default;
};

// One run of a collector, from its first row to its last.
class Writer {
 public:
  // Opens or creates the database at `path` and enters a new run. Notes the opening as a record.
  // `archive_directory` is where archives are by default when it is empty: a new database gives
  // other numbers than those there.
  static Status Open(const std::string& path, const std::string& endpoint,
                     std::unique_ptr<Writer>* writer, std::string archive_directory = {});

  // Commits all of `batch` or nothing. After a failure the same batch can be tried again; when the
  // status IsMoved() or IsDamage(), with a new writer.
  Status Commit(const Batch& batch);

  // Ends the run cleanly.
  Status Finish();

  Connection& connection() { return connection_; }
  // Whether the whole file should be looked through: it is new, the last run did not end in order,
  // or this is every eighth run, since those that are shorter than a day never come to a check.
  bool wants_check() const { return wants_check_; }

 private:
  Writer() = default;
  Status BeginRun(const std::string& endpoint, bool created, std::int64_t known);
  Status Add(const Batch& batch);
  Status NoteClockStep(std::int64_t offset_ms);

  std::string path_;
  Connection connection_;
  RecordInserter inserter_;
  Statement insert_quarantine_;
  Statement count_;
  std::int64_t run_ = 0;
  std::int64_t clock_offset_ms_ = 0;  // of the wall clock against the boot clock
  std::int64_t not_added_up_ = 0;     // records since counts were last added up
  bool wants_check_ = false;
  FilesBeside files_beside_;
};

// A row of the quarantine that now reads as a record, of which only type, event, timestamp and
// fields count.
struct Reread {
  QuarantineRow row;
  RecordRow record;
};

// Moves `rows` out of the quarantine into the records, all or none; their receive times, senders
// and bytes stay, and the counts follow. Rows that are no longer there are passed over; `released`
// tells how many were.
Status Release(Connection* connection, const std::vector<Reread>& rows, std::int64_t* released);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_WRITER_H_
