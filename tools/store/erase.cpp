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

namespace velmora::usage_stat::store {

namespace {

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

// Numbers in order, as runs that follow one another.
class Runs {
 public:
  struct Run {
    std::int64_t first = 0;
    std::int64_t last = 0;
  };
  void Add(std::int64_t number) {
    numbers_.insert(number);
    if (!runs_.empty() && runs_.back().last == number - 1) {
      runs_.back().last = number;
    } else {
      runs_.push_back({number, number});
    }
  }
  const std::vector<Run>& runs() const { return runs_; }
  const std::set<std::int64_t>& numbers() const { return numbers_; }
  std::int64_t count() const { return static_cast<std::int64_t>(numbers_.size()); }

 private:
  std::vector<Run> runs_;
  std::set<std::int64_t> numbers_;
};

Status Find(Reader* reader, const Query& query, Runs* found) {
  return reader->ForEach(query, [found](const RecordRow& row) {
    found->Add(row.id);
    return true;
  });
}

// Damaged databases that were set aside, with the files beside them, and what a killed archiving
// left.
std::vector<std::string> UnreadableFiles(const std::string& database_path) {
  const std::filesystem::path path(database_path);
  const std::string prefix = path.filename().string() + ".damaged-";
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(FolderOf(database_path), error)) {
    if (entry.path().filename().string().starts_with(prefix)) files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

class Eraser {
 public:
  Eraser(Maintenance* maintenance, const Query& query, Erased* erased)
      : maintenance_(maintenance), query_(query), erased_(erased) {}

  Status Run() {
    RETURN_IF_ERROR(FinishArchives(maintenance_));
    RETURN_IF_ERROR(EraseArchives());
    RETURN_IF_ERROR(EraseRecords());
    if (!IsForOne(query_)) {
      RETURN_IF_ERROR(EraseQuarantine());
      RETURN_IF_ERROR(RemoveFiles(UnreadableFiles(maintenance_->path)));
    }
    return EmptyLog();
  }

 private:
  Connection& connection() { return maintenance_->connection; }

  Status EraseRecords();
  Status EraseQuarantine();
  Status EraseArchives();
  Status EraseArchive(const Archive& archive);
  Status RemoveFiles(const std::vector<std::string>& files);
  Status EmptyLog();
  Status NoteErased(const Runs& numbers);

  Maintenance* const maintenance_;
  const Query query_;
  Erased* const erased_;
};

Status Eraser::NoteErased(const Runs& numbers) {
  for (const Runs::Run& run : numbers.runs()) {
    RETURN_IF_ERROR(NoteMissing(&connection(), run.first, run.last, Absence::kErased));
  }
  return {};
}

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
    Runs found;
    RETURN_IF_ERROR(reader->ForEach(piece, [&](const RecordRow& row) {
      found.Add(row.id);
      return found.count() < kRowsAtOnce;
    }));
    is_end = found.count() < kRowsAtOnce;
    if (found.count() == 0) break;
    Transaction transaction(&connection());
    RETURN_IF_ERROR(transaction.Begin());
    for (const Runs::Run& run : found.runs()) {
      std::int64_t removed = 0;
      RETURN_IF_ERROR(RemoveRecords(&connection(), run.first, run.last, Outcome::kDeleted,
                                    kByErasing, &removed));
      erased_->records += removed;
    }
    RETURN_IF_ERROR(NoteErased(found));
    RETURN_IF_ERROR(transaction.Commit());
    piece.after_id = found.runs().back().last;
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

// The file is there in full or without the rows, never in between; the database notes the erasing
// first, so that whoever is killed after that finds the rows again and ends it.
Status Eraser::EraseArchive(const Archive& archive) {
  const std::string path = LocateArchive(maintenance_->path, archive);
  std::unique_ptr<Reader> reader;
  Runs found;
  Status readable = Reader::Open(path, &reader);
  if (readable.ok()) readable = Find(reader.get(), query_, &found);
  if (readable.ok() && found.count() == 0) return {};
  if (!readable.ok() && IsForOne(query_)) return readable;
  const bool goes_whole = !readable.ok() || found.count() == archive.records;

  Archive rest = archive;
  std::string temporary;
  if (!goes_whole) {
    RETURN_IF_ERROR(MakeRest(maintenance_, reader.get(), found.numbers(), &rest, &temporary));
  } else if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    return Status::Errno("cannot delete " + path);
  }
  Transaction transaction(&connection());
  RETURN_IF_ERROR(transaction.Begin());
  if (goes_whole) {
    RETURN_IF_ERROR(SetState(&connection(), archive.id, ArchiveState::kDeleted));
    RETURN_IF_ERROR(
        NoteMissing(&connection(), archive.first_record, archive.last_record, Absence::kErased));
  } else {
    RETURN_IF_ERROR(NoteErased(found));
    RETURN_IF_ERROR(UpdateArchive(&connection(), rest));
  }
  RETURN_IF_ERROR(transaction.Commit());
  if (!goes_whole && rename(temporary.c_str(), path.c_str()) != 0) {
    return Status::Errno("cannot replace " + path);
  }
  erased_->records += readable.ok() ? found.count() : archive.records;
  if (!readable.ok()) erased_->files.push_back(path);
  return SyncFolder(FolderOf(path));
}

Status Eraser::RemoveFiles(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    if (unlink(file.c_str()) != 0 && errno != ENOENT) return Status::Errno("cannot delete " + file);
    erased_->files.push_back(file);
  }
  return files.empty() ? Status() : SyncFolder(FolderOf(maintenance_->path));
}

// The log holds what pages were before. It is played into the file, and cut to nothing, as soon as
// nobody reads from it.
Status Eraser::EmptyLog() {
  RETURN_IF_ERROR(connection().Execute("PRAGMA incremental_vacuum"));
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

Status CountErasable(const std::string& database_path, const Query& query, Erased* erased) {
  std::unique_ptr<History> history;
  std::vector<std::string> unreadable;
  *erased = {};
  RETURN_IF_ERROR(History::Open(database_path, &history));
  RETURN_IF_ERROR(history->ForEach(
      query,
      [erased](const RecordRow&) {
        ++erased->records;
        return true;
      },
      &unreadable));
  if (IsForOne(query)) return {};
  erased->files = UnreadableFiles(database_path);
  return history->live().connection().Read(
      "SELECT count(*) FROM quarantine WHERE " + QuarantineCondition(query), &erased->quarantined);
}

Status Erase(const std::string& database_path, const Query& query, Erased* erased) {
  Maintenance maintenance;
  *erased = {};
  // A rotation that is under way is over soon.
  Status status;
  for (int i = 0; i < kTries; ++i) {
    status = Maintenance::Open(database_path, &maintenance);
    if ((status.code & 0xff) != SQLITE_BUSY) break;
    std::this_thread::sleep_for(kPause);
  }
  RETURN_IF_ERROR(status);
  return Eraser(&maintenance, query, erased).Run();
}

}  // namespace velmora::usage_stat::store
