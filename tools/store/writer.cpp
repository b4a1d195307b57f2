#include "tools/store/writer.h"

#include <unistd.h>

#include "src/events/device_events.h"
#include "tools/store/file.h"
#include "tools/store/journal_events.h"
#include "tools/store/schema.h"
#include "tools/store/statements.h"

namespace velmora::usage_stat::store {

namespace {

constexpr std::string_view kInsertQuarantine =
    "INSERT INTO quarantine(run, received_ms, pid, uid, kind, reason, type, fields, raw) "
    "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr std::string_view kAdvanceRun =
    "UPDATE runs SET received = received + ?, last_commit_ms = ? WHERE id = ?";

Status InsertQuarantine(Statement* insert, std::int64_t run, const QuarantineRow& row) {
  insert->Bind(1, run)
      .Bind(2, row.received_ms)
      .Bind(3, row.sender.pid)
      .Bind(4, row.sender.uid)
      .Bind(5, row.kind)
      .Bind(6, row.reason);
  row.type ? insert->Bind(7, *row.type) : insert->BindNull(7);
  return insert->Bind(8, row.fields).BindBlob(9, row.raw).Run();
}

Status EnterRun(Connection* connection, const std::string& endpoint, std::int64_t* run) {
  Statement insert;
  if (Status status = connection->Prepare(
          "INSERT INTO runs(pid, endpoint, started_ms, last_commit_ms) VALUES(?, ?, ?3, ?3)",
          &insert);
      !status.ok()) {
    return status;
  }
  Status status = insert.Bind(1, getpid()).Bind(2, endpoint).Bind(3, NowMs()).Run();
  *run = connection->LastId();
  return status;
}

Status JournalOpening(Connection* connection, std::int64_t run, bool created) {
  if (created) {
    NewJournalFileEvent event;
    return AddJournalEvent(connection, run, &event);
  }
  OpenJournalFileEvent event;
  return AddJournalEvent(connection, run, &event);
}

// The record that a reread row becomes.
RecordRow RecordOf(const Reread& reread) {
  RecordRow record = reread.record;
  record.received_ms = reread.row.received_ms;
  record.sender = reread.row.sender;
  record.raw = reread.row.raw;
  return record;
}

Status CountReleased(Statement* count, const QuarantineRow& row) {
  const std::int64_t now = NowMs();
  Status status = Count(count, {row.run, row.sender.uid, "quarantined", row.kind, -1, now});
  return status.ok() ? Count(count, {row.run, row.sender.uid, "stored", "", 1, now}) : status;
}

}  // namespace

Status Writer::Open(const std::string& path, const std::string& endpoint,
                    std::unique_ptr<Writer>* writer) {
  auto opened = std::unique_ptr<Writer>(new Writer);
  opened->path_ = path;
  Connection& connection = opened->connection_;
  if (Status status = OpenForWriting(path, &connection, &opened->created_); !status.ok()) {
    return status;
  }
  Transaction transaction(&connection);
  Status status = transaction.Begin();
  if (status.ok()) status = EnterRun(&connection, endpoint, &opened->run_);
  if (status.ok()) status = JournalOpening(&connection, opened->run_, opened->created_);
  if (status.ok()) status = transaction.Commit();
  if (status.ok()) status = connection.Prepare(kInsertRecord, &opened->insert_record_);
  if (status.ok()) status = connection.Prepare(kInsertQuarantine, &opened->insert_quarantine_);
  if (status.ok()) status = connection.Prepare(kCount, &opened->count_);
  if (status.ok()) status = connection.Prepare(kAdvanceRun, &opened->advance_run_);
  if (status.ok()) *writer = std::move(opened);
  return status;
}

Status Writer::Commit(const Batch& batch) {
  Status status = CheckInUse(path_, connection_);
  if (IsMoved(status)) {
    // What was committed goes along with the file, wherever that is now: its log stays behind.
    (void)connection_.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  if (!status.ok()) return status;
  Transaction transaction(&connection_);
  status = transaction.Begin();
  if (status.ok()) status = Add(batch);
  if (status.ok()) status = transaction.Commit();
  return status;
}

Status Writer::Add(const Batch& batch) {
  const std::int64_t now = NowMs();
  Batch::Counts stored;
  Batch::Counts quarantined;

  for (const RecordRow& row : batch.records) {
    RETURN_IF_ERROR(InsertRecord(&insert_record_, row));
    ++stored[{row.sender.uid, ""}];
  }
  for (const QuarantineRow& row : batch.quarantine) {
    if (Status status = InsertQuarantine(&insert_quarantine_, run_, row); !status.ok()) {
      return status;
    }
    ++quarantined[{row.sender.uid, row.kind}];
  }
  const auto count = [&](const char* outcome, const Batch::Counts& counts) {
    Status status;
    for (auto entry = counts.begin(); entry != counts.end() && status.ok(); ++entry) {
      const auto& [uid, reason] = entry->first;
      status = Count(&count_, {run_, uid, outcome, reason, entry->second, now});
    }
    return status;
  };
  RETURN_IF_ERROR(count("stored", stored));
  RETURN_IF_ERROR(count("quarantined", quarantined));
  RETURN_IF_ERROR(count("refused", batch.refused));
  return advance_run_.Bind(1, batch.received).Bind(2, now).Bind(3, run_).Run();
}

Status Writer::Finish() {
  const std::string now = std::to_string(NowMs());
  return connection_.Execute("UPDATE runs SET ended_ms = " + now + ", last_commit_ms = " + now +
                             " WHERE id = " + std::to_string(run_));
}

Status Release(Connection* connection, const std::vector<Reread>& rows, std::int64_t* released) {
  Statement remove;
  Statement insert;
  Statement count;
  *released = 0;
  Transaction transaction(connection);
  Status status = transaction.Begin();
  if (status.ok()) status = connection->Prepare("DELETE FROM quarantine WHERE id = ?", &remove);
  if (status.ok()) status = connection->Prepare(kInsertRecord, &insert);
  if (status.ok()) status = connection->Prepare(kCount, &count);
  for (const Reread& reread : rows) {
    if (status.ok()) status = remove.Bind(1, reread.row.id).Run();
    if (!status.ok()) return status;
    if (connection->Changes() == 0) continue;
    status = InsertRecord(&insert, RecordOf(reread));
    if (status.ok()) status = CountReleased(&count, reread.row);
    ++*released;
  }
  if (status.ok()) status = transaction.Commit();
  return status;
}

}  // namespace velmora::usage_stat::store
