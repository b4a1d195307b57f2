#include "tools/store/archive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <memory>
#include <variant>

#include "src/events/device_events.h"
#include "tools/records/record.h"
#include "tools/store/file.h"
#include "tools/store/ledger.h"
#include "tools/store/schema.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::store {

namespace {

// The order is what makes it safe to be killed: the complete file waits under a temporary name
// while the database notes its final one ("begun"); then it gets that name; then one transaction
// deletes the records and notes "complete". The first note is on the disk before the file gets its
// name: a power cut would leave an archive of records that are here as well. So a noted name with a
// file means that the records are safe in it and may go, one without a file that nothing has
// happened.

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

// The folder's lock makes it one at a time.
std::string PlainName(const std::string& directory) { return directory + "/unfinished.db"; }
std::string TemporaryName(const std::string& directory) {
  return directory + "/unfinished.db.zst.tmp";
}

// `row` as it is kept now, whatever file it comes from.
void Renew(RecordRow* row) {
  if (!row->fields.starts_with('{')) return;
  const auto decoded = records::Decode(row->raw);
  const auto* record = std::get_if<records::Record>(&decoded);
  if (record) row->fields = records::Dump(record->values);
}

void Take(const RecordRow& row, Archive* archive) {
  if (archive->records == 0) {
    archive->first_record = row.id;
    archive->first_timestamp_ms = archive->last_timestamp_ms = row.timestamp_ms;
  }
  ++archive->records;
  archive->last_record = row.id;
  archive->first_timestamp_ms = std::min(archive->first_timestamp_ms, row.timestamp_ms);
  archive->last_timestamp_ms = std::max(archive->last_timestamp_ms, row.timestamp_ms);
}

// What else belongs to the records of `archive`.
Status CopyBeside(const std::string& database_path, const Archive& archive, Connection* copy) {
  const std::string first = std::to_string(archive.first_record);
  const std::string range = first + " AND " + std::to_string(archive.last_record);
  Statement attach;
  RETURN_IF_ERROR(copy->Prepare("ATTACH ? AS live", &attach));
  RETURN_IF_ERROR(attach.Bind(1, std::string_view(database_path)).Run());
  return copy->Execute(
      "INSERT INTO stores SELECT * FROM live.stores WHERE first_record BETWEEN " + range +
      " OR first_record = (SELECT max(first_record) FROM live.stores WHERE first_record <= " +
      first + ");INSERT INTO missing SELECT * FROM live.missing WHERE first_record BETWEEN " +
      range + ";INSERT INTO clock_steps SELECT * FROM live.clock_steps WHERE record BETWEEN " +
      range);
}

// Copies records of `source` into a new database at `path`, as many as fit, without those whose
// numbers `gone` holds.
Status CopyRecords(Reader* source, const std::string& database_path, std::int64_t after,
                   std::int64_t last, const NumberSet& gone, const std::string& path,
                   Archive* archive) {
  // A database has some pages beside the records, and the last rows may be large.
  constexpr std::int64_t kReserve = std::int64_t{1024} * 1024;
  constexpr std::int64_t kRowOverhead = 64;
  RETURN_IF_ERROR(CreatePrivateFile(path));
  Connection copy;
  RecordInserter inserter;
  RETURN_IF_ERROR(Connection::Open(path, Connection::Mode::kWrite, &copy));
  // What is half done is thrown away after a crash, so nothing needs to be safe yet.
  RETURN_IF_ERROR(copy.Execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF"));
  RETURN_IF_ERROR(InitializeSchema(&copy));
  RETURN_IF_ERROR(inserter.Prepare(&copy));
  RETURN_IF_ERROR(copy.Execute("BEGIN"));
  Status insertion;
  std::int64_t bytes = 0;
  RETURN_IF_ERROR(
      source->ForEach({.after_id = after, .last_id = last}, [&](const RecordRow& found) {
        if (gone.Contains(found.id)) return true;
        RecordRow row = found;
        Renew(&row);
        insertion = inserter.Insert(row.id, row);
        if (!insertion.ok()) return false;
        Take(row, archive);
        bytes += static_cast<std::int64_t>(row.fields.size() + row.raw.size()) + kRowOverhead;
        return bytes < kLargestUnpacked - kReserve;
      }));
  RETURN_IF_ERROR(insertion);
  RETURN_IF_ERROR(copy.Execute("COMMIT"));
  return archive->records > 0 ? CopyBeside(database_path, *archive, &copy) : Status();
}

// Takes the records of an archive whose file is in place out of the database.
Status Complete(Connection* connection, const Archive& archive) {
  SendArchiveEvent event;
  event.archive_ = archive.path;
  std::int64_t removed = 0;
  Transaction transaction(connection);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(RemoveRecords(connection, archive.first_record, archive.last_record,
                                Outcome::kArchived, archive.path, &removed));
  RETURN_IF_ERROR(SetState(connection, archive.id, ArchiveState::kComplete));
  // What came from a file of the first schema is no longer asked for there.
  RETURN_IF_ERROR(connection->Execute(
      "UPDATE archives SET records = max(records - " + std::to_string(archive.records) +
      ", 0), first_record = " + std::to_string(archive.last_record + 1) +
      " WHERE schema = 1 AND state = '" + std::string(NameOf(ArchiveState::kComplete)) +
      "' AND first_record <= " + std::to_string(archive.last_record) +
      " AND last_record >= " + std::to_string(archive.first_record)));
  RETURN_IF_ERROR(AddOwnRecord(connection, &event));
  return transaction.Commit();
}

Status MakeFolder(const std::string& folder) {
  if (mkdir(folder.c_str(), kFolderMode) == 0 || errno == EEXIST) return {};
  return Status::Errno("cannot create " + folder);
}

// Writes the records of `source` after number `after` and up to `last`, without those of `gone`,
// to the temporary file of `directory`, and tells in `archive` what it holds. Without records
// there is no file.
Status MakeFile(Maintenance* maintenance, const std::string& directory, Reader* source,
                std::int64_t after, std::int64_t last, const NumberSet& gone, Archive* archive) {
  const std::string plain = PlainName(directory);
  const std::string temporary = TemporaryName(directory);
  // Left behind by a process that was killed.
  unlink(plain.c_str());
  unlink(temporary.c_str());
  *archive = {};
  Status status = CopyRecords(source, maintenance->path, after, last, gone, plain, archive);
  if (status.ok() && archive->records > 0) status = CompressFile(plain, temporary);
  unlink(plain.c_str());
  if (!status.ok() || archive->records == 0) return status;
  archive->schema = kSchemaVersion;
  struct stat file {};
  if (stat(temporary.c_str(), &file) != 0) return Status::Errno(temporary);
  archive->bytes = file.st_size;
  return {};
}

}  // namespace

Status MakeArchive(Maintenance* maintenance, const std::string& directory, Reader* source,
                   std::int64_t after, std::int64_t last, Archive* archive) {
  const std::string temporary = TemporaryName(directory);
  RETURN_IF_ERROR(MakeFolder(directory));
  RETURN_IF_ERROR(MakeFile(maintenance, directory, source, after, last, {}, archive));
  if (archive->records == 0) return {};

  archive->created_ms = NowMs();
  archive->path = NewName(directory, *archive);
  Status status;
  if (access(archive->path.c_str(), F_OK) == 0) {
    status = Status::Failed(archive->path + " exists already");
  }
  if (status.ok()) {
    const Durably durably(&maintenance->connection);
    status = InsertArchive(&maintenance->connection, archive);
  }
  if (status.ok() && rename(temporary.c_str(), archive->path.c_str()) != 0) {
    status = Status::Errno("cannot create " + archive->path);
  }
  if (status.ok()) status = SyncFolder(directory);
  if (!status.ok()) unlink(temporary.c_str());
  return status;
}

Status MakeRest(Maintenance* maintenance, Reader* source, const NumberSet& gone, Archive* archive,
                std::string* temporary) {
  const Archive whole = *archive;
  const std::string directory = FolderOf(LocateArchive(maintenance->path, whole));
  RETURN_IF_ERROR(MakeFile(maintenance, directory, source, whole.first_record - 1,
                           whole.last_record, gone, archive));
  archive->id = whole.id;
  archive->path = whole.path;
  archive->state = whole.state;
  archive->created_ms = whole.created_ms;
  *temporary = TemporaryName(directory);
  return {};
}

Status ArchiveRecords(const std::string& database_path, const std::string& directory,
                      std::vector<Archive>* archives) {
  archives->clear();
  Maintenance maintenance;
  std::unique_ptr<Reader> reader;
  std::int64_t last = 0;
  RETURN_IF_ERROR(Maintenance::Open(database_path, &maintenance));
  RETURN_IF_ERROR(FinishArchives(&maintenance));
  RETURN_IF_ERROR(maintenance.connection.Read("SELECT coalesce(max(id), 0) FROM records", &last));
  RETURN_IF_ERROR(Reader::Open(database_path, &reader));
  for (std::int64_t after = 0; after < last;) {
    Archive archive;
    RETURN_IF_ERROR(MakeArchive(&maintenance, directory, reader.get(), after, last, &archive));
    if (archive.records == 0) break;
    RETURN_IF_ERROR(Complete(&maintenance.connection, archive));
    archive.state = ArchiveState::kComplete;
    after = archive.last_record;
    archives->push_back(std::move(archive));
  }
  reader.reset();
  if (!archives->empty()) maintenance.GiveBackSpace();
  return {};
}

Status FinishArchives(Maintenance* maintenance) {
  std::vector<Archive> begun;
  RETURN_IF_ERROR(ReadArchives(&maintenance->connection, ArchiveState::kBegun, &begun));
  for (const Archive& archive : begun) {
    if (access(archive.path.c_str(), F_OK) == 0) {
      RETURN_IF_ERROR(Complete(&maintenance->connection, archive));
      continue;
    }
    if (errno != ENOENT) return Status::Errno(archive.path);
    RETURN_IF_ERROR(maintenance->connection.Execute("DELETE FROM archives WHERE id = " +
                                                    std::to_string(archive.id)));
    unlink(TemporaryName(FolderOf(archive.path)).c_str());
  }
  return {};
}

Status FinishArchives(const std::string& database_path) {
  Maintenance maintenance;
  RETURN_IF_ERROR(Maintenance::Open(database_path, &maintenance));
  return FinishArchives(&maintenance);
}

std::string LocateArchive(const std::string& database_path, const Archive& archive) {
  if (access(archive.path.c_str(), F_OK) == 0) return archive.path;
  const std::string name = std::filesystem::path(archive.path).filename();
  const std::string beside = DefaultArchiveDirectory(database_path) + "/" + name;
  return access(beside.c_str(), F_OK) == 0 ? beside : archive.path;
}

bool MayBeArchive(const std::string& database_path, const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  const std::string name = std::filesystem::path(path).filename();
  if (IsArchive(name)) {
    return (name.starts_with("records-") && name.ends_with(".db.zst")) ||
           FolderOf(path) == FolderOf(DefaultArchiveDirectory(database_path) + "/.");
  }
  return path.starts_with(TargetOf(database_path) + ".schema-1");
}

Status DeleteFile(const std::string& database_path, const Archive& archive) {
  const std::string path = LocateArchive(database_path, archive);
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) return {};
  if (!MayBeArchive(database_path, path)) {
    return Status::Failed("cannot delete " + path + ": it is no archive");
  }
  if (unlink(path.c_str()) != 0) return Status::Errno("cannot delete " + path);
  return {};
}

}  // namespace velmora::usage_stat::store
