#include "tools/store/ledger.h"

#include <sqlite3.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <variant>

#include "tools/base/system.h"
#include "tools/records/record.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::store {

Status RecordInserter::Prepare(Connection* connection) {
  connection_ = connection;
  return connection->Prepare(
      "INSERT INTO records(id, received_ms, pid, uid, event, timestamp_ms, fields, raw) "
      "VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
      &insert_);
}

Status RecordInserter::FindEvent(const RecordRow& row, std::int64_t* event) {
  if (const auto known = events_.find(row.event); known != events_.end()) {
    *event = known->second;
    return {};
  }
  Statement add;
  Statement find;
  RETURN_IF_ERROR(connection_->Prepare(
      "INSERT INTO events(type, name) VALUES(?, ?) ON CONFLICT DO NOTHING", &add));
  RETURN_IF_ERROR(add.Bind(1, row.type).Bind(2, row.event).Run());
  RETURN_IF_ERROR(connection_->Prepare("SELECT id FROM events WHERE name = ?", &find));
  if (!find.Bind(1, row.event).Step()) return find.status();
  *event = find.Int(0);
  events_.emplace(row.event, *event);
  return {};
}

Status RecordInserter::Insert(std::int64_t id, const RecordRow& row) {
  std::int64_t event = 0;
  RETURN_IF_ERROR(FindEvent(row, &event));
  return insert_.Bind(1, id)
      .Bind(2, row.received_ms)
      .Bind(3, row.sender.pid)
      .Bind(4, row.sender.uid)
      .Bind(5, event)
      .Bind(6, row.timestamp_ms)
      .Bind(7, row.fields)
      .BindBlob(8, row.raw)
      .Run();
}

Status NextRecord(Connection* connection, std::int64_t* number) {
  // Numbers are never given twice, also after the newest records were moved or deleted: who follows
  // the records by number, or looks one up in an archive, relies on it.
  RETURN_IF_ERROR(
      connection->Read("SELECT 1 + max((SELECT coalesce(max(id), 0) FROM records), "
                       "(SELECT coalesce(max(last_record), 0) FROM archives), "
                       "(SELECT coalesce(max(last_record), 0) FROM missing), "
                       "(SELECT coalesce(max(first_record), 1) - 1 FROM stores))",
                       number));
  if (*number > kLargestNumber) {
    return {SQLITE_CORRUPT, "a record's number is larger than any that was given"};
  }
  return {};
}

Status Count(Statement* count, const Tally& tally) {
  return count->Bind(1, tally.run)
      .Bind(2, tally.uid)
      .Bind(3, NameOf(tally.outcome))
      .Bind(4, tally.reason)
      .Bind(5, tally.count)
      .Bind(6, tally.last_ms)
      .Run();
}

Status Count(Connection* connection, const Tally& tally) {
  Statement count;
  RETURN_IF_ERROR(connection->Prepare(kCount, &count));
  return Count(&count, tally);
}

Status AddUp(Connection* connection) {
  return connection->Execute(
      "INSERT INTO tally SELECT run, uid, 'stored', '', count, last_ms FROM newest_counts WHERE 1 "
      "ON CONFLICT DO UPDATE SET count = count + excluded.count, last_ms = excluded.last_ms;"
      "UPDATE runs SET counted_record = coalesce((SELECT max(id) FROM records "
      "WHERE id > counted_record), counted_record) WHERE id = (SELECT max(id) FROM runs)");
}

Status LatestRun(Connection* connection, std::int64_t* run) {
  return connection->Read("SELECT coalesce(max(id), 0) FROM runs", run);
}

Status AddOwnRecord(Connection* connection, Event* event) {
  std::ostringstream out;
  if (event->WriteToStream(out) != 0) return Status::Failed("a record can't be written");
  RecordRow row;
  row.raw = out.str();
  const auto decoded = records::Decode(row.raw);
  const auto* record = std::get_if<records::Record>(&decoded);
  if (!record) return Status::Failed("a record can't be read back");
  row.received_ms = base::NowMs();
  row.sender = {getpid(), getuid()};
  row.type = record->type;
  row.event = record->event;
  row.timestamp_ms = record->timestamp;
  row.fields = records::Dump(record->values);

  std::int64_t run = 0;
  std::int64_t number = 0;
  RecordInserter inserter;
  RETURN_IF_ERROR(AddUp(connection));
  RETURN_IF_ERROR(LatestRun(connection, &run));
  RETURN_IF_ERROR(NextRecord(connection, &number));
  RETURN_IF_ERROR(inserter.Prepare(connection));
  RETURN_IF_ERROR(inserter.Insert(number, row));
  RETURN_IF_ERROR(Count(connection, {run, row.sender.uid, Outcome::kOwn, "", 1, row.received_ms}));
  return connection->Execute("UPDATE runs SET counted_record = " + std::to_string(number) +
                             " WHERE id = " + std::to_string(run));
}

Status RemoveRecords(Connection* connection, std::int64_t first, std::int64_t last, Outcome outcome,
                     std::string_view reason, std::int64_t* removed) {
  std::int64_t run = 0;
  Statement remove;
  RETURN_IF_ERROR(AddUp(connection));
  RETURN_IF_ERROR(LatestRun(connection, &run));
  RETURN_IF_ERROR(connection->Prepare("DELETE FROM records WHERE id BETWEEN ? AND ?", &remove));
  RETURN_IF_ERROR(remove.Bind(1, first).Bind(2, last).Run());
  *removed = connection->Changes();
  if (*removed == 0) return {};
  return Count(connection, {run, getuid(), outcome, std::string(reason), *removed, base::NowMs()});
}

namespace {

// Where in `missing` the runs begin that may reach number ?1 or what is behind it: runs don't
// overlap, so that only the last one in front can.
constexpr std::string_view kFromRunAt =
    "first_record >= coalesce((SELECT max(first_record) FROM missing WHERE first_record < ?1), 0)";

// Notes a run of numbers of which none has been noted.
Status NoteRun(Connection* connection, std::int64_t first, std::int64_t last, Absence reason) {
  // Runs that touch become one.
  Statement merge;
  RETURN_IF_ERROR(connection->Prepare(
      std::string("DELETE FROM missing WHERE ").append(kFromRunAt) +
          " AND first_record <= ?2 + 1 AND last_record >= ?1 - 1 AND reason = ?3 "
          "RETURNING first_record, last_record",
      &merge));
  merge.Bind(1, first).Bind(2, last).Bind(3, NameOf(reason));
  while (merge.Step()) {
    first = std::min(first, merge.Int(0));
    last = std::max(last, merge.Int(1));
  }
  RETURN_IF_ERROR(merge.status());
  Statement insert;
  RETURN_IF_ERROR(connection->Prepare(
      "INSERT INTO missing(first_record, last_record, reason) VALUES(?, ?, ?)", &insert));
  return insert.Bind(1, first).Bind(2, last).Bind(3, NameOf(reason)).Run();
}

}  // namespace

Status NoteMissing(Connection* connection, std::int64_t first, std::int64_t last, Absence reason) {
  // What has been noted keeps its reason: each number is missing once.
  std::vector<std::pair<std::int64_t, std::int64_t>> runs;
  Statement noted;
  RETURN_IF_ERROR(connection->Prepare(
      std::string("SELECT first_record, last_record FROM missing WHERE ").append(kFromRunAt) +
          " AND first_record <= ?2 AND last_record >= ?1 ORDER BY first_record",
      &noted));
  noted.Bind(1, first).Bind(2, last);
  while (noted.Step()) {
    if (first < noted.Int(0)) runs.emplace_back(first, noted.Int(0) - 1);
    first = noted.Int(1) + 1;
  }
  RETURN_IF_ERROR(noted.status());
  noted = Statement();
  if (first <= last) runs.emplace_back(first, last);
  for (const auto& [run_first, run_last] : runs) {
    RETURN_IF_ERROR(NoteRun(connection, run_first, run_last, reason));
  }
  return {};
}

Status NoteMissing(Connection* connection, const Runs& runs, Absence reason) {
  for (const auto& [first, last] : runs) {
    RETURN_IF_ERROR(NoteMissing(connection, first, last, reason));
  }
  return {};
}

Status MakeStoreId(std::string* id) {
  id->resize(kStoreIdSize);
  const auto size = static_cast<ssize_t>(id->size());
  return getrandom(id->data(), id->size(), 0) == size ? Status()
                                                      : Status::Errno("no random numbers");
}

Status BeginStore(Connection* connection, std::int64_t first) {
  std::string id;
  std::int64_t number = 0;
  Statement insert;
  RETURN_IF_ERROR(MakeStoreId(&id));
  RETURN_IF_ERROR(NextRecord(connection, &number));
  RETURN_IF_ERROR(connection->Prepare(
      "INSERT OR REPLACE INTO stores(first_record, store_id) VALUES(?, ?)", &insert));
  return insert.Bind(1, std::max(number, first)).BindBlob(2, id).Run();
}

Status InsertArchive(Connection* connection, Archive* archive) {
  Statement insert;
  RETURN_IF_ERROR(connection->Prepare(
      "INSERT INTO archives(path, state, schema, created_ms, first_record, last_record, records, "
      "first_timestamp_ms, last_timestamp_ms, bytes) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
      &insert));
  RETURN_IF_ERROR(insert.Bind(1, std::string_view(archive->path))
                      .Bind(2, NameOf(archive->state))
                      .Bind(3, archive->schema)
                      .Bind(4, archive->created_ms)
                      .Bind(5, archive->first_record)
                      .Bind(6, archive->last_record)
                      .Bind(7, archive->records)
                      .Bind(8, archive->first_timestamp_ms)
                      .Bind(9, archive->last_timestamp_ms)
                      .Bind(10, archive->bytes)
                      .Run());
  archive->id = connection->LastId();
  // What comes from elsewhere must neither use up the numbers of what is to come nor hold those of
  // what is here, which every query would show twice.
  std::int64_t next = 0;
  const Status status = NextRecord(connection, &next);
  if (IsDamage(status)) return Status::Failed(status.message);
  RETURN_IF_ERROR(status);
  if (archive->state != ArchiveState::kComplete) return {};
  std::int64_t is_here = 0;
  RETURN_IF_ERROR(connection->Read("SELECT EXISTS (SELECT 1 FROM records WHERE id BETWEEN " +
                                       std::to_string(archive->first_record) + " AND " +
                                       std::to_string(archive->last_record) + ")",
                                   &is_here));
  return is_here == 0 ? Status() : Status::Failed("records of the same numbers are here");
}

Status UpdateArchive(Connection* connection, const Archive& archive) {
  Statement update;
  RETURN_IF_ERROR(connection->Prepare(
      "UPDATE archives SET schema = ?, first_record = ?, last_record = ?, records = ?, "
      "first_timestamp_ms = ?, last_timestamp_ms = ?, bytes = ? WHERE id = ?",
      &update));
  return update.Bind(1, archive.schema)
      .Bind(2, archive.first_record)
      .Bind(3, archive.last_record)
      .Bind(4, archive.records)
      .Bind(5, archive.first_timestamp_ms)
      .Bind(6, archive.last_timestamp_ms)
      .Bind(7, archive.bytes)
      .Bind(8, archive.id)
      .Run();
}

Status SetState(Connection* connection, std::int64_t archive, ArchiveState state) {
  Statement update;
  RETURN_IF_ERROR(connection->Prepare("UPDATE archives SET state = ? WHERE id = ?", &update));
  return update.Bind(1, NameOf(state)).Bind(2, archive).Run();
}

Status ReadArchives(Connection* connection, int schema, std::vector<Archive>* archives) {
  archives->clear();
  Statement select;
  RETURN_IF_ERROR(connection->Prepare(
      "SELECT id, path, state, " + std::string(schema == 1 ? "1" : "schema") +
          ", created_ms, first_record, last_record, records, "
          "first_timestamp_ms, last_timestamp_ms, bytes FROM archives ORDER BY first_record, id",
      &select));
  while (select.Step()) {
    const auto state = ValueNamed<ArchiveState>(kArchiveStateNames, select.Text(2));
    if (!state) continue;
    const auto record = [&select](int column) {
      return std::clamp<std::int64_t>(select.Int(column), 0, kLargestNumber);
    };
    archives->push_back({select.Int(0), std::string(select.Text(1)), *state,
                         static_cast<int>(select.Int(3)), select.Int(4), record(5), record(6),
                         select.Int(7), select.Int(8), select.Int(9), select.Int(10)});
  }
  return select.status();
}

Status ReadArchives(Connection* connection, ArchiveState state, std::vector<Archive>* archives) {
  RETURN_IF_ERROR(ReadArchives(connection, kSchemaVersion, archives));
  std::erase_if(*archives, [state](const Archive& archive) { return archive.state != state; });
  return {};
}

Status AddHeld(Connection* connection, std::int64_t first, std::int64_t last, NumberSet* held,
               std::int64_t but) {
  std::vector<Archive> archives;
  RETURN_IF_ERROR(ReadArchives(connection, ArchiveState::kComplete, &archives));
  for (const Archive& archive : archives) {
    const bool holds = archive.id != but && archive.records > 0;
    if (holds) held->Add(archive.first_record, archive.last_record);
  }
  return AddNumbers(connection, first, last, held);
}

}  // namespace velmora::usage_stat::store
