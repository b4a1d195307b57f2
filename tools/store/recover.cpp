#include "tools/store/recover.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>

#include "tools/base/text.h"
#include "tools/records/record.h"
#include "tools/store/archive.h"
#include "tools/store/file.h"
#include "tools/store/ledger.h"
#include "tools/store/maintenance.h"
#include "tools/store/pages.h"
#include "tools/store/reader.h"
#include "tools/store/schema.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::store {

namespace {

namespace fs = std::filesystem;

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator file(folder, error), end; !error && file != end;
       file.increment(error)) {
    files.push_back(file->path());
  }
  std::ranges::sort(files);
  return files;
}

// The last number in an archive's name: records-TIME-FIRST-LAST.db.zst.
std::int64_t LastNumberInName(const std::string& path) {
  constexpr std::string_view kEnding = ".db.zst";
  if (!path.ends_with(kEnding)) return 0;
  const std::string_view stem = std::string_view(path).substr(0, path.size() - kEnding.size());
  const auto number = base::ParseWhole<std::int64_t>(stem.substr(stem.rfind('-') + 1));
  return number && *number <= kLargestNumber ? *number : 0;
}

// ---- What a damaged database still holds ----

// A letter for each column: which table a row is of, and of which schema.
constexpr std::string_view kRecord = "-IIIIITB";
constexpr std::string_view kRecordOfFirstSchema = "-IIIITITB";
constexpr std::string_view kArchive = "-TTIIIIIIII";
constexpr std::string_view kArchiveOfFirstSchema = "-TTIIIIIII";
constexpr std::string_view kStore = "-B";
constexpr std::string_view kEventOrMissing = "-IT";

std::string ShapeOf(std::span<const Column> columns) {
  std::string shape;
  for (const Column& column : columns) shape += "-ITB"[static_cast<std::size_t>(column.type)];
  return shape;
}

// Half of what is believed elsewhere: what is recovered must leave numbers for what is to come.
bool IsNumber(std::int64_t number) { return number > 0 && number <= kLargestNumber / 2; }

// What tells about the records.
struct Surroundings {
  std::map<std::int64_t, std::pair<int, std::string>> events;
  std::vector<Store> stores;
  std::vector<Missing> missing;
  std::vector<Archive> archives;
  std::int64_t last_record = 0;  // that was found
  std::int64_t last = 0;         // the largest number that is known to have been given
  std::int64_t unread = 0;       // bytes that may have held more

  explicit Surroundings(const Pages& pages) {
    const auto take = [this](std::int64_t number, std::span<const Column> columns) {
      if (IsNumber(number)) Take(number, columns);
    };
    unread = pages.bytes() - pages.ForEachRow(take);
    std::ranges::sort(missing, {}, &Missing::first_record);
    last = std::max(last, last_record);
  }

 private:
  void Take(std::int64_t number, std::span<const Column> columns) {
    const std::string shape = ShapeOf(columns);
    if (shape == kRecord || shape == kRecordOfFirstSchema) {
      last_record = std::max(last_record, number);
    } else if (shape == kStore && columns[1].bytes.size() == kStoreIdSize) {
      stores.push_back({std::string(columns[1].bytes), number});
      last = std::max(last, number - 1);
    } else if (shape == kEventOrMissing) {
      const std::int64_t value = columns[1].integer;
      const auto reason = ValueNamed<Absence>(kAbsenceNames, columns[2].bytes);
      if (!reason) {
        events[number] = {static_cast<int>(value), std::string(columns[2].bytes)};
      } else if (IsNumber(value)) {
        missing.push_back({number, value, *reason});
        last = std::max(last, value);
      }
    } else if (shape == kArchive || shape == kArchiveOfFirstSchema) {
      const std::size_t at = shape == kArchive ? 5 : 4;
      const auto state = ValueNamed<ArchiveState>(kArchiveStateNames, columns[2].bytes);
      if (!state || !IsNumber(columns[at + 1].integer)) return;
      Archive archive;
      archive.state = *state;
      archive.first_record = columns[at].integer;
      archive.last_record = columns[at + 1].integer;
      last = std::max(last, archive.last_record);
      archives.push_back(archive);
    }
  }
};

// The record of a row; false when it is none that anybody could read.
bool ReadRecord(std::span<const Column> columns, const Surroundings& surroundings,
                RecordRow* record) {
  const std::string shape = ShapeOf(columns);
  const bool is_of_first_schema = shape == kRecordOfFirstSchema;
  if (shape != kRecord && !is_of_first_schema) return false;
  const std::size_t at = is_of_first_schema ? 6 : 5;
  record->received_ms = columns[1].integer;
  record->sender = {columns[2].integer, columns[3].integer};
  record->timestamp_ms = columns[at].integer;
  record->fields = columns[at + 1].bytes;
  record->raw = columns[at + 2].bytes;
  const auto decoded = records::Decode(record->raw);
  if (const auto* known = std::get_if<records::Record>(&decoded)) {
    record->type = known->type;
    record->event = known->event;
    record->fields = records::Dump(known->values);
    return record->timestamp_ms == known->timestamp;
  }
  if (is_of_first_schema) {
    record->type = static_cast<int>(columns[4].integer);
    record->event = columns[5].bytes;
  } else if (const auto event = surroundings.events.find(columns[4].integer);
             event != surroundings.events.end()) {
    std::tie(record->type, record->event) = event->second;
  } else {
    return false;  // nothing tells what it was
  }
  // A program that knows more may have kept it. What this one knows did read when it came.
  return !records::FindEvent(record->event) && base::IsUtf8(record->event) &&
         base::IsUtf8(record->fields) && records::Json::accept(record->fields);
}

// Puts the records from number `first` on into a sound database.
Status SaveRecords(const Pages& pages, const Surroundings& surroundings, std::int64_t first,
                   Connection* sound, std::int64_t* saved) {
  RecordInserter inserter;
  Status failure;
  RETURN_IF_ERROR(inserter.Prepare(sound));
  RETURN_IF_ERROR(sound->Execute("BEGIN"));
  pages.ForEachRow([&](std::int64_t number, std::span<const Column> columns) {
    RecordRow record;
    if (!failure.ok() || !IsNumber(number) || number < first) return;
    if (!ReadRecord(columns, surroundings, &record)) return;
    Status status = inserter.Insert(number, record);
    if (status.ok()) ++*saved;
    // A broken page may tell a number that another record has.
    if (!status.ok() && status.code != SQLITE_CONSTRAINT_PRIMARYKEY) failure = std::move(status);
  });
  RETURN_IF_ERROR(failure);
  return sound->Execute("COMMIT");
}

// The largest number of a damaged database; where SQLite can't read even that, more than it can
// have given.
std::int64_t LastNumberIn(const std::string& path) {
  constexpr std::int64_t kSmallestRow = 32;
  Pages pages;
  if (!Pages::Open(path, &pages).ok()) return 0;
  const Surroundings surroundings(pages);
  Connection connection;
  std::int64_t next = 0;
  if (OpenForReading(path, &connection, nullptr, Connection::Mode::kRescue).ok() &&
      NextRecord(&connection, &next).ok() && next <= kLargestNumber) {
    // SQLite does not read behind what is broken in a log.
    return std::max(next - 1, surroundings.last);
  }
  return surroundings.last + surroundings.unread / kSmallestRow;
}

// ---- Archives that no database lists ----

// What an archive holds; fails when it can't be read.
Status Inspect(const std::string& path, std::unique_ptr<Reader>* reader, Archive* archive) {
  RETURN_IF_ERROR(Reader::Open(path, reader));
  Statement select;
  RETURN_IF_ERROR((*reader)->connection().Prepare(
      "SELECT count(*), min(id), max(id), min(timestamp_ms), max(timestamp_ms), max(received_ms) "
      "FROM records",
      &select));
  if (!select.Step()) return select.status();
  archive->path = path;
  archive->state = ArchiveState::kComplete;
  archive->schema = (*reader)->schema();
  archive->records = select.Int(0);
  archive->first_record = select.Int(1);
  archive->last_record = select.Int(2);
  archive->first_timestamp_ms = select.Int(3);
  archive->last_timestamp_ms = select.Int(4);
  archive->created_ms = select.Int(5);
  std::error_code error;
  archive->bytes = static_cast<std::int64_t>(fs::file_size(path, error));
  return {};
}

Status TakeStores(Connection* connection, const std::vector<Store>& stores) {
  Statement insert;
  RETURN_IF_ERROR(connection->Prepare(
      "INSERT OR IGNORE INTO stores(first_record, store_id) VALUES(?, ?)", &insert));
  for (const Store& store : stores) {
    RETURN_IF_ERROR(insert.Bind(1, store.first_record).BindBlob(2, store.id).Run());
  }
  return {};
}

Status Adopt(Connection* connection, Reader* reader, Archive* archive) {
  std::vector<Store> stores;
  std::vector<Missing> missing;
  RETURN_IF_ERROR(reader->ReadStores(&stores));
  RETURN_IF_ERROR(reader->ReadMissing(&missing));
  Transaction transaction(connection);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(TakeStores(connection, stores));
  for (const Missing& run : missing) {
    RETURN_IF_ERROR(NoteMissing(connection, run.first_record, run.last_record, run.reason));
  }
  RETURN_IF_ERROR(InsertArchive(connection, archive));
  return transaction.Commit();
}

// ---- Recovering ----

// What lies before the records that only the damaged database had: archives, and what was missing.
// `known` are the archives that the sound database lists; where an archive was begun only, they
// tell whether its file came to be.
std::int64_t FirstOf(const Surroundings& surroundings, const std::vector<Archive>& known) {
  std::int64_t first = 1;
  for (const Archive& archive : surroundings.archives) {
    const auto is_same = [&archive](const Archive& other) {
      return other.first_record == archive.first_record && other.last_record == archive.last_record;
    };
    if (archive.state != ArchiveState::kBegun || std::ranges::any_of(known, is_same)) {
      first = std::max(first, archive.last_record + 1);
    }
  }
  for (const Missing& run : surroundings.missing) {
    if (run.first_record <= first) first = std::max(first, run.last_record + 1);
  }
  return first;
}

// Takes over what the file tells of its numbers, with a store for the first of its records.
Status TakeSurroundings(Connection* connection, const Surroundings& surroundings,
                        std::int64_t first) {
  std::vector<Store> stores = surroundings.stores;
  if (std::ranges::none_of(stores, [&](const Store& s) { return s.first_record <= first; })) {
    stores.push_back({"", first});
    RETURN_IF_ERROR(MakeStoreId(&stores.back().id));
  }
  RETURN_IF_ERROR(TakeStores(connection, stores));
  for (const Missing& run : surroundings.missing) {
    RETURN_IF_ERROR(NoteMissing(connection, run.first_record, run.last_record, run.reason));
  }
  return {};
}

// Notes the numbers from `first` to `last` that are neither among the rescued nor known otherwise.
Status NoteUnreadable(Connection* connection, Reader* rescued, std::int64_t first,
                      std::int64_t last) {
  std::int64_t next = first;
  Status status;
  const auto note = [&](std::int64_t until) {
    if (next <= until) status = NoteMissing(connection, next, until, Absence::kUnreadable);
  };
  RETURN_IF_ERROR(rescued->ForEach({}, [&](const RecordRow& row) {
    note(row.id - 1);
    next = row.id + 1;
    return status.ok();
  }));
  if (status.ok()) note(last);
  return status;
}

Status CountUnreadable(Connection* connection, std::int64_t* numbers) {
  return connection->Read(
      "SELECT coalesce(sum(last_record - first_record + 1), 0) FROM missing "
      "WHERE reason = 'unreadable'",
      numbers);
}

// Refuses the numbers from `lowest` to `highest` when the database or its archives have some.
Status CheckFree(Connection* connection, std::int64_t lowest, std::int64_t highest,
                 const std::string& file) {
  std::int64_t taken = 0;
  const std::string first = std::to_string(lowest);
  const std::string last = std::to_string(highest);
  RETURN_IF_ERROR(connection->Read(
      "SELECT (SELECT count(*) FROM records WHERE id BETWEEN " + first + " AND " + last +
          ") + (SELECT count(*) FROM archives WHERE state = 'complete' AND first_record <= " +
          last + " AND last_record >= " + first + ")",
      &taken));
  return taken == 0 ? Status()
                    : Status::Failed("records of the same numbers are there already: was " + file +
                                     " recovered before?");
}

// A database that is filled on the way and then gone.
class Halfway {
 public:
  explicit Halfway(std::string path) : path_(std::move(path)) { unlink(path_.c_str()); }
  ~Halfway() { unlink(path_.c_str()); }
  Halfway(const Halfway&) = delete;
  Halfway& operator=(const Halfway&) = delete;

  const std::string& path() const { return path_; }

  Status Create(Connection* connection) const {
    RETURN_IF_ERROR(CreatePrivateFile(path_));
    RETURN_IF_ERROR(Connection::Open(path_, Connection::Mode::kWrite, connection));
    RETURN_IF_ERROR(connection->Execute("PRAGMA journal_mode = MEMORY; PRAGMA synchronous = OFF"));
    return InitializeSchema(connection);
  }

 private:
  std::string path_;
};

}  // namespace

std::int64_t LargestKnownNumber(const std::string& path, const std::string& directory) {
  std::int64_t largest = 0;
  for (const std::string& file : FilesIn(directory)) {
    largest = std::max(largest, LastNumberInName(file));
  }
  const std::string aside = TargetOf(path) + ".damaged-";
  for (const std::string& file : FilesIn(FolderOf(path))) {
    const bool is_aside =
        file.starts_with(aside) && !file.ends_with("-wal") && !file.ends_with("-shm");
    if (is_aside) largest = std::max(largest, LastNumberIn(file));
  }
  return largest;
}

bool HoldsRecords(const std::string& path) {
  Pages pages;
  if (!Pages::Open(path, &pages).ok()) return false;
  const Surroundings surroundings(pages);
  bool is_found = false;
  pages.ForEachRow([&](std::int64_t, std::span<const Column> columns) {
    RecordRow record;
    is_found = is_found || ReadRecord(columns, surroundings, &record);
  });
  return is_found;
}

Status AdoptArchives(const std::string& database_path, const std::string& directory,
                     std::vector<std::string>* adopted, std::vector<std::string>* problems) {
  Maintenance maintenance;
  RETURN_IF_ERROR(Maintenance::Open(database_path, &maintenance));
  std::vector<Archive> known;
  RETURN_IF_ERROR(ReadArchives(&maintenance.connection, kSchemaVersion, &known));
  std::set<std::string> names;
  for (const Archive& archive : known) names.insert(fs::path(archive.path).filename());
  for (const std::string& path : FilesIn(directory)) {
    if (!IsArchive(path) || names.contains(fs::path(path).filename())) continue;
    std::unique_ptr<Reader> reader;
    Archive archive;
    Status status = Inspect(path, &reader, &archive);
    const auto overlaps = [&archive](const Archive& other) {
      return other.state == ArchiveState::kComplete && other.first_record <= archive.last_record &&
             other.last_record >= archive.first_record;
    };
    if (status.ok() && std::ranges::any_of(known, overlaps)) {
      status = Status::Failed("another archive holds records of the same numbers");
    }
    if (status.ok()) status = Adopt(&maintenance.connection, reader.get(), &archive);
    if (status.ok()) {
      known.push_back(archive);
      adopted->push_back(path);
    } else {
      problems->push_back(path + ": " + status.message);
    }
  }
  return {};
}

Status Recover(const std::string& file, const std::string& database_path,
               const std::string& directory, Recovered* recovered) {
  *recovered = {};
  std::error_code error;
  if (fs::equivalent(file, database_path, error)) {
    return Status::Failed(file + " is the database itself, not one that was set aside");
  }
  Pages pages;
  RETURN_IF_ERROR(Pages::Open(file, &pages));
  if (pages.head().is_ours && pages.head().version > kSchemaVersion) {
    return Status::Failed(file + " has schema version " + std::to_string(pages.head().version) +
                          ", this program knows version " + std::to_string(kSchemaVersion));
  }
  const Surroundings surroundings(pages);
  if (!pages.head().is_ours && surroundings.last_record == 0) {
    return Status::Failed(file + " is not a database of usage-stat, or nothing of it is left");
  }

  Maintenance maintenance;
  Connection* const database = &maintenance.connection;
  std::vector<Archive> known;
  RETURN_IF_ERROR(Maintenance::Open(database_path, &maintenance));
  RETURN_IF_ERROR(FinishArchives(&maintenance));
  RETURN_IF_ERROR(ReadArchives(database, ArchiveState::kComplete, &known));

  std::int64_t first = FirstOf(surroundings, known);
  std::int64_t lowest = 0;
  std::int64_t highest = 0;
  const Halfway halfway(FolderOf(database_path) + "/unfinished-recovery.db");
  {
    Connection sound;
    RETURN_IF_ERROR(halfway.Create(&sound));
    RETURN_IF_ERROR(SaveRecords(pages, surroundings, first, &sound, &recovered->records));
    RETURN_IF_ERROR(sound.Read("SELECT coalesce(min(id), 0) FROM records", &lowest));
    RETURN_IF_ERROR(sound.Read("SELECT coalesce(max(id), 0) FROM records", &highest));
  }
  const std::int64_t last = std::max(highest, LastNumberIn(file));
  const bool is_any_left = highest > 0;
  if (is_any_left) RETURN_IF_ERROR(CheckFree(database, lowest, highest, file));
  // Its own archives of which it no longer tells.
  for (const Archive& archive : known) {
    if (archive.last_record > (is_any_left ? lowest : last)) continue;
    first = std::max(first, archive.last_record + 1);
  }

  std::int64_t unreadable_before = 0;
  std::int64_t unreadable_after = 0;
  std::unique_ptr<Reader> rescued;
  RETURN_IF_ERROR(CountUnreadable(database, &unreadable_before));
  RETURN_IF_ERROR(TakeSurroundings(database, surroundings, is_any_left ? lowest : first));
  RETURN_IF_ERROR(Reader::Open(halfway.path(), &rescued));
  for (std::int64_t after = first - 1; after < highest;) {
    Archive archive;
    RETURN_IF_ERROR(MakeArchive(&maintenance, directory, rescued.get(), after, highest, &archive));
    if (archive.records == 0) break;
    RETURN_IF_ERROR(FinishArchives(&maintenance));
    after = archive.last_record;
    archive.state = ArchiveState::kComplete;
    recovered->archives.push_back(std::move(archive));
  }
  // Where nothing tells how far the numbers went, these are the most it can be.
  Transaction transaction(database);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(NoteUnreadable(database, rescued.get(), first, last));
  RETURN_IF_ERROR(transaction.Commit());
  RETURN_IF_ERROR(CountUnreadable(database, &unreadable_after));
  recovered->unreadable = unreadable_after - unreadable_before;
  return {};
}

}  // namespace velmora::usage_stat::store
