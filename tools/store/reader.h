// The reading side: records by filter, the quarantine and the counts, from a database in use or
// from an archive.

#ifndef TOOLS_STORE_READER_H_
#define TOOLS_STORE_READER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Which records, and in which order. What is left empty does not filter.
struct Query {
  std::optional<std::int64_t> since_ms = {};     // timestamp at or after
  std::optional<std::int64_t> until_ms = {};     // timestamp before
  std::vector<std::string> events = {};          // names of classes, any of them
  std::optional<std::int64_t> application = {};  // the field `application`
  std::optional<std::int64_t> book_id =
      {};  // the field `book_id`, of the record or of a book in it
  std::optional<std::int64_t> after_id = {};  // records that came later than this one
  std::optional<std::int64_t> newest = {};    // the last so many of what matches
  bool reverse = false;                       // newest first
};

// Is called for each row in turn; returns false to see no more.
using RecordVisitor = std::function<bool(const RecordRow&)>;
using QuarantineVisitor = std::function<bool(const QuarantineRow&)>;

// Reads one file. Records come in the order in which they were received, which is that of their
// ids. Each operation sees one state of the database, whatever its collector does meanwhile.
class Reader {
 public:
  // Opens a database or an archive. An archive is unpacked into a nameless temporary file.
  static Status Open(const std::string& path, std::unique_ptr<Reader>* reader);

  Status ForEach(const Query& query, const RecordVisitor& visit);
  Status ForEachQuarantined(const QuarantineVisitor& visit);

  // The runs, oldest first; the tallies; the archives, oldest first. Archives have none of them.
  Status ReadRuns(std::vector<Run>* runs);
  Status ReadTallies(std::vector<Tally>* tallies);
  Status ReadArchives(std::vector<Archive>* archives);

  Status CountRows(std::int64_t* records, std::int64_t* quarantined);

  // SQLite's own check of the whole file: "ok", or what it found.
  Status CheckIntegrity(std::string* result);

  // For queries that are not foreseen here. Reading only.
  Connection& connection() { return connection_; }

 private:
  Reader() = default;

  Connection connection_;
};

// Reads a database together with the archives that its closed records were moved to, as if nothing
// had been moved.
class Journal {
 public:
  static Status Open(const std::string& path, std::unique_ptr<Journal>* journal);

  // Archives that can't hold a match stay closed. One that is missing or damaged is skipped and
  // told by `problems`, if that is given.
  Status ForEach(const Query& query, const RecordVisitor& visit,
                 std::vector<std::string>* problems = nullptr);

  // The database itself.
  Reader& live() { return *live_; }

 private:
  Journal() = default;

  std::string path_;
  std::unique_ptr<Reader> live_;
};

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_READER_H_
