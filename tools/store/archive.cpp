#include "tools/store/archive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <vector>

#include "src/events/device_events.h"
#include "tools/store/file.h"
#include "tools/store/journal_events.h"
#include "tools/store/keeper.h"
#include "tools/store/schema.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::store {

namespace {

// An administrator's archive must stay in the hands of the collector, which runs under a user of
// its own. Best effort: only root may give files away, and nobody else has to.
void GiveToOwnerOf(const std::string& database_path, const std::string& path) {
  struct stat database {};
  if (geteuid() == 0 && stat(database_path.c_str(), &database) == 0 &&
      chown(path.c_str(), database.st_uid, database.st_gid) != 0) {
    return;
  }
}

// The order is what makes it safe to be killed: the complete file waits under a temporary name
// while the database notes its final one ("begun"); then it gets that name; then one transaction
// deletes the records and notes "complete". So a noted name with a file means that the records are
// safe in it and may go, one without a file that nothing has happened.

// A name that no other archive has, even if the database was begun anew beside old archives.
std::string NewName(const std::string& directory, const Archive& archive) {
  const std::time_t seconds = static_cast<std::time_t>(archive.created_ms / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char time[sizeof("20000101T000000Z")] = "";
  (void)std::strftime(time, sizeof(time), "%Y%m%dT%H%M%SZ", &utc);
  return FolderOf(directory + "/.") + "/records-" + time + "-" +
         std::to_string(archive.first_record) + "-" + std::to_string(archive.last_record) +
         ".db.zst";
}

std::string TemporaryName(const std::string& path) { return path + ".tmp"; }

// What is to be archived now; no records when there is nothing.
Status PlanArchive(Connection* connection, const std::string& directory, Archive* archive) {
  Statement select;
  Status status = connection->Prepare(
      "SELECT count(*), min(id), max(id), min(timestamp_ms), max(timestamp_ms) FROM records",
      &select);
  if (!status.ok()) return status;
  if (!select.Step()) return select.status();
  archive->records = select.Int(0);
  archive->first_record = select.Int(1);
  archive->last_record = select.Int(2);
  archive->first_timestamp_ms = select.Int(3);
  archive->last_timestamp_ms = select.Int(4);
  archive->created_ms = NowMs();
  archive->path = NewName(directory, *archive);
  return {};
}

// Copies the records of `archive` into a new database at `path`.
Status CopyRecords(const std::string& database_path, const Archive& archive,
                   const std::string& path) {
  RETURN_IF_ERROR(CreatePrivateFile(path));
  Connection copy;
  Statement attach;
  Statement insert;
  Status status = Connection::Open(path, Connection::Mode::kWrite, &copy);
  // What is half done is thrown away after a crash, so nothing needs to be safe yet.
  if (status.ok()) status = copy.Execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF");
  if (status.ok()) status = InitializeSchema(&copy);
  if (status.ok()) status = copy.Prepare("ATTACH ? AS live", &attach);
  if (status.ok()) status = attach.Bind(1, std::string_view(database_path)).Run();
  if (status.ok()) {
    status = copy.Prepare(
        "INSERT INTO records SELECT * FROM live.records WHERE id BETWEEN ? AND ? ORDER BY id",
        &insert);
  }
  if (!status.ok()) return status;
  return insert.Bind(1, archive.first_record).Bind(2, archive.last_record).Run();
}

// Makes the file of `archive` under its temporary name and tells its size.
Status MakeFile(const std::string& database_path, Archive* archive) {
  const std::string temporary = TemporaryName(archive->path);
  const std::string plain = temporary + ".db";
  // Left behind by a process that was killed.
  unlink(temporary.c_str());
  unlink(plain.c_str());
  Status status = CopyRecords(database_path, *archive, plain);
  if (status.ok()) status = CompressFile(plain, temporary);
  unlink(plain.c_str());
  struct stat file {};
  if (status.ok() && stat(temporary.c_str(), &file) != 0) status = Status::Errno(temporary);
  archive->bytes = file.st_size;
  GiveToOwnerOf(database_path, temporary);
  return status;
}

Status NoteBegun(Connection* connection, Archive* archive) {
  Statement insert;
  Status status = connection->Prepare(
      "INSERT INTO archives(path, state, created_ms, first_record, last_record, records, "
      "first_timestamp_ms, last_timestamp_ms, bytes) VALUES(?, 'begun', ?, ?, ?, ?, ?, ?, ?)",
      &insert);
  if (!status.ok()) return status;
  status = insert.Bind(1, std::string_view(archive->path))
               .Bind(2, archive->created_ms)
               .Bind(3, archive->first_record)
               .Bind(4, archive->last_record)
               .Bind(5, archive->records)
               .Bind(6, archive->first_timestamp_ms)
               .Bind(7, archive->last_timestamp_ms)
               .Bind(8, archive->bytes)
               .Run();
  archive->id = connection->LastId();
  return status;
}

// Takes the records of an archive whose file is in place out of the database.
Status Complete(Keeper* keeper, const Archive& archive) {
  Connection& connection = keeper->connection;
  SendArchiveEvent event;
  event.archive_ = archive.path;
  Statement remove;
  Transaction transaction(&connection);
  Status status = transaction.Begin();
  if (status.ok()) {
    status = connection.Prepare("DELETE FROM records WHERE id BETWEEN ? AND ?", &remove);
  }
  if (status.ok()) status = remove.Bind(1, archive.first_record).Bind(2, archive.last_record).Run();
  if (status.ok()) status = CountRemoved(keeper, "archived", archive.path, connection.Changes());
  if (status.ok()) status = SetState(&connection, archive.id, "complete");
  if (status.ok()) status = AddJournalEvent(&connection, keeper->run, &event);
  if (status.ok()) status = transaction.Commit();
  return status;
}

Status Finish(Keeper* keeper) {
  std::vector<Archive> begun;
  Status status = ReadArchives(&keeper->connection, "begun", &begun);
  for (const Archive& archive : begun) {
    if (!status.ok()) return status;
    if (access(archive.path.c_str(), F_OK) == 0) {
      status = Complete(keeper, archive);
      continue;
    }
    if (errno != ENOENT) return Status::Errno(archive.path);
    status =
        keeper->connection.Execute("DELETE FROM archives WHERE id = " + std::to_string(archive.id));
    unlink(TemporaryName(archive.path).c_str());
  }
  return status;
}

}  // namespace

Status ArchiveRecords(const std::string& database_path, const std::string& directory,
                      std::optional<Archive>* archive) {
  archive->reset();
  Keeper keeper;
  Archive made;
  Status status = OpenKeeper(database_path, &keeper);
  if (status.ok()) status = Finish(&keeper);
  if (status.ok()) status = PlanArchive(&keeper.connection, directory, &made);
  if (!status.ok() || made.records == 0) return status;

  if (mkdir(directory.c_str(), S_IRWXU) == 0) {
    GiveToOwnerOf(database_path, directory);
  } else if (errno != EEXIST) {
    return Status::Errno("cannot create " + directory);
  }
  if (access(made.path.c_str(), F_OK) == 0) return Status::Failed(made.path + " exists already");
  status = MakeFile(database_path, &made);
  if (status.ok()) status = NoteBegun(&keeper.connection, &made);
  if (status.ok() && rename(TemporaryName(made.path).c_str(), made.path.c_str()) != 0) {
    status = Status::Errno("cannot create " + made.path);
  }
  if (!status.ok()) {
    unlink(TemporaryName(made.path).c_str());
    return status;
  }
  status = SyncFolder(directory);
  if (status.ok()) status = Complete(&keeper, made);
  if (status.ok()) {
    GiveBackSpace(&keeper.connection);
    made.state = "complete";
    *archive = made;
  }
  return status;
}

Status FinishArchives(const std::string& database_path) {
  Keeper keeper;
  Status status = OpenKeeper(database_path, &keeper);
  return status.ok() ? Finish(&keeper) : status;
}

std::string LocateArchive(const std::string& database_path, const Archive& archive) {
  if (access(archive.path.c_str(), F_OK) == 0) return archive.path;
  const std::string name = std::filesystem::path(archive.path).filename();
  const std::string beside = DefaultArchiveDirectory(database_path) + "/" + name;
  return access(beside.c_str(), F_OK) == 0 ? beside : archive.path;
}

Status UnpackArchive(const std::string& path, const std::string& unpacked_path) {
  return DecompressFile(path, unpacked_path);
}

bool IsArchive(const std::string& path) { return path.ends_with(".zst"); }

}  // namespace velmora::usage_stat::store
