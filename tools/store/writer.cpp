#include "tools/store/writer.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "src/events/device_events.h"
#include "tools/base/system.h"
#include "tools/store/file.h"
#include "tools/store/recover.h"
#include "tools/store/schema.h"
#include "tools/store/upgrade.h"

namespace velmora::usage_stat::store {

namespace {

constexpr std::int64_t kLongestSlipMs = 60'000;

// How many records may wait for their counts to be added up.
constexpr std::int64_t kAddUpAfter = 1000;

constexpr std::int64_t kRunsBetweenChecks = 8;

constexpr std::string_view kInsertQuarantine =
    "INSERT INTO quarantine(run, received_ms, pid, uid, kind, reason, type, size, raw) "
    "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)";

Status InsertQuarantine(Statement* insert, std::int64_t run, const QuarantineRow& row) {
  insert->Bind(1, run)
      .Bind(2, row.received_ms)
      .Bind(3, row.sender.pid)
      .Bind(4, row.sender.uid)
      .Bind(5, row.kind)
      .Bind(6, row.reason);
  row.type ? insert->Bind(7, *row.type) : insert->BindNull(7);
  return insert->Bind(8, row.size).BindBlob(9, row.raw).Run();
}

FilesBeside FilesBesideOf(const std::string& path) {
  const auto number_of = [](const std::string& file) -> std::uint64_t {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
  };
  const std::string target = TargetOf(path);
  return {number_of(target + "-wal"), number_of(target + "-shm")};
}

// Names this start of the device.
std::string BootId() {
  std::string id;
  std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
  return id;
}

std::int64_t ClockOffsetMs() { return base::NowMs() - base::BootMs(); }

Status InsertClockStep(Connection* connection, std::int64_t step_ms) {
  std::int64_t number = 0;
  Statement insert;
  RETURN_IF_ERROR(NextRecord(connection, &number));
  RETURN_IF_ERROR(connection->Prepare(
      "INSERT INTO clock_steps(record, wall_ms, step_ms) VALUES(?, ?, ?)", &insert));
  return insert.Bind(1, number).Bind(2, base::NowMs()).Bind(3, step_ms).Run();
}

// What the run before this one tells: whether records may have been lost since, and whether the
// clock was set.
Status LookBack(Connection* connection, const std::string& boot, std::int64_t offset_ms,
                bool* was_killed) {
  Statement latest;
  RETURN_IF_ERROR(connection->Prepare(
      "SELECT ended_ms, boot, boot_offset_ms FROM runs ORDER BY id DESC LIMIT 1", &latest));
  if (!latest.Step()) {
    RETURN_IF_ERROR(latest.status());
    std::int64_t stores = 0;
    RETURN_IF_ERROR(connection->Read("SELECT count(*) FROM stores", &stores));
    return stores == 0 ? BeginStore(connection) : Status();
  }
  *was_killed = latest.IsNull(0);
  const bool is_same_boot = latest.Text(1) == boot;
  const std::int64_t step_ms = offset_ms - latest.Int(2);
  latest = Statement();
  if (*was_killed) RETURN_IF_ERROR(BeginStore(connection));
  if (!is_same_boot || std::llabs(step_ms) <= kLongestSlipMs) return {};
  return InsertClockStep(connection, step_ms);
}

Status EnterRun(Connection* connection, const std::string& endpoint, const std::string& boot,
                std::int64_t offset_ms, std::int64_t* run) {
  std::int64_t number = 0;
  Statement insert;
  RETURN_IF_ERROR(AddUp(connection));
  RETURN_IF_ERROR(NextRecord(connection, &number));
  RETURN_IF_ERROR(connection->Prepare(
      "INSERT INTO runs(pid, endpoint, boot, boot_offset_ms, started_ms, first_record, "
      "counted_record) VALUES(?, ?, ?, ?, ?, ?, ?)",
      &insert));
  RETURN_IF_ERROR(insert.Bind(1, getpid())
                      .Bind(2, endpoint)
                      .Bind(3, boot)
                      .Bind(4, offset_ms)
                      .Bind(5, base::NowMs())
                      .Bind(6, number)
                      .Bind(7, number - 1)
                      .Run());
  *run = connection->LastId();
  return {};
}

Status NoteOpening(Connection* connection, bool created) {
  if (created) {
    NewJournalFileEvent event;
    return AddOwnRecord(connection, &event);
  }
  OpenJournalFileEvent event;
  return AddOwnRecord(connection, &event);
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
  const std::int64_t now = base::NowMs();
  RETURN_IF_ERROR(
      Count(count, {row.run, row.sender.uid, Outcome::kQuarantined, row.kind, -1, now}));
  return Count(count, {row.run, row.sender.uid, Outcome::kStored, "", 1, now});
}

}  // namespace

Status Writer::Open(const std::string& path, const std::string& endpoint,
                    std::unique_ptr<Writer>* writer, std::string archive_directory) {
  auto opened = std::unique_ptr<Writer>(new Writer);
  opened->path_ = path;
  opened->clock_offset_ms_ = ClockOffsetMs();
  if (NeedsUpgrade(path)) RETURN_IF_ERROR(BeginUpgrade(path));
  bool created = false;
  RETURN_IF_ERROR(OpenForWriting(path, &opened->connection_, &created));
  if (archive_directory.empty()) archive_directory = DefaultArchiveDirectory(path);
  const std::int64_t known = created ? LargestKnownNumber(path, archive_directory) : 0;
  if (Status status = opened->BeginRun(endpoint, created, known); !status.ok()) {
    status = CauseOf(&opened->connection_, status);
    if (!IsDamage(status)) status.message = "cannot write " + path + ": " + status.message;
    return status;
  }
  opened->files_beside_ = FilesBesideOf(path);
  *writer = std::move(opened);
  return {};
}

Status Writer::BeginRun(const std::string& endpoint, bool created, std::int64_t known) {
  const std::string boot = BootId();
  bool was_killed = false;
  // A power cut may take the log, but never that this run began: it tells that numbers may have
  // been lost.
  const Durably durably(&connection_);
  Transaction transaction(&connection_);
  RETURN_IF_ERROR(transaction.Begin());
  if (known > 0) RETURN_IF_ERROR(BeginStore(&connection_, known + 1));
  RETURN_IF_ERROR(LookBack(&connection_, boot, clock_offset_ms_, &was_killed));
  RETURN_IF_ERROR(EnterRun(&connection_, endpoint, boot, clock_offset_ms_, &run_));
  RETURN_IF_ERROR(NoteOpening(&connection_, created));
  RETURN_IF_ERROR(transaction.Commit());
  // In the file itself, too, unless somebody reads: the log may be removed by itself.
  RETURN_IF_ERROR(connection_.Execute("PRAGMA wal_checkpoint(PASSIVE)"));
  RETURN_IF_ERROR(inserter_.Prepare(&connection_));
  RETURN_IF_ERROR(connection_.Prepare(kInsertQuarantine, &insert_quarantine_));
  RETURN_IF_ERROR(connection_.Prepare(kCount, &count_));
  wants_check_ = created || was_killed || run_ % kRunsBetweenChecks == 0;
  return {};
}

Status Writer::Commit(const Batch& batch) {
  Status status = CheckInUse(path_, connection_);
  if (status.ok() && FilesBesideOf(path_) != files_beside_) {
    status = {SQLITE_READONLY_DBMOVED, "the log of " + path_ + " was removed while in use"};
  }
  if (IsMoved(status)) {
    // What was committed goes along with the file, wherever that is now: its log stays behind.
    (void)connection_.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  if (!status.ok()) return status;
  // A small drift is forgotten, so that it never adds up to a step.
  const std::int64_t offset_ms = ClockOffsetMs();
  Transaction transaction(&connection_);
  status = transaction.Begin();
  if (status.ok()) status = NoteClockStep(offset_ms);
  if (status.ok()) status = Add(batch);
  if (status.ok()) status = transaction.Commit();
  if (status.ok()) {
    clock_offset_ms_ = offset_ms;
  } else {
    inserter_.Forget();
  }
  return CauseOf(&connection_, status);
}

Status Writer::NoteClockStep(std::int64_t offset_ms) {
  const std::int64_t step_ms = offset_ms - clock_offset_ms_;
  if (std::llabs(step_ms) <= kLongestSlipMs) return {};
  RETURN_IF_ERROR(InsertClockStep(&connection_, step_ms));
  RETURN_IF_ERROR(
      connection_.Execute("UPDATE runs SET boot_offset_ms = " + std::to_string(offset_ms) +
                          " WHERE id = " + std::to_string(run_)));
  return {};
}

Status Writer::Add(const Batch& batch) {
  const std::int64_t now = base::NowMs();
  std::int64_t number = 0;
  RETURN_IF_ERROR(NextRecord(&connection_, &number));
  for (const RecordRow& row : batch.records) RETURN_IF_ERROR(inserter_.Insert(number++, row));

  Batch::Counts quarantined = batch.not_kept;
  for (const QuarantineRow& row : batch.quarantine) {
    RETURN_IF_ERROR(InsertQuarantine(&insert_quarantine_, run_, row));
    ++quarantined[{row.sender.uid, row.kind}];
  }
  const auto count = [&](Outcome outcome, const Batch::Counts& counts) {
    for (const auto& [sender, number_of] : counts) {
      RETURN_IF_ERROR(Count(&count_, {run_, sender.first, outcome, sender.second, number_of, now}));
    }
    return Status();
  };
  RETURN_IF_ERROR(count(Outcome::kQuarantined, quarantined));
  RETURN_IF_ERROR(count(Outcome::kRefused, batch.refused));
  RETURN_IF_ERROR(count(Outcome::kOff, batch.off));
  for (const auto& [sender, number_of] : batch.not_kept) {
    RETURN_IF_ERROR(Count(
        &count_, {run_, sender.first, Outcome::kDeleted, std::string(kByFlood), number_of, now}));
  }
  not_added_up_ += static_cast<std::int64_t>(batch.records.size());
  if (not_added_up_ < kAddUpAfter) return {};
  not_added_up_ = 0;
  return AddUp(&connection_);
}

Status Writer::Finish() {
  Transaction transaction(&connection_);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(AddUp(&connection_));
  RETURN_IF_ERROR(
      connection_.Execute("UPDATE runs SET ended_ms = " + std::to_string(base::NowMs()) +
                          " WHERE id = " + std::to_string(run_)));
  return transaction.Commit();
}

Status Release(Connection* connection, const std::vector<Reread>& rows, std::int64_t* released) {
  Statement remove;
  Statement count;
  RecordInserter inserter;
  std::int64_t number = 0;
  *released = 0;
  Transaction transaction(connection);
  RETURN_IF_ERROR(transaction.Begin());
  // What is derived from the newest records must not count these as well.
  RETURN_IF_ERROR(AddUp(connection));
  RETURN_IF_ERROR(NextRecord(connection, &number));
  RETURN_IF_ERROR(connection->Prepare("DELETE FROM quarantine WHERE id = ?", &remove));
  RETURN_IF_ERROR(inserter.Prepare(connection));
  RETURN_IF_ERROR(connection->Prepare(kCount, &count));
  for (const Reread& reread : rows) {
    RETURN_IF_ERROR(remove.Bind(1, reread.row.id).Run());
    if (connection->Changes() == 0) continue;
    RETURN_IF_ERROR(inserter.Insert(number++, RecordOf(reread)));
    RETURN_IF_ERROR(CountReleased(&count, reread.row));
    ++*released;
  }
  RETURN_IF_ERROR(
      connection->Execute("UPDATE runs SET counted_record = " + std::to_string(number - 1) +
                          " WHERE id = (SELECT max(id) FROM runs)"));
  return transaction.Commit();
}

}  // namespace velmora::usage_stat::store
