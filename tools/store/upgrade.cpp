#include "tools/store/upgrade.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "tools/store/archive.h"
#include "tools/store/file.h"
#include "tools/store/ledger.h"
#include "tools/store/maintenance.h"
#include "tools/store/numbers.h"
#include "tools/store/pages.h"
#include "tools/store/reader.h"
#include "tools/store/recover.h"
#include "tools/store/schema.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::store {

namespace {

// What stays as it is. A run's counted records are all that it has: none of them is in the new
// database. What was begun of an archive is forgotten, since its records are in the database still.
// At the end, whether there is all that is moved later.
constexpr const char* kTakeAlong = R"sql(
INSERT INTO runs(id, pid, endpoint, boot, boot_offset_ms, started_ms, ended_ms, first_record,
                 counted_record)
  SELECT id, pid, endpoint, '', 0, started_ms, ended_ms, 0,
    (SELECT coalesce(max(seq), 0) FROM old.sqlite_sequence WHERE name = 'records')
  FROM old.runs;
INSERT INTO tally SELECT run, uid, replace(outcome, 'journal', 'own'), reason, count, last_ms
  FROM old.tally;
INSERT INTO archives
  SELECT id, path, state, 1, created_ms, first_record, last_record, records, first_timestamp_ms,
    last_timestamp_ms, bytes FROM old.archives WHERE state <> 'begun';
INSERT INTO sqlite_sequence SELECT name, seq FROM old.sqlite_sequence WHERE name = 'quarantine';
SELECT id, received_ms, pid, uid, type, event, timestamp_ms, fields, raw FROM old.records LIMIT 0;
SELECT id, run, received_ms, pid, uid, kind, reason, type, raw FROM old.quarantine LIMIT 0;
)sql";

// Brings all that was committed into the file itself.
Status Settle(const std::string& path) {
  Connection connection;
  std::int64_t is_busy = 0;
  RETURN_IF_ERROR(Connection::Open(path, Connection::Mode::kWrite, &connection));
  // Its mode stays: while it changes, nobody who may only read could.
  RETURN_IF_ERROR(connection.Read("PRAGMA wal_checkpoint(TRUNCATE)", &is_busy));
  return is_busy == 0 ? Status() : Status::Failed(path + " is in use");
}

// Notes the numbers from `first` to `last` that nothing has.
Status NoteOthers(Connection* connection, std::int64_t first, std::int64_t last, Absence reason) {
  NumberSet held;
  RETURN_IF_ERROR(AddHeld(connection, first, last, &held));
  return NoteMissing(connection, held.Others(first, last), reason);
}

// Lists the old database in the new one: as an archive, with counts as if its rows had been moved.
Status ListOldRows(Connection* connection, const std::string& old_path) {
  Archive archive;
  archive.path = old_path;
  archive.state = ArchiveState::kComplete;
  archive.schema = 1;
  archive.created_ms = NowMs();
  Statement select;
  RETURN_IF_ERROR(connection->Prepare(
      "SELECT count(*), min(id), max(id), min(timestamp_ms), max(timestamp_ms), "
      "(SELECT coalesce(max(seq), 0) FROM old.sqlite_sequence WHERE name = 'records'), "
      "(SELECT count(*) FROM old.quarantine) FROM old.records",
      &select));
  if (!select.Step()) return select.status();
  archive.records = select.Int(0);
  archive.first_record = select.Int(1);
  archive.last_record = select.Int(2);
  archive.first_timestamp_ms = select.Int(3);
  archive.last_timestamp_ms = select.Int(4);
  const std::int64_t last = select.Int(5);
  const std::int64_t rows = archive.records + select.Int(6);
  select = Statement();
  const bool can_be =
      archive.records == 0 || (archive.first_record > 0 && archive.last_record <= last &&
                               archive.records <= archive.last_record - archive.first_record + 1);
  if (!can_be) return {SQLITE_CORRUPT, "its records have numbers that it never gave"};
  struct stat file {};
  if (stat(old_path.c_str(), &file) == 0) archive.bytes = file.st_size;
  // It is listed also when only its quarantine is left.
  if (archive.records == 0) archive.first_record = archive.last_record = last;
  RETURN_IF_ERROR(InsertArchive(connection, &archive));
  std::int64_t run = 0;
  RETURN_IF_ERROR(LatestRun(connection, &run));
  RETURN_IF_ERROR(Count(connection, {run, getuid(), Outcome::kArchived, old_path, rows, NowMs()}));
  return NoteOthers(connection, 1, last, Absence::kRetention);
}

// Rows and tables that don't fit into those of a new database were never in a sound one: that is
// damage, at which a start sets the file aside; it would meet any other failure again and again.
// Nothing in here fails with SQLITE_ERROR, which is Status::kFailed, for another reason.
Status TakeAlong(Connection* connection, const std::string& old_path) {
  Status status = connection->Execute(kTakeAlong);
  if (status.ok()) status = ListOldRows(connection, old_path);
  const int code = status.code & 0xff;
  const bool is_of_rows = code == SQLITE_CONSTRAINT || code == SQLITE_MISMATCH;
  return is_of_rows || code == SQLITE_ERROR ? Status{SQLITE_CORRUPT, status.message} : status;
}

Status MakeNew(const std::string& source, const std::string& old_path,
               const std::string& new_path) {
  Connection connection;
  Statement attach;
  RETURN_IF_ERROR(Connection::Open(new_path, Connection::Mode::kWrite, &connection));
  RETURN_IF_ERROR(InitializeSchema(&connection));
  RETURN_IF_ERROR(connection.Prepare("ATTACH ? AS old", &attach));
  RETURN_IF_ERROR(attach.Bind(1, std::string_view(source)).Run());
  attach = Statement();
  Transaction transaction(&connection);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(BeginStore(&connection));
  RETURN_IF_ERROR(TakeAlong(&connection, old_path));
  // What comes in has a store of its own, whatever may have to be recovered of the old one.
  RETURN_IF_ERROR(BeginStore(&connection));
  RETURN_IF_ERROR(transaction.Commit());
  return connection.Execute("DETACH old; PRAGMA main.journal_mode = WAL");
}

// Moves the quarantine of the old database, a few rows at once. They are deleted there after they
// are here: what is here already is passed over.
Status MoveQuarantine(Connection* connection, const Archive& old) {
  Statement attach;
  RETURN_IF_ERROR(connection->Prepare("ATTACH ? AS old", &attach));
  RETURN_IF_ERROR(attach.Bind(1, std::string_view(old.path)).Run());
  attach = Statement();
  const auto move = [&](const std::string& until) {
    Statement count;
    Transaction transaction(connection);
    RETURN_IF_ERROR(transaction.Begin());
    RETURN_IF_ERROR(connection->Execute(
        "INSERT OR IGNORE INTO main.quarantine(id, run, received_ms, pid, uid, kind, reason, type, "
        "size, raw) SELECT id, run, received_ms, pid, uid, kind, reason, type, length(raw), raw "
        "FROM old.quarantine WHERE id <= " +
        until));
    const std::int64_t moved = connection->Changes();
    RETURN_IF_ERROR(connection->Prepare(
        "UPDATE tally SET count = count - ? WHERE outcome = ? AND reason = ?", &count));
    RETURN_IF_ERROR(count.Bind(1, moved)
                        .Bind(2, NameOf(Outcome::kArchived))
                        .Bind(3, std::string_view(old.path))
                        .Run());
    RETURN_IF_ERROR(transaction.Commit());
    return connection->Execute("DELETE FROM old.quarantine WHERE id <= " + until);
  };
  Status status;
  for (std::int64_t last = 1; status.ok() && last > 0;) {
    status = connection->Read(
        "SELECT coalesce(max(id), 0) FROM (SELECT id FROM old.quarantine ORDER BY id LIMIT 100)",
        &last);
    if (status.ok() && last > 0) status = move(std::to_string(last));
  }
  const Status end = connection->Execute("DETACH old");
  return status.ok() ? end : status;
}

void RemoveLog(const std::string& path) {
  for (const char* suffix : {"-wal", "-shm"}) unlink((path + suffix).c_str());
}

// Removes a file of which everything has moved on.
Status Forget(Maintenance* maintenance, const Archive& old) {
  const std::string path = LocateArchive(maintenance->path, old);
  // A file that is not listed any more is a stranger; so it goes first.
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return Status::Errno("cannot delete " + path);
  RemoveLog(path);
  return maintenance->connection.Execute("DELETE FROM archives WHERE id = " +
                                         std::to_string(old.id));
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Opens a file and looks at every page of it: records that a broken page hides would not be missed.
Status OpenSound(const std::string& path, std::unique_ptr<Reader>* reader) {
  Status status = Reader::Open(path, reader);
  if (status.ok()) return CheckPages(&(*reader)->connection());
  const bool has_lost_its_head = !IsDamage(status) && !IsArchive(path) && HoldsRecords(path);
  return has_lost_its_head ? Status{SQLITE_NOTADB, "the head of the file is damaged"} : status;
}

// Moves the rows of the file that `reader` reads; the records up to number `reached` are in
// archives then.
Status MoveRows(Maintenance* maintenance, const std::string& directory, const Archive& old,
                Reader* reader, const std::function<bool()>& should_stop, std::int64_t* reached) {
  Connection* const connection = &maintenance->connection;
  if (!IsArchive(old.path)) RETURN_IF_ERROR(MoveQuarantine(connection, old));
  // Between two steps there may be numbers without records.
  const std::string first = std::to_string(old.first_record);
  RETURN_IF_ERROR(connection->Read(
      "SELECT coalesce(max(last_record), " + first + " - 1) FROM archives WHERE schema > 1 AND " +
          "state = '" + std::string(NameOf(ArchiveState::kComplete)) +
          "' AND first_record BETWEEN " + first + " AND " + std::to_string(old.last_record),
      reached));
  while (*reached < old.last_record && !should_stop()) {
    Archive made;
    RETURN_IF_ERROR(MakeArchive(maintenance, directory, reader, *reached, old.last_record, &made));
    if (made.records == 0) break;
    RETURN_IF_ERROR(FinishArchives(maintenance));
    *reached = made.last_record;
  }
  return {};
}

// Where a damaged file is kept; the same after a kill, and no other's.
std::string KeptPath(const Maintenance& maintenance, const Archive& old) {
  return TargetOf(maintenance.path) + ".damaged-" + std::to_string(old.created_ms) + "-" +
         std::to_string(old.id);
}

// Unpacks a damaged archive to `kept`, and removes it.
Status UnpackAside(const std::string& path, const std::string& kept) {
  if (!Exists(path)) return {};
  NewFile file;
  RETURN_IF_ERROR(file.Begin(kept));
  RETURN_IF_ERROR(UnpackArchive(path, file.name()));
  const Descriptor unpacked(open(file.name().c_str(), O_RDONLY | O_CLOEXEC));
  if (!unpacked.is_open() || fsync(unpacked.get()) != 0) {
    return Status::Errno("cannot write " + kept);
  }
  RETURN_IF_ERROR(file.Place());
  return unlink(path.c_str()) == 0 ? Status() : Status::Errno("cannot remove " + path);
}

// Keeps a damaged file under a name of its own, and notes which numbers did not come.
Status Keep(Maintenance* maintenance, const Archive& old, const Status& damage,
            std::vector<std::string>* damages) {
  const std::string path = LocateArchive(maintenance->path, old);
  const std::string kept = KeptPath(*maintenance, old);
  RETURN_IF_ERROR(IsArchive(path) ? UnpackAside(path, kept) : MoveWithLog(path, kept));
  RETURN_IF_ERROR(SyncFolder(FolderOf(kept)));
  Transaction transaction(&maintenance->connection);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(
      maintenance->connection.Execute("DELETE FROM archives WHERE id = " + std::to_string(old.id)));
  RETURN_IF_ERROR(NoteOthers(&maintenance->connection, old.first_record, old.last_record,
                             Absence::kUnreadable));
  RETURN_IF_ERROR(transaction.Commit());
  if (damages) {
    damages->push_back(path + " is damaged (" + damage.message + "): it is kept as " + kept +
                       "; usage-stat recover may save what it still holds");
  }
  return {};
}

// Moves what one file holds, and the file out of the way.
Status MoveFile(Maintenance* maintenance, const std::string& directory, const Archive& old,
                const std::function<bool()>& should_stop, std::vector<std::string>* damages) {
  const std::string path = LocateArchive(maintenance->path, old);
  const Status found_before{SQLITE_CORRUPT, "as was found before"};
  if (!Exists(path)) {  // as was begun before
    if (Exists(KeptPath(*maintenance, old))) return Keep(maintenance, old, found_before, damages);
    if (old.records == 0) return Forget(maintenance, old);
  }
  std::unique_ptr<Reader> reader;
  std::int64_t reached = 0;
  Status damage = OpenSound(path, &reader);
  if (damage.ok()) {
    Status status = MoveRows(maintenance, directory, old, reader.get(), should_stop, &reached);
    // One of two databases is broken: which?
    if (IsDamage(status)) damage = OpenSound(path, &reader);
    if (!status.ok() && !IsDamage(damage)) return status;
  }
  reader.reset();
  if (damage.ok()) {
    if (should_stop()) return {};
    if (old.records == 0 || reached >= old.last_record) return Forget(maintenance, old);
    damage = {SQLITE_CORRUPT, "records that it had are not there"};
  }
  return IsDamage(damage) ? Keep(maintenance, old, damage, damages) : damage;
}

bool IsOfFirstSchema(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string head(kHeadSize, '\0');
  struct stat status {};
  if (!file.is_open() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (pread(file.get(), head.data(), head.size(), 0) != static_cast<ssize_t>(head.size())) {
    return false;
  }
  const DatabaseHead said = ReadHead(head);
  return said.is_ours && said.version == 1;
}

bool IsSameFile(const std::string& one, const std::string& other) {
  std::error_code error;
  return std::filesystem::equivalent(one, other, error);
}

}  // namespace

std::string UpgradedPath(const std::string& path) { return TargetOf(path) + ".schema-1"; }

bool NeedsUpgrade(const std::string& path) {
  return IsOfFirstSchema(Exists(path) ? path : UpgradedPath(path));
}

Status BeginUpgrade(const std::string& path) {
  const std::string target = TargetOf(path);
  NewFile file;
  RETURN_IF_ERROR(file.Begin(target));
  // Another process may have done it while this one waited.
  if (!NeedsUpgrade(target)) return {};
  std::string old_path = UpgradedPath(target);
  const bool is_aside = !Exists(target);
  if (!is_aside && Exists(old_path) && !IsSameFile(target, old_path)) {
    old_path.append("-").append(std::to_string(NowMs()));
  }
  const std::string& source = is_aside ? old_path : target;
  Status status = Settle(source);
  if (status.ok()) status = MakeNew(source, old_path, file.name());
  // A damaged one is looked for, and set aside, under its first name.
  if (IsDamage(status) && is_aside) RETURN_IF_ERROR(MoveWithLog(source, target));
  RETURN_IF_ERROR(status);
  // The old file has both names until the new one takes the first, so that readers always find one.
  // A file system that knows no second names leaves them without for a moment; whoever is killed
  // then leaves only the old one, under its other name.
  if (!is_aside && link(target.c_str(), old_path.c_str()) != 0 && errno != EEXIST &&
      rename(target.c_str(), old_path.c_str()) != 0) {
    return Status::Errno("cannot move " + target);
  }
  ClearLog(target);
  return file.Place();
}

Status GoOnUpgrading(const std::string& database_path, const std::string& directory,
                     const std::function<bool()>& should_stop, std::vector<std::string>* damages) {
  Maintenance maintenance;
  std::vector<Archive> archives;
  RETURN_IF_ERROR(Maintenance::Open(database_path, &maintenance));
  RETURN_IF_ERROR(FinishArchives(&maintenance));
  RETURN_IF_ERROR(ReadArchives(&maintenance.connection, ArchiveState::kComplete, &archives));
  Status first_failure;
  for (const Archive& old : archives) {
    if (old.schema != 1) continue;
    if (should_stop()) break;
    // One that can't be read stays, and holds up nothing else.
    Status status = MoveFile(&maintenance, directory, old, should_stop, damages);
    if (!status.ok() && first_failure.ok()) first_failure = std::move(status);
  }
  return first_failure;
}

}  // namespace velmora::usage_stat::store
