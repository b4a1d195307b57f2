#include "tools/store/reader.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "tools/records/record.h"
#include "tools/store/archive.h"
#include "tools/store/file.h"
#include "tools/store/ledger.h"
#include "tools/store/schema.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::store {

namespace {

// What one transaction of a reader looks at, and keeps of it, at most.
constexpr std::int64_t kNumbersInPiece = 2000;
constexpr std::size_t kBytesInPiece = std::size_t{256} * 1024;
constexpr std::size_t kRowBytes = 32;  // beside its texts

// A statement's text and its parameters, which it owns.
class Filter {
 public:
  Filter(const Query& query, int schema) {
    if (query.since_ms) Add("timestamp_ms >= ?", *query.since_ms);
    if (query.until_ms) Add("timestamp_ms < ?", *query.until_ms);
    if (!query.events.empty()) {
      std::string names;
      for (std::size_t i = 0; i < query.events.size(); ++i) names += i == 0 ? "?" : ", ?";
      text_ += " AND event IN (" +
               (schema == 1 ? names : "SELECT id FROM events WHERE name IN (" + names + ")") + ")";
      names_ = &query.events;
    }
  }

  const std::string& text() const { return text_; }

  // Binds the parameters from `index` on.
  void Bind(int index, Statement* statement) const {
    for (const std::int64_t number : numbers_) statement->Bind(index++, number);
    if (!names_) return;
    for (const std::string& name : *names_) statement->Bind(index++, name);
  }

 private:
  void Add(const char* condition, std::int64_t number) {
    text_ += std::string(" AND ") + condition;
    numbers_.push_back(number);
  }

  std::string text_;
  std::vector<std::int64_t> numbers_;
  const std::vector<std::string>* names_ = nullptr;
};

// Whether what can't be asked for in SQL matches: the meaning of fields is not in the database.
bool MatchesFields(const Query& query, std::string_view raw) {
  const auto names = [raw](std::int64_t application) {
    return records::Names(raw, usage_stat::Kind::kApplication, application);
  };
  return (query.applications.empty() || std::ranges::any_of(query.applications, names)) &&
         (!query.book_id || records::Names(raw, usage_stat::Kind::kBookId, *query.book_id));
}

// The columns of a record, the datagram alone or all of them; AddRow() reads them.
constexpr const char* kKeyColumns = "id, raw";
std::string ColumnsOf(const Query& query, int schema) {
  return std::string(kKeyColumns) + ", event, timestamp_ms" + (schema == 1 ? ", type" : ", NULL") +
         (query.datagram_only ? "" : ", received_ms, pid, uid, fields");
}

QuarantineRow QuarantinedOf(const Statement& row) {
  return {row.Int(0),
          row.Int(1),
          row.Int(2),
          {row.Int(3), row.Int(4)},
          std::string(row.Text(5)),
          std::string(row.Text(6)),
          row.IsNull(7) ? std::nullopt : std::optional(static_cast<int>(row.Int(7))),
          row.Int(8),
          std::string(row.Text(9))};
}

Run RunOf(const Statement& row) {
  return {row.Int(0), row.Int(1), std::string(row.Text(2)),
          row.Int(3), row.Int(4), row.IsNull(5) ? std::nullopt : std::optional(row.Int(5)),
          row.Int(6)};
}

Store StoreOf(const Statement& row) { return {std::string(row.Text(0)), row.Int(1)}; }

Missing MissingOf(const Statement& row) {
  return {row.Int(0), row.Int(1),
          ValueNamed<Absence>(kAbsenceNames, row.Text(2)).value_or(Absence::kUnreadable)};
}

ClockStep ClockStepOf(const Statement& row) { return {row.Int(0), row.Int(1), row.Int(2)}; }

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

constexpr std::string_view kUnpackedName = "usage-stat-archive.";

std::string TemporaryFolder() {
  const char* folder = std::getenv("TMPDIR");
  return folder && *folder ? folder : "/tmp";
}

// Unpacks an archive and opens it; the file's name is gone when this returns. Until then the file
// is locked, as a sign that somebody is at it.
Status OpenUnpacked(const std::string& path, Connection* connection, int* schema) {
  std::string unpacked = TemporaryFolder().append("/").append(kUnpackedName).append("XXXXXX");
  const Descriptor file(mkstemp(unpacked.data()));
  if (!file.is_open()) return Status::Errno("cannot create a file like " + unpacked);
  (void)flock(file.get(), LOCK_SH | LOCK_NB);
  Status status = UnpackArchive(path, unpacked);
  if (status.ok()) status = OpenForReading(unpacked, connection, schema);
  // A stranger's may have a log.
  for (const char* beside : {"", "-journal", "-wal", "-shm"}) unlink((unpacked + beside).c_str());
  return status;
}

// The newest matches, oldest of them first: they are those that come first in reverse.
template <class Source>
Status ForEachOfNewest(Source source, Query query, const RecordVisitor& visit) {
  query.reverse = true;
  std::vector<RecordRow> rows;
  RETURN_IF_ERROR(source(query, [&rows](const RecordRow& row) {
    rows.push_back(row);
    return true;
  }));
  for (auto row = rows.rbegin(); row != rows.rend() && visit(*row); ++row) {
  }
  return {};
}

std::int64_t StartOf(const Query& query) {
  if (query.reverse) return query.last_id.value_or(INT64_MAX);
  return query.after_id ? *query.after_id + 1 : INT64_MIN;
}

// Hands out rows until the visitor or the query has enough; false then.
bool Visit(std::span<const RecordRow> rows, const RecordVisitor& visit,
           std::optional<std::int64_t>* left) {
  for (const RecordRow& row : rows) {
    if (*left && **left <= 0) return false;
    if (*left) --**left;
    if (!visit(row) || (*left && **left == 0)) return false;
  }
  return true;
}

}  // namespace

void RemoveAbandonedUnpacked() {
  for (const std::string& path : FilesIn(TemporaryFolder())) {
    if (!std::filesystem::path(path).filename().string().starts_with(kUnpackedName)) continue;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.is_open() && flock(file.get(), LOCK_EX | LOCK_NB) == 0) unlink(path.c_str());
  }
}

Status Reader::Open(const std::string& path, std::unique_ptr<Reader>* reader,
                    Connection::Mode mode) {
  auto opened = std::unique_ptr<Reader>(new Reader);
  RETURN_IF_ERROR(IsArchive(path)
                      ? OpenUnpacked(path, &opened->connection_, &opened->schema_)
                      : OpenForReading(path, &opened->connection_, &opened->schema_, mode));
  *reader = std::move(opened);
  return {};
}

const std::pair<int, std::string>* Reader::FindEvent(std::int64_t number) {
  auto found = events_.find(number);
  if (found != events_.end()) return &found->second;
  Statement select;
  if (!connection_.Prepare("SELECT id, type, name FROM events", &select).ok()) return nullptr;
  while (select.Step()) {
    events_[select.Int(0)] = {static_cast<int>(select.Int(1)), std::string(select.Text(2))};
  }
  found = events_.find(number);
  return found == events_.end() ? nullptr : &found->second;
}

const RecordRow* Reader::AddRow(const Query& query, const Statement& columns, RowBuffer* rows) {
  const bool is_first_schema = schema_ == 1;
  const auto* event = is_first_schema ? nullptr : FindEvent(columns.Int(2));
  if (!is_first_schema && !event) return nullptr;
  RecordRow* row = rows->Add();
  row->id = columns.Int(0);
  row->raw = columns.Text(1);
  row->event = event ? std::string_view(event->second) : columns.Text(2);
  row->timestamp_ms = columns.Int(3);
  row->type = event ? event->first : static_cast<int>(columns.Int(4));
  if (query.datagram_only) return row;
  row->received_ms = columns.Int(5);
  row->sender = {columns.Int(6), columns.Int(7)};
  row->fields = columns.Text(8);
  return row;
}

Status Reader::ReadPiece(const Query& query, std::int64_t* position, RowBuffer* rows,
                         bool* is_end) {
  rows->Clear();
  const bool is_down = query.reverse;
  const Filter filter(query, schema_);
  Snapshot snapshot(&connection_);
  RETURN_IF_ERROR(snapshot.Begin());

  // The range of numbers that this piece looks at, from the next one that there is.
  Statement next;
  RETURN_IF_ERROR(connection_.Prepare(
      is_down ? "SELECT max(id) FROM records WHERE id <= ?"
              : "SELECT min(id), (SELECT max(id) FROM records) FROM records WHERE id >= ?",
      &next));
  if (!next.Bind(1, *position).Step()) return next.status();
  *is_end = next.IsNull(0);
  if (*is_end) return {};
  std::int64_t first = next.Int(0);
  std::int64_t last = first;
  if (is_down) {
    first = std::max(first, INT64_MIN + kNumbersInPiece) - kNumbersInPiece;
  } else {
    // Not beyond what there is: more may come until the next piece is read.
    last = std::min(std::min(last, INT64_MAX - kNumbersInPiece) + kNumbersInPiece, next.Int(1));
  }
  if (query.last_id) last = std::min(last, *query.last_id);
  if (query.after_id) first = std::max(first, *query.after_id + 1);
  *is_end = first > last;
  if (*is_end) return {};

  // Few rows match what only the datagram tells: the rest of a row is fetched when it does.
  const std::string columns = ColumnsOf(query, schema_);
  const bool looks_inside = !query.applications.empty() || query.book_id;
  Statement select;
  Statement fetch;
  RETURN_IF_ERROR(connection_.Prepare("SELECT " + (looks_inside ? kKeyColumns : columns) +
                                          " FROM records WHERE id BETWEEN ? AND ?" + filter.text() +
                                          (is_down ? " ORDER BY id DESC" : " ORDER BY id"),
                                      &select));
  if (looks_inside) {
    RETURN_IF_ERROR(
        connection_.Prepare("SELECT " + columns + " FROM records WHERE id = ?", &fetch));
  }
  filter.Bind(3, &select);
  select.Bind(1, first).Bind(2, last);
  std::size_t bytes = 0;
  while (bytes < kBytesInPiece && select.Step()) {
    // What is passed over need not be looked at again.
    *position = select.Int(0);
    const std::string_view raw = select.Text(1);
    bytes += kRowBytes + raw.size();
    if (!MatchesFields(query, raw)) continue;
    if (looks_inside) {
      fetch.Reset();
      if (!fetch.Bind(1, *position).Step()) return fetch.status();
    }
    const RecordRow* row = AddRow(query, looks_inside ? fetch : select, rows);
    if (row) bytes += row->fields.size();
  }
  if (bytes < kBytesInPiece) {
    RETURN_IF_ERROR(select.status());
    *position = is_down ? first : last;
  }
  *is_end = *position == (is_down ? INT64_MIN : INT64_MAX);
  *position += *is_end ? 0 : is_down ? -1 : 1;
  return {};
}

Status Reader::ForEach(const Query& query, const RecordVisitor& visit) {
  if (query.newest && !query.reverse) {
    return ForEachOfNewest([this](const Query& backwards,
                                  const RecordVisitor& keep) { return ForEach(backwards, keep); },
                           query, visit);
  }
  std::optional<std::int64_t> left = query.newest;
  if (left == 0 || query.after_id == INT64_MAX) return {};
  std::int64_t position = StartOf(query);
  RowBuffer rows;
  for (bool is_end = false; !is_end;) {
    RETURN_IF_ERROR(ReadPiece(query, &position, &rows, &is_end));
    if (!Visit(rows.rows(), visit, &left)) return {};
  }
  return {};
}

Status Reader::ForEachQuarantined(const QuarantineVisitor& visit) {
  const std::string size = schema_ == 1 ? "length(raw)" : "size";
  std::int64_t after = 0;
  for (std::vector<QuarantineRow> rows(1); !rows.empty();) {
    rows.clear();
    Statement statement;
    RETURN_IF_ERROR(
        connection_.Prepare("SELECT id, run, received_ms, pid, uid, kind, reason, type, " + size +
                                ", raw FROM quarantine WHERE id > ? ORDER BY id",
                            &statement));
    statement.Bind(1, after);
    for (std::size_t bytes = 0; bytes < kBytesInPiece && statement.Step();) {
      rows.push_back(QuarantinedOf(statement));
      bytes += rows.back().raw.size() + rows.back().reason.size();
      after = rows.back().id;
    }
    RETURN_IF_ERROR(statement.status());
    statement = Statement();
    for (const QuarantineRow& row : rows) {
      if (!visit(row)) return {};
    }
  }
  return {};
}

Status Reader::ReadRuns(std::vector<Run>* runs) {
  return ReadAll(&connection_,
                 schema_ == 1
                     ? "SELECT id, pid, endpoint, started_ms, last_commit_ms, ended_ms, received "
                       "FROM runs ORDER BY id"
                     : "SELECT id, pid, endpoint, started_ms, last_commit_ms, ended_ms, received "
                       "FROM runs JOIN run_counts ON run = id ORDER BY id",
                 &RunOf, runs);
}

Status Reader::ReadTallies(std::vector<Tally>* tallies) {
  tallies->clear();
  Statement select;
  RETURN_IF_ERROR(connection_.Prepare("SELECT run, uid, outcome, reason, count, last_ms FROM " +
                                          std::string(schema_ == 1 ? "tally" : "outcomes") +
                                          " ORDER BY run, uid, outcome, reason",
                                      &select));
  while (select.Step()) {
    // The first schema called the collector's own records its journal.
    const auto outcome = select.Text(2) == "journal" ? Outcome::kOwn : OutcomeNamed(select.Text(2));
    if (!outcome) continue;
    tallies->push_back({select.Int(0), select.Int(1), *outcome, std::string(select.Text(3)),
                        select.Int(4), select.Int(5)});
  }
  return select.status();
}

Status Reader::ReadArchives(std::vector<Archive>* archives) {
  return store::ReadArchives(&connection_, schema_, archives);
}

Status Reader::ReadStores(std::vector<Store>* stores) {
  stores->clear();
  if (schema_ == 1) return {};
  return ReadAll(&connection_, "SELECT store_id, first_record FROM stores ORDER BY first_record",
                 &StoreOf, stores);
}

Status Reader::ReadMissing(std::vector<Missing>* missing) {
  missing->clear();
  if (schema_ == 1) return {};
  return ReadAll(&connection_,
                 "SELECT first_record, last_record, reason FROM missing ORDER BY first_record",
                 &MissingOf, missing);
}

Status Reader::ReadClockSteps(std::vector<ClockStep>* steps) {
  steps->clear();
  if (schema_ == 1) return {};
  return ReadAll(&connection_,
                 "SELECT record, wall_ms, step_ms FROM clock_steps ORDER BY record, rowid",
                 &ClockStepOf, steps);
}

Status Reader::LastNumber(std::int64_t* number) {
  if (schema_ == 1) {
    return connection_.Read(
        "SELECT coalesce(max(seq), 0) FROM sqlite_sequence WHERE name = 'records'", number);
  }
  RETURN_IF_ERROR(NextRecord(&connection_, number));
  --*number;
  return {};
}

Status Reader::CountRows(std::int64_t* records, std::int64_t* quarantined) {
  RETURN_IF_ERROR(connection_.Read("SELECT count(*) FROM records", records));
  return connection_.Read("SELECT count(*) FROM quarantine", quarantined);
}

// ---- The database and its archives ----

bool MayHoldMatch(const Archive& archive, const Query& query) {
  return (!query.since_ms || archive.last_timestamp_ms >= *query.since_ms) &&
         (!query.until_ms || archive.first_timestamp_ms < *query.until_ms) &&
         (!query.after_id || archive.last_record > *query.after_id) &&
         (!query.last_id || archive.first_record <= *query.last_id);
}

Status History::Open(const std::string& path, std::unique_ptr<History>* history) {
  auto opened = std::unique_ptr<History>(new History);
  opened->path_ = path;
  RETURN_IF_ERROR(Reader::Open(path, &opened->live_));
  *history = std::move(opened);
  return {};
}

Status History::ForEach(const Query& query, const RecordVisitor& visit,
                        std::vector<std::string>* problems) {
  if (!query.newest || query.reverse) return Walk(query, visit, problems);
  return ForEachOfNewest([&](const Query& backwards,
                             const RecordVisitor& keep) { return Walk(backwards, keep, problems); },
                         query, visit);
}

Status History::FindNext(const Query& query, std::int64_t position, std::optional<Archive>* archive,
                         std::optional<std::int64_t>* limit) {
  archive->reset();
  limit->reset();
  Snapshot snapshot(&live_->connection());
  RETURN_IF_ERROR(snapshot.Begin());
  std::vector<Archive> archives;
  RETURN_IF_ERROR(live_->ReadArchives(&archives));
  if (query.reverse) std::ranges::reverse(archives);
  const auto is_next = [&](const Archive& each) {
    // One whose records have all moved on is only waiting to go.
    return each.state == ArchiveState::kComplete && each.first_record <= each.last_record &&
           (query.reverse ? each.first_record <= position : each.last_record >= position);
  };
  const auto next = std::ranges::find_if(archives, is_next);
  if (next == archives.end()) return {};
  Statement rows;
  RETURN_IF_ERROR(live_->connection().Prepare(query.reverse
                                                  ? "SELECT max(id) FROM records WHERE id <= ?"
                                                  : "SELECT min(id) FROM records WHERE id >= ?",
                                              &rows));
  if (!rows.Bind(1, position).Step()) return rows.status();
  // Should both have a record, the archive goes first: its numbers are passed over then.
  const bool archive_first = rows.IsNull(0) || (query.reverse ? rows.Int(0) <= next->last_record
                                                              : rows.Int(0) >= next->first_record);
  if (archive_first) {
    *archive = *next;
  } else {
    *limit = query.reverse ? next->last_record + 1 : next->first_record - 1;
  }
  return {};
}

// Numbers are walked through in order. Before each piece it is asked anew where they are now: rows
// may have moved to an archive since the last one.
Status History::Walk(const Query& query, const RecordVisitor& visit,
                     std::vector<std::string>* problems) {
  std::optional<std::int64_t> left = query.newest;
  if (left == 0 || query.after_id == INT64_MAX) return {};
  std::int64_t position = StartOf(query);
  RowBuffer rows;
  for (;;) {
    std::optional<Archive> archive;
    std::optional<std::int64_t> limit;
    // Rows that move to an archive between the two would be in neither.
    std::optional<Snapshot> snapshot(&live_->connection());
    RETURN_IF_ERROR(snapshot->Begin());
    RETURN_IF_ERROR(FindNext(query, position, &archive, &limit));
    Query piece = query;
    piece.newest.reset();
    if (!archive) {
      if (limit)
        (query.reverse ? piece.after_id : piece.last_id) = *limit - (query.reverse ? 1 : 0);
      bool is_end = false;
      RETURN_IF_ERROR(live_->ReadPiece(piece, &position, &rows, &is_end));
      snapshot.reset();
      if (!Visit(rows.rows(), visit, &left)) return {};
      if (!is_end) continue;
      if (!limit) return {};
      position = query.reverse ? *limit - 1 : *limit + 1;
      continue;
    }
    snapshot.reset();
    const bool is_beyond = query.reverse ? query.after_id && archive->last_record <= *query.after_id
                                         : query.last_id && archive->first_record > *query.last_id;
    if (is_beyond) return {};
    if (MayHoldMatch(*archive, query)) {
      const std::string file = LocateArchive(path_, *archive);
      std::unique_ptr<Reader> reader;
      bool has_enough = false;
      if (query.reverse) {
        piece.last_id = std::min(position, piece.last_id.value_or(INT64_MAX));
      } else if (position > INT64_MIN) {
        piece.after_id = position - 1;
      }
      Status status = Reader::Open(file, &reader);
      if (status.ok()) {
        status = reader->ForEach(piece, [&](const RecordRow& row) {
          has_enough = !Visit({&row, 1}, visit, &left);
          return !has_enough;
        });
      }
      if (has_enough) return {};
      if (!status.ok() && problems) problems->push_back(file + ": " + status.message);
    }
    position = query.reverse ? archive->first_record - 1 : archive->last_record + 1;
  }
}

}  // namespace velmora::usage_stat::store
