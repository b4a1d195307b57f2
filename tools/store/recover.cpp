#include "tools/store/recover.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <variant>

#include "tools/base/text.h"
#include "tools/records/record.h"
#include "tools/store/archive.h"
#include "tools/store/file.h"
#include "tools/store/ledger.h"
#include "tools/store/maintenance.h"
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
  constexpr std::int64_t kLargestBelieved = std::int64_t{1} << 53;
  const auto number = base::ParseWhole<std::int64_t>(stem.substr(stem.rfind('-') + 1));
  return number && *number <= kLargestBelieved ? *number : 0;
}

// The largest number of a damaged database; where even that can't be read, more than it can have
// given since the last archive.
std::int64_t LastNumberIn(const std::string& path) {
  constexpr std::int64_t kSmallestRow = 32;
  Connection connection;
  std::int64_t number = 0;
  std::int64_t largest = 0;
  bool is_sure = OpenForReading(path, &connection, nullptr, Connection::Mode::kRescue).ok();
  for (const char* query :
       {"SELECT max(id) FROM records", "SELECT max(last_record) FROM archives"}) {
    if (connection.handle() && connection.Read(query, &number).ok()) {
      largest = std::max(largest, number);
    } else {
      is_sure = false;
    }
  }
  std::error_code error;
  const auto bytes = static_cast<std::int64_t>(fs::file_size(path, error));
  return is_sure || error ? largest : largest + bytes / kSmallestRow;
}

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

// Reads the records of a damaged database into a sound one.
class Rescuer {
 public:
  Rescuer(Connection* damaged, int schema, Connection* sound)
      : damaged_(damaged), schema_(schema), sound_(sound) {}

  Status Run(std::int64_t first, std::int64_t last) {
    RETURN_IF_ERROR(inserter_.Prepare(sound_));
    ReadEvents();
    RETURN_IF_ERROR(sound_->Execute("BEGIN"));
    Read(first, last);
    RETURN_IF_ERROR(sound_->Execute("COMMIT"));
    return failure_;
  }
  std::int64_t records() const { return records_; }

 private:
  // Reads the range from its front, and what then is left from its end, and the halves of the rest.
  void Read(std::int64_t first, std::int64_t last) {
    if (first > last || !failure_.ok()) return;
    std::int64_t reached = first - 1;
    if (ReadOneWay(first, last, false, &reached)) return;
    first = reached + 1;
    reached = last + 1;
    if (ReadOneWay(first, last, true, &reached)) return;
    last = reached - 1;
    if (first >= last) return;
    const std::int64_t middle = first + (last - first) / 2;
    Read(first, middle);
    Read(middle + 1, last);
  }

  // True when the range was read to its end; otherwise `reached` is the last number that was.
  bool ReadOneWay(std::int64_t first, std::int64_t last, bool is_down, std::int64_t* reached) {
    Statement select;
    const std::string columns = schema_ == 1 ? "type, event" : "event, ''";
    const Status prepared = damaged_->Prepare(
        "SELECT id, received_ms, pid, uid, timestamp_ms, fields, raw, " + columns +
            " FROM records WHERE id BETWEEN ? AND ? ORDER BY id" + (is_down ? " DESC" : ""),
        &select);
    if (!prepared.ok()) {
      failure_ = prepared;
      return true;
    }
    select.Bind(1, first).Bind(2, last);
    while (select.Step()) {
      const std::int64_t id = select.Int(0);
      // A damaged page may say anything.
      if (id < first || id > last) return false;
      *reached = id;
      Keep(id, select);
      if (!failure_.ok()) return true;
    }
    return select.status().ok();
  }

  void Keep(std::int64_t id, const Statement& select) {
    RecordRow row;
    row.received_ms = select.Int(1);
    row.sender = {select.Int(2), select.Int(3)};
    row.timestamp_ms = select.Int(4);
    row.fields = select.Text(5);
    row.raw = select.Text(6);
    const auto decoded = records::Decode(row.raw);
    if (const auto* record = std::get_if<records::Record>(&decoded)) {
      row.type = record->type;
      row.event = record->event;
      row.timestamp_ms = record->timestamp;
    } else if (schema_ == 1) {
      row.type = static_cast<int>(select.Int(7));
      row.event = select.Text(8);
    } else if (const auto event = events_.find(select.Int(7)); event != events_.end()) {
      std::tie(row.type, row.event) = event->second;
    } else {
      return;  // nothing tells what it was
    }
    if (!kept_.insert(id).second) return;
    failure_ = inserter_.Insert(id, row);
    ++records_;
  }

  void ReadEvents() {
    Statement select;
    if (schema_ == 1 || !damaged_->Prepare("SELECT id, type, name FROM events", &select).ok()) {
      return;
    }
    while (select.Step()) {
      events_[select.Int(0)] = {static_cast<int>(select.Int(1)), std::string(select.Text(2))};
    }
  }

  Connection* damaged_;
  int schema_;
  Connection* sound_;
  RecordInserter inserter_;
  std::map<std::int64_t, std::pair<int, std::string>> events_;
  std::set<std::int64_t> kept_;
  std::int64_t records_ = 0;
  Status failure_;
};

// The stores of a damaged database; one of its own, when they can't be read.
Status StoresOf(Reader* damaged, std::int64_t first, std::vector<Store>* stores) {
  const Status status = damaged->ReadStores(stores);
  if (status.ok() && !stores->empty()) return {};
  Connection memory;
  std::string id;
  RETURN_IF_ERROR(Connection::Open(":memory:", Connection::Mode::kCreate, &memory));
  RETURN_IF_ERROR(memory.Read("SELECT randomblob(16)", &id));
  *stores = {{id, first}};
  return {};
}

// Notes which numbers from `first` to `last` are neither rescued nor known otherwise.
Status NoteUnreadable(Connection* connection, Reader* rescued, std::int64_t first,
                      std::int64_t last, std::int64_t* unreadable) {
  Transaction transaction(connection);
  RETURN_IF_ERROR(transaction.Begin());
  std::int64_t next = first;
  Status status;
  const auto note = [&](std::int64_t until) {
    if (next > until) return;
    *unreadable += until - next + 1;
    status = NoteMissing(connection, next, until, Absence::kUnreadable);
  };
  RETURN_IF_ERROR(rescued->ForEach({}, [&](const RecordRow& row) {
    note(row.id - 1);
    next = row.id + 1;
    return status.ok();
  }));
  if (status.ok()) note(last);
  RETURN_IF_ERROR(status);
  return transaction.Commit();
}

}  // namespace

std::int64_t LargestKnownNumber(const std::string& path, const std::string& directory) {
  std::int64_t largest = 0;
  for (const std::string& file : FilesIn(directory)) {
    largest = std::max(largest, LastNumberInName(file));
  }
  for (const std::string& file : FilesIn(FolderOf(path))) {
    const bool is_aside = file.starts_with(fs::absolute(path).string() + ".damaged-") &&
                          !file.ends_with("-wal") && !file.ends_with("-shm");
    if (is_aside) largest = std::max(largest, LastNumberIn(file));
  }
  return largest;
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
  Maintenance maintenance;
  RETURN_IF_ERROR(Maintenance::Open(database_path, &maintenance));
  RETURN_IF_ERROR(FinishArchives(&maintenance));
  std::unique_ptr<Reader> damaged;
  RETURN_IF_ERROR(Reader::Open(file, &damaged, Connection::Mode::kRescue));

  // What its own archives hold is not lost; what comes behind them is looked for.
  std::int64_t last = LastNumberIn(file);
  std::vector<Archive> archives;
  std::int64_t first = 1;
  if (damaged->ReadArchives(&archives).ok()) {
    for (const Archive& archive : archives) first = std::max(first, archive.last_record + 1);
  }
  std::vector<Missing> missing;
  if (damaged->ReadMissing(&missing).ok()) {
    for (const Missing& run : missing) {
      if (run.first_record <= first) first = std::max(first, run.last_record + 1);
    }
  }
  const std::string sound_path = FolderOf(database_path) + "/unfinished-recovery.db";
  const auto remove = [&sound_path] { unlink(sound_path.c_str()); };
  remove();
  RETURN_IF_ERROR(CreatePrivateFile(sound_path));
  Status status;
  {
    Connection sound;
    status = Connection::Open(sound_path, Connection::Mode::kWrite, &sound);
    if (status.ok()) status = sound.Execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF");
    if (status.ok()) status = InitializeSchema(&sound);
    if (status.ok()) {
      Rescuer rescuer(&damaged->connection(), damaged->schema(), &sound);
      status = rescuer.Run(first, last);
      recovered->records = rescuer.records();
    }
  }
  std::unique_ptr<Reader> rescued;
  std::vector<Store> stores;
  std::int64_t lowest = 0;
  std::int64_t highest = 0;
  if (status.ok()) status = Reader::Open(sound_path, &rescued);
  if (status.ok()) {
    status = rescued->connection().Read("SELECT coalesce(min(id), 0) FROM records", &lowest);
  }
  if (status.ok()) {
    status = rescued->connection().Read("SELECT coalesce(max(id), 0) FROM records", &highest);
  }
  std::int64_t taken = 0;
  if (status.ok() && highest > 0) {
    const std::string range = std::to_string(lowest) + " AND " + std::to_string(highest);
    status = maintenance.connection.Read(
        "SELECT (SELECT count(*) FROM records WHERE id BETWEEN " + range +
            ") + (SELECT count(*) FROM archives WHERE state = 'complete' AND first_record <= " +
            std::to_string(highest) + " AND last_record >= " + std::to_string(lowest) + ")",
        &taken);
    if (status.ok() && taken > 0) {
      status = Status::Failed("records of the same numbers are there already: was " + file +
                              " recovered before?");
    }
  }
  if (status.ok()) status = StoresOf(damaged.get(), first, &stores);
  if (status.ok()) status = TakeStores(&maintenance.connection, stores);
  for (std::int64_t after = first - 1; status.ok() && after < highest;) {
    Archive archive;
    status = MakeArchive(&maintenance, directory, rescued.get(), after, highest, &archive);
    if (!status.ok() || archive.records == 0) break;
    status = FinishArchives(&maintenance);
    after = archive.last_record;
    archive.state = ArchiveState::kComplete;
    recovered->archives.push_back(std::move(archive));
  }
  // Where nothing is left, and nothing tells how far the numbers went, these are the most it can
  // be.
  if (status.ok()) {
    status = NoteUnreadable(&maintenance.connection, rescued.get(), first, std::max(last, highest),
                            &recovered->unreadable);
  }
  rescued.reset();
  remove();
  return status;
}

}  // namespace velmora::usage_stat::store
