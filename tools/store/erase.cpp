#include "tools/store/erase.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <thread>

#include "tools/store/archive.h"
#include "tools/store/ledger.h"
#include "tools/store/maintenance.h"
#include "tools/store/numbers.h"
#include "tools/store/recover.h"
#include "tools/store/schema.h"
#include "tools/store/upgrade.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::store {

namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kRowsAtOnce = 100;
constexpr int kTries = 100;
constexpr std::chrono::milliseconds kPause{100};

// A query for one number is about one record that was read; all others are about what somebody
// did, which unreadable bytes may tell too.
bool IsForOne(const Query& query) {
  return query.after_id && query.last_id && *query.last_id == *query.after_id + 1;
}

std::string QuarantineCondition(const Query& query) {
  return query.until_ms ? "received_ms < " + std::to_string(*query.until_ms) : "1";
}

Status Find(Reader* reader, const Query& query, NumberSet* found) {
  return reader->ForEach(query, [found](const RecordRow& row) {
    found->Add(row.id);
    return true;
  });
}

bool IsNamed(const std::string& path, const std::string& beginning) {
  return fs::path(path).filename().string().starts_with(beginning);
}

// Databases that stepped aside, damaged or before an upgrade, with the files beside them, as far as
// `archives` doesn't list them.
std::vector<std::string> FilesAside(const std::string& database_path,
                                    const std::vector<Archive>& archives) {
  const std::string name = fs::path(database_path).filename();
  std::vector<std::string> aside;
  for (const std::string& file : FilesIn(FolderOf(database_path))) {
    const bool is_listed = std::ranges::any_of(archives, [&](const Archive& archive) {
      return archive.state != ArchiveState::kDeleted &&
             IsNamed(file, fs::path(archive.path).filename());
    });
    if (IsNamed(file, name + ".damaged-") || (IsNamed(file, name + ".schema-1") && !is_listed)) {
      aside.push_back(file);
    }
  }
  return aside;
}

// Where archives are: beside the database, and wherever one was ever put.
std::set<std::string> ArchiveFolders(const std::string& database_path, const std::string& directory,
                                     const std::vector<Archive>& archives) {
  std::set<std::string> folders{FolderOf(DefaultArchiveDirectory(database_path) + "/.")};
  if (!directory.empty()) folders.insert(FolderOf(directory + "/."));
  for (const Archive& archive : archives) {
    if (IsArchive(archive.path)) folders.insert(FolderOf(archive.path));
  }
  return folders;
}

// Archives in those folders that the database does not list, or no longer.
std::vector<std::string> UnlistedArchives(const std::string& database_path,
                                          const std::string& directory,
                                          const std::vector<Archive>& archives) {
  std::set<std::string> names;
  for (const Archive& archive : archives) {
    if (archive.state != ArchiveState::kDeleted) names.insert(fs::path(archive.path).filename());
  }
  std::vector<std::string> unlisted;
  for (const std::string& folder : ArchiveFolders(database_path, directory, archives)) {
    for (const std::string& file : FilesIn(folder)) {
      const bool is_listed = names.contains(fs::path(file).filename());
      if (IsArchive(file) && !is_listed && MayBeArchive(database_path, file)) {
        unlisted.push_back(file);
      }
    }
  }
  return unlisted;
}

// Tries again while another process moves or deletes rows, which is over soon.
template <class Work>
Status WhenFree(Work work) {
  Status status;
  for (int i = 0; i < kTries; ++i) {
    status = work();
    if ((status.code & 0xff) != SQLITE_BUSY) break;
    std::this_thread::sleep_for(kPause);
  }
  return status;
}

class Eraser {
 public:
  Eraser(Maintenance* maintenance, const Query& query, std::string directory, Erased* erased)
      : maintenance_(maintenance),
        query_(query),
        directory_(std::move(directory)),
        erased_(erased) {}

  Status Run() {
    RETURN_IF_ERROR(FinishArchives(maintenance_));
    RETURN_IF_ERROR(RemoveLeftovers());
    RETURN_IF_ERROR(EraseArchives());
    RETURN_IF_ERROR(EraseRecords());
    if (!IsForOne(query_)) {
      std::vector<Archive> archives;
      RETURN_IF_ERROR(ReadArchives(&connection(), kSchemaVersion, &archives));
      RETURN_IF_ERROR(EraseQuarantine());
      RETURN_IF_ERROR(RemoveFiles(FilesAside(maintenance_->path, archives)));
      RETURN_IF_ERROR(EraseUnlisted(archives));
    }
    return EmptyLog();
  }

 private:
  Connection& connection() { return maintenance_->connection; }

  Status EraseRecords();
  Status EraseQuarantine();
  Status EraseArchives();
  Status EraseArchive(const Archive& archive);
  Status EraseUnlisted(const std::vector<Archive>& archives);
  Status RemoveLeftovers();
  Status RemoveFiles(const std::vector<std::string>& files);
  Status EmptyLog();

  Maintenance* const maintenance_;
  const Query query_;
  const std::string directory_;
  Erased* const erased_;
};

Status Eraser::EraseRecords() {
  std::unique_ptr<Reader> reader;
  RETURN_IF_ERROR(Reader::Open(maintenance_->path, &reader));
  Query piece = query_;
  if (!piece.last_id) {
    // What comes in meanwhile stays.
    std::int64_t last = 0;
    RETURN_IF_ERROR(reader->LastNumber(&last));
    piece.last_id = last;
  }
  for (bool is_end = false; !is_end;) {
    NumberSet found;
    RETURN_IF_ERROR(reader->ForEach(piece, [&](const RecordRow& row) {
      found.Add(row.id);
      return found.count() < kRowsAtOnce;
    }));
    is_end = found.count() < kRowsAtOnce;
    if (found.empty()) break;
    Transaction transaction(&connection());
    RETURN_IF_ERROR(transaction.Begin());
    for (const auto& [first, last] : found.runs()) {
      std::int64_t removed = 0;
      RETURN_IF_ERROR(
          RemoveRecords(&connection(), first, last, Outcome::kDeleted, kByErasing, &removed));
      erased_->records += removed;
    }
    RETURN_IF_ERROR(NoteMissing(&connection(), found.runs(), Absence::kErased));
    RETURN_IF_ERROR(transaction.Commit());
    piece.after_id = found.highest();
  }
  return {};
}

Status Eraser::EraseQuarantine() {
  std::int64_t run = 0;
  Transaction transaction(&connection());
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(LatestRun(&connection(), &run));
  RETURN_IF_ERROR(
      connection().Execute("DELETE FROM quarantine WHERE " + QuarantineCondition(query_)));
  erased_->quarantined = connection().Changes();
  if (erased_->quarantined == 0) return {};
  RETURN_IF_ERROR(Count(&connection(), {run, getuid(), Outcome::kDeleted, std::string(kByErasing),
                                        erased_->quarantined, NowMs()}));
  return transaction.Commit();
}

Status Eraser::EraseArchives() {
  std::vector<Archive> archives;
  RETURN_IF_ERROR(ReadArchives(&connection(), ArchiveState::kComplete, &archives));
  for (const Archive& archive : archives) {
    if (MayHoldMatch(archive, query_)) RETURN_IF_ERROR(EraseArchive(archive));
  }
  return {};
}

// The file goes first, or is replaced by one without the rows, and the database notes it then: so
// nothing that was noted as erased can still be read. An archive with fewer records than noted
// tells that an erasing was killed in between, which is ended here.
Status Eraser::EraseArchive(const Archive& archive) {
  const std::string path = LocateArchive(maintenance_->path, archive);
  std::unique_ptr<Reader> reader;
  NumberSet found;
  std::int64_t records = 0;
  Status readable = Reader::Open(path, &reader);
  if (readable.ok()) readable = Find(reader.get(), query_, &found);
  if (readable.ok()) readable = reader->connection().Read("SELECT count(*) FROM records", &records);
  const bool is_behind = readable.ok() && records < archive.records;
  if (readable.ok() && found.empty() && !is_behind) return {};
  // One record of many, or none: nobody can tell.
  if (!readable.ok() && IsForOne(query_) && archive.first_record < archive.last_record) {
    return readable;
  }
  // A file of the first schema that could not be moved to archives can't be replaced by one.
  const bool goes_whole = !readable.ok() || found.count() == records || !IsArchive(path);

  // What is none has nothing of ours, and is only listed no longer.
  const bool is_archive = MayBeArchive(maintenance_->path, path);
  Archive rest = archive;
  if (!goes_whole) {
    std::string temporary;
    RETURN_IF_ERROR(MakeRest(maintenance_, reader.get(), found, &rest, &temporary));
    if (rename(temporary.c_str(), path.c_str()) != 0) {
      return Status::Errno("cannot replace " + path);
    }
  } else if (is_archive) {
    RETURN_IF_ERROR(DeleteFile(maintenance_->path, archive));
  }
  RETURN_IF_ERROR(SyncFolder(FolderOf(path)));
  Transaction transaction(&connection());
  RETURN_IF_ERROR(transaction.Begin());
  if (!goes_whole) RETURN_IF_ERROR(NoteMissing(&connection(), found.runs(), Absence::kErased));
  if (goes_whole || is_behind) {
    NumberSet held;
    RETURN_IF_ERROR(
        AddHeld(&connection(), archive.first_record, archive.last_record, &held, archive.id));
    if (!goes_whole) {
      RETURN_IF_ERROR(
          AddNumbers(&reader->connection(), archive.first_record, archive.last_record, &held));
    }
    RETURN_IF_ERROR(NoteMissing(
        &connection(), held.Others(archive.first_record, archive.last_record), Absence::kErased));
  }
  RETURN_IF_ERROR(goes_whole ? SetState(&connection(), archive.id, ArchiveState::kDeleted)
                             : UpdateArchive(&connection(), rest));
  RETURN_IF_ERROR(transaction.Commit());
  erased_->records += readable.ok() ? found.count() : archive.records;
  if (!readable.ok() && is_archive) erased_->files.push_back(path);
  return {};
}

// An archive that could not be listed, and holds a match or may hold one, goes whole.
Status Eraser::EraseUnlisted(const std::vector<Archive>& archives) {
  std::vector<std::string> files;
  for (const std::string& path : UnlistedArchives(maintenance_->path, directory_, archives)) {
    std::unique_ptr<Reader> reader;
    NumberSet found;
    Status readable = Reader::Open(path, &reader);
    if (readable.ok()) readable = Find(reader.get(), query_, &found);
    if (!readable.ok() || !found.empty()) files.push_back(path);
  }
  return RemoveFiles(files);
}

// What killed processes left of their work: copies of records. Whoever is at such work now holds
// the lock that is ours, or one on its file.
Status Eraser::RemoveLeftovers() {
  std::vector<Archive> archives;
  RETURN_IF_ERROR(ReadArchives(&connection(), kSchemaVersion, &archives));
  std::set<std::string> folders = ArchiveFolders(maintenance_->path, directory_, archives);
  folders.insert(FolderOf(maintenance_->path));
  for (const std::string& folder : folders) {
    for (const std::string& file : FilesIn(folder)) {
      if (!IsNamed(file, "unfinished")) continue;
      if (unlink(file.c_str()) != 0) return Status::Errno("cannot delete " + file);
    }
  }
  RemoveAbandonedUnpacked();
  return {};
}

Status Eraser::RemoveFiles(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    if (unlink(file.c_str()) != 0 && errno != ENOENT) return Status::Errno("cannot delete " + file);
    erased_->files.push_back(file);
  }
  std::set<std::string> folders;
  for (const std::string& file : files) folders.insert(FolderOf(file));
  for (const std::string& folder : folders) RETURN_IF_ERROR(SyncFolder(folder));
  return {};
}

// The log holds what pages were before. It is played into the file, and cut to nothing, as soon as
// nobody reads from it.
Status Eraser::EmptyLog() {
  // Who waits for readers here keeps the collector from writing.
  RETURN_IF_ERROR(connection().Execute("PRAGMA incremental_vacuum; PRAGMA busy_timeout = 0"));
  for (int i = 0; i < kTries; ++i) {
    std::int64_t is_busy = 0;
    Status status = connection().Read("PRAGMA wal_checkpoint(TRUNCATE)", &is_busy);
    if (status.ok() && is_busy == 0) return {};
    if (!status.ok() && (status.code & 0xff) != SQLITE_BUSY) return status;
    std::this_thread::sleep_for(kPause);
  }
  return Status::Failed(
      "what was erased is still in the log, which somebody reads: erase again when they are done");
}

}  // namespace

Status CountErasable(const std::string& database_path, const Query& query,
                     const std::string& directory, Erased* erased) {
  std::unique_ptr<History> history;
  std::vector<std::string> unreadable;
  *erased = {};
  const auto count = [erased](const RecordRow&) {
    ++erased->records;
    return true;
  };
  RETURN_IF_ERROR(History::Open(database_path, &history));
  RETURN_IF_ERROR(history->ForEach(query, count, &unreadable));
  if (IsForOne(query)) return {};
  std::vector<Archive> archives;
  RETURN_IF_ERROR(history->live().ReadArchives(&archives));
  erased->files = FilesAside(database_path, archives);
  for (const std::string& path : UnlistedArchives(database_path, directory, archives)) {
    std::unique_ptr<Reader> reader;
    Status readable = Reader::Open(path, &reader);
    if (readable.ok()) readable = reader->ForEach(query, count);
    if (!readable.ok()) erased->files.push_back(path);
  }
  return history->live().connection().Read(
      "SELECT count(*) FROM quarantine WHERE " + QuarantineCondition(query), &erased->quarantined);
}

Status Erase(const std::string& database_path, const Query& query, const std::string& directory,
             Erased* erased) {
  *erased = {};
  const std::string usual = DefaultArchiveDirectory(database_path);
  // What no database lists, or only as a file of the first schema, is looked through like the rest;
  // what fails here goes whole.
  (void)WhenFree([&] {
    return GoOnUpgrading(
        database_path, usual, [] { return false; }, &erased->damages);
  });
  for (const std::string& folder : {usual, directory}) {
    std::vector<std::string> adopted;
    std::vector<std::string> problems;
    if (folder.empty()) continue;
    RETURN_IF_ERROR(
        WhenFree([&] { return AdoptArchives(database_path, folder, &adopted, &problems); }));
  }
  Maintenance maintenance;
  RETURN_IF_ERROR(WhenFree([&] { return Maintenance::Open(database_path, &maintenance); }));
  return Eraser(&maintenance, query, directory, erased).Run();
}

}  // namespace velmora::usage_stat::store
