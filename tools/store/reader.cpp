#include "tools/store/reader.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "tools/store/archive.h"
#include "tools/store/file.h"
#include "tools/store/schema.h"
#include "tools/store/statements.h"

namespace velmora::usage_stat::store {

namespace {

// A statement's text and its parameters, which it owns.
class Filter {
 public:
  explicit Filter(const Query& query) {
    if (query.since_ms) Add("timestamp_ms >= ?", *query.since_ms);
    if (query.until_ms) Add("timestamp_ms < ?", *query.until_ms);
    if (query.after_id) Add("id > ?", *query.after_id);
    if (query.application) Add("json_extract(fields, '$.application') = ?", *query.application);
    if (query.book_id) {
      Add("(json_extract(fields, '$.book_id') = ?", *query.book_id);
      numbers_.push_back(*query.book_id);
      text_ +=
          " OR EXISTS (SELECT 1 FROM json_each(fields, '$.books')"
          " WHERE json_extract(value, '$.book_id') = ?))";
    }
    if (!query.events.empty()) {
      text_ += text_.empty() ? " WHERE event IN (" : " AND event IN (";
      for (std::size_t i = 0; i < query.events.size(); ++i) text_ += i == 0 ? "?" : ", ?";
      text_ += ")";
      names_ = &query.events;
    }
  }

  const std::string& text() const { return text_; }

  // Binds the parameters; returns the index after the last one.
  int Bind(Statement* statement) const {
    int index = 1;
    for (const std::int64_t number : numbers_) statement->Bind(index++, number);
    if (names_) {
      for (const std::string& name : *names_) statement->Bind(index++, name);
    }
    return index;
  }

 private:
  void Add(const char* condition, std::int64_t number) {
    text_ += text_.empty() ? " WHERE " : " AND ";
    text_ += condition;
    numbers_.push_back(number);
  }

  std::string text_;
  std::vector<std::int64_t> numbers_;
  const std::vector<std::string>* names_ = nullptr;
};

std::string RecordQuery(const Query& query, const Filter& filter) {
  const std::string columns =
      "SELECT id, received_ms, pid, uid, type, event, timestamp_ms, fields, raw FROM ";
  const char* const oldest_first = " ORDER BY id";
  const char* const newest_first = " ORDER BY id DESC";
  std::string from = "records" + filter.text();
  if (query.newest) {
    from += std::string(newest_first) + " LIMIT ?";
    if (query.reverse) return columns + from;
    from = "(SELECT * FROM " + from + ")";
  }
  return columns + from + (query.reverse ? newest_first : oldest_first);
}

RecordRow RecordOf(const Statement& row) {
  return {row.Int(0),
          row.Int(1),
          {row.Int(2), row.Int(3)},
          static_cast<int>(row.Int(4)),
          std::string(row.Text(5)),
          row.Int(6),
          std::string(row.Text(7)),
          std::string(row.Text(8))};
}

QuarantineRow QuarantinedOf(const Statement& row) {
  return {row.Int(0),
          row.Int(1),
          row.Int(2),
          {row.Int(3), row.Int(4)},
          std::string(row.Text(5)),
          std::string(row.Text(6)),
          row.IsNull(7) ? std::nullopt : std::optional(static_cast<int>(row.Int(7))),
          std::string(row.Text(8)),
          std::string(row.Text(9))};
}

Run RunOf(const Statement& row) {
  return {row.Int(0), row.Int(1), std::string(row.Text(2)),
          row.Int(3), row.Int(4), row.IsNull(5) ? std::nullopt : std::optional(row.Int(5)),
          row.Int(6)};
}

Tally TallyOf(const Statement& row) {
  return {row.Int(0), row.Int(1), std::string(row.Text(2)), std::string(row.Text(3)),
          row.Int(4), row.Int(5)};
}

// Fills `rows` with what `make` makes of each row of a query.
template <class Row>
Status ReadAll(Connection* connection, std::string_view sql, Row (*make)(const Statement&),
               std::vector<Row>* rows) {
  rows->clear();
  Statement statement;
  RETURN_IF_ERROR(connection->Prepare(sql, &statement));
  while (statement.Step()) rows->push_back(make(statement));
  return statement.status();
}

// Unpacks an archive and opens it; the file's name is gone when this returns.
Status OpenUnpacked(const std::string& path, Connection* connection) {
  const char* folder = std::getenv("TMPDIR");
  std::string unpacked =
      std::string(folder && *folder ? folder : "/tmp") + "/usage-stat-archive.XXXXXX";
  const Descriptor file(mkstemp(unpacked.data()));
  if (!file.is_open()) return Status::Errno("cannot create a file like " + unpacked);
  Status status = UnpackArchive(path, unpacked);
  if (status.ok()) status = OpenForReading(unpacked, connection);
  unlink(unpacked.c_str());
  return status;
}

bool MayHoldMatch(const Archive& archive, const Query& query) {
  return archive.state == "complete" &&
         (!query.after_id || archive.last_record > *query.after_id) &&
         (!query.since_ms || archive.last_timestamp_ms >= *query.since_ms) &&
         (!query.until_ms || archive.first_timestamp_ms < *query.until_ms);
}

// The newest matches, oldest of them first: they are those that come first in reverse.
Status ForEachOfNewest(Journal* journal, Query query, const RecordVisitor& visit,
                       std::vector<std::string>* problems) {
  query.reverse = true;
  std::vector<RecordRow> rows;
  const auto keep = [&rows](const RecordRow& row) {
    rows.push_back(row);
    return true;
  };
  Status status = journal->ForEach(query, keep, problems);
  for (auto row = rows.rbegin(); row != rows.rend() && visit(*row); ++row) {
  }
  return status;
}

}  // namespace

Status Reader::Open(const std::string& path, std::unique_ptr<Reader>* reader) {
  auto opened = std::unique_ptr<Reader>(new Reader);
  Status status = IsArchive(path) ? OpenUnpacked(path, &opened->connection_)
                                  : OpenForReading(path, &opened->connection_);
  if (status.ok()) *reader = std::move(opened);
  return status;
}

Status Reader::ForEach(const Query& query, const RecordVisitor& visit) {
  const Filter filter(query);
  Statement statement;
  if (Status status = connection_.Prepare(RecordQuery(query, filter), &statement); !status.ok()) {
    return status;
  }
  const int next = filter.Bind(&statement);
  if (query.newest) statement.Bind(next, *query.newest);
  while (statement.Step()) {
    if (!visit(RecordOf(statement))) return {};
  }
  return statement.status();
}

Status Reader::ForEachQuarantined(const QuarantineVisitor& visit) {
  Statement statement;
  if (Status status = connection_.Prepare(
          "SELECT id, run, received_ms, pid, uid, kind, reason, type, fields, raw FROM quarantine "
          "ORDER BY id",
          &statement);
      !status.ok()) {
    return status;
  }
  while (statement.Step()) {
    if (!visit(QuarantinedOf(statement))) return {};
  }
  return statement.status();
}

Status Reader::ReadRuns(std::vector<Run>* runs) {
  return ReadAll(&connection_,
                 "SELECT id, pid, endpoint, started_ms, last_commit_ms, ended_ms, received "
                 "FROM runs ORDER BY id",
                 &RunOf, runs);
}

Status Reader::ReadTallies(std::vector<Tally>* tallies) {
  return ReadAll(&connection_,
                 "SELECT run, uid, outcome, reason, count, last_ms FROM tally "
                 "ORDER BY run, uid, outcome, reason",
                 &TallyOf, tallies);
}

Status Reader::ReadArchives(std::vector<Archive>* archives) {
  return store::ReadArchives(&connection_, archives);
}

Status Reader::CountRows(std::int64_t* records, std::int64_t* quarantined) {
  if (Status status = connection_.Read("SELECT count(*) FROM records", records); !status.ok()) {
    return status;
  }
  return connection_.Read("SELECT count(*) FROM quarantine", quarantined);
}

Status Reader::CheckIntegrity(std::string* result) {
  return connection_.Read("PRAGMA integrity_check", result);
}

Status Journal::Open(const std::string& path, std::unique_ptr<Journal>* journal) {
  auto opened = std::unique_ptr<Journal>(new Journal);
  opened->path_ = path;
  Status status = Reader::Open(path, &opened->live_);
  if (status.ok()) *journal = std::move(opened);
  return status;
}

Status Journal::ForEach(const Query& query, const RecordVisitor& visit,
                        std::vector<std::string>* problems) {
  if (query.newest && !query.reverse) return ForEachOfNewest(this, query, visit, problems);

  // One state of the database for the list of archives and the records that are not in them.
  Transaction snapshot(&live_->connection());
  RETURN_IF_ERROR(live_->connection().Execute("BEGIN"));
  std::vector<Archive> archives;
  RETURN_IF_ERROR(live_->ReadArchives(&archives));
  std::erase_if(archives,
                [&query](const Archive& archive) { return !MayHoldMatch(archive, query); });

  Query rest = query;
  bool more = true;
  const auto count_and_visit = [&](const RecordRow& row) {
    if (rest.newest) --*rest.newest;
    more = visit(row) && rest.newest != 0;
    return more;
  };
  const auto read_archive = [&](const Archive& archive) {
    const std::string file = LocateArchive(path_, archive);
    std::unique_ptr<Reader> reader;
    Status status = Reader::Open(file, &reader);
    if (status.ok()) status = reader->ForEach(Query(rest), count_and_visit);
    if (!status.ok() && problems) problems->push_back(file + ": " + status.message);
  };

  if (rest.newest == 0) return {};
  Status status;
  if (query.reverse) {
    status = live_->ForEach(Query(rest), count_and_visit);
    for (auto archive = archives.rbegin(); archive != archives.rend() && more; ++archive) {
      read_archive(*archive);
    }
  } else {
    for (const Archive& archive : archives) {
      if (more) read_archive(archive);
    }
    if (more) status = live_->ForEach(Query(rest), count_and_visit);
  }
  return status;
}

}  // namespace velmora::usage_stat::store
