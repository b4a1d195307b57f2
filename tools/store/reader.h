// The reading side: records by filter, the quarantine and the counts, from a database in use or
// from an archive.

#ifndef TOOLS_STORE_READER_H_
#define TOOLS_STORE_READER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Which records, and in which order. What is left empty does not filter.
struct Query {
  std::optional<std::int64_t> since_ms = {};    // timestamp at or after
  std::optional<std::int64_t> until_ms = {};    // timestamp before
  std::vector<std::string> events = {};         // names of classes, any of them
  std::vector<std::int64_t> applications = {};  // the field `application`; empty: any
  std::optional<std::int64_t> book_id =
      {};  // the field `book_id`, of the record or of a book in it
  std::optional<std::int64_t> after_id = {};  // records that came later than this one
  std::optional<std::int64_t> last_id = {};   // up to this one
  std::optional<std::int64_t> newest = {};    // the last so many of what matches
  bool reverse = false;                       // newest first
  // Leaves out when it was received, the sender and the fields, for those who read the datagram.
  bool datagram_only = false;
};

// Is called for each row in turn; returns false to see no more.
using RecordVisitor = std::function<bool(const RecordRow&)>;
using QuarantineVisitor = std::function<bool(const QuarantineRow&)>;

// The rows of one piece. They are filled again and again, so that their texts need no new memory.
class RowBuffer {
 public:
  // One more row, with whatever it held before.
  RecordRow* Add() {
    if (size_ == rows_.size()) rows_.emplace_back();
    return &rows_[size_++];
  }
  void Clear() { size_ = 0; }

  std::span<const RecordRow> rows() const { return {rows_.data(), size_}; }

 private:
  std::vector<RecordRow> rows_;
  std::size_t size_ = 0;
};

// Reads one file. Records come in the order in which they were received, which is that of their
// numbers. They are read in pieces, each in a short transaction that is over when its rows are
// handed out: whoever takes long over a row holds up neither the collector nor its log.
class Reader {
 public:
  // Opens a database or an archive. An archive is unpacked into a nameless temporary file of at
  // most kLargestUnpacked bytes and a little.
  static Status Open(const std::string& path, std::unique_ptr<Reader>* reader,
                     Connection::Mode mode = Connection::Mode::kRead);

  Status ForEach(const Query& query, const RecordVisitor& visit);
  Status ForEachQuarantined(const QuarantineVisitor& visit);

  // The runs, oldest first; the tallies; the archives, oldest first. Archives have none of them.
  Status ReadRuns(std::vector<Run>* runs);
  Status ReadTallies(std::vector<Tally>* tallies);
  Status ReadArchives(std::vector<Archive>* archives);

  // The stores that the numbers belong to, the runs of numbers without records, and the steps of
  // the clock, each in order of numbers. An archive has those of its own numbers.
  Status ReadStores(std::vector<Store>* stores);
  Status ReadMissing(std::vector<Missing>* missing);
  Status ReadClockSteps(std::vector<ClockStep>* steps);

  // The largest number that a record was given.
  Status LastNumber(std::int64_t* number);

  Status CountRows(std::int64_t* records, std::int64_t* quarantined);

  // For queries that are not foreseen here. Reading only.
  Connection& connection() { return connection_; }
  int schema() const { return schema_; }

 private:
  friend class History;
  Reader() = default;

  // The next rows from `*position` on that match; fewer than there are, and none while it passes
  // over others. `*position` is moved; `*is_end` tells that there is nothing behind it.
  Status ReadPiece(const Query& query, std::int64_t* position, RowBuffer* rows, bool* is_end);
  // Adds the row whose columns these are; nothing when the file does not tell its event.
  const RecordRow* AddRow(const Query& query, const Statement& columns, RowBuffer* rows);
  // The type and name of an event by its number in this file; null when the file does not tell.
  const std::pair<int, std::string>* FindEvent(std::int64_t number);

  Connection connection_;
  std::unordered_map<std::int64_t, std::pair<int, std::string>> events_;
  int schema_ = 0;
};

// Whether records of `archive` can match, by what the database knows of it.
bool MayHoldMatch(const Archive& archive, const Query& query);

// Removes what killed readers of archives left in the folder for temporary files.
void RemoveAbandonedUnpacked();

// Reads a database together with the archives that its closed records were moved to, as if nothing
// had been moved, also while something is.
class History {
 public:
  static Status Open(const std::string& path, std::unique_ptr<History>* history);

  // Archives that can't hold a match stay closed. One that is missing or damaged is skipped and
  // told by `problems`, if that is given.
  Status ForEach(const Query& query, const RecordVisitor& visit,
                 std::vector<std::string>* problems = nullptr);

  // The database itself.
  Reader& live() { return *live_; }

 private:
  History() = default;

  Status Walk(const Query& query, const RecordVisitor& visit, std::vector<std::string>* problems);
  // The archive that is to be read next from `position` on; none when rows of the database come
  // before it. Tells in `limit` how far those may be read.
  Status FindNext(const Query& query, std::int64_t position, std::optional<Archive>* archive,
                  std::optional<std::int64_t>* limit);

  std::string path_;
  std::unique_ptr<Reader> live_;
};

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_READER_H_
