#include "tools/store/recover.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
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
#include "tools/store/numbers.h"
#include "tools/store/pages.h"
#include "tools/store/reader.h"
#include "tools/store/schema.h"
#include "tools/store/zstd_file.h"

namespace velmora::usage_stat::store {

namespace {

namespace fs = std::filesystem;

// What is believed: more than any device lives to give, and less than what is believed elsewhere,
// so that numbers are left for what is to come. Records go further than what is only claimed, which
// the numbers of a new database are behind.
constexpr std::int64_t kLargestClaim = kLargestNumber / 2;
constexpr std::int64_t kLargestRecovered = kLargestNumber / 4 * 3;
bool IsClaim(std::int64_t number) { return number > 0 && number <= kLargestClaim; }
bool IsNumber(std::int64_t number) { return number > 0 && number <= kLargestRecovered; }

// The last number in an archive's name: records-TIME-FIRST-LAST.db.zst.
std::int64_t LastNumberInName(const std::string& path) {
  constexpr std::string_view kEnding = ".db.zst";
  if (!path.ends_with(kEnding)) return 0;
  const std::string_view stem = std::string_view(path).substr(0, path.size() - kEnding.size());
  const auto number = base::ParseWhole<std::int64_t>(stem.substr(stem.rfind('-') + 1));
  return number && IsClaim(*number) ? *number : 0;
}

// Of what is noted as unreadable takes back what is `held` after all.
Status TakeBack(Connection* connection, const std::vector<Missing>& noted, const NumberSet& held) {
  for (const Missing& run : noted) {
    if (run.reason != Absence::kUnreadable || !held.Overlaps(run.first_record, run.last_record)) {
      continue;
    }
    RETURN_IF_ERROR(connection->Execute("DELETE FROM missing WHERE first_record = " +
                                        std::to_string(run.first_record)));
    RETURN_IF_ERROR(
        NoteMissing(connection, held.Others(run.first_record, run.last_record), run.reason));
  }
  return {};
}

Status ReadNoted(const std::string& database_path, std::vector<Missing>* noted) {
  std::unique_ptr<Reader> reader;
  RETURN_IF_ERROR(Reader::Open(database_path, &reader));
  return reader->ReadMissing(noted);
}

// Adds the numbers that are noted as deleted or erased.
void AddGone(const std::vector<Missing>& noted, NumberSet* gone) {
  for (const Missing& run : noted) {
    if (run.reason != Absence::kUnreadable) gone->Add(run.first_record, run.last_record);
  }
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

using Events = std::map<std::int64_t, std::pair<int, std::string>>;

// What tells about the records.
struct Surroundings {
  Events events;
  std::vector<Store> stores;
  std::vector<Missing> missing;
  std::vector<Archive> archives;
  std::int64_t last = 0;    // the largest number that was found
  std::int64_t unread = 0;  // bytes that may have held more

  explicit Surroundings(const Pages& pages) {
    const auto take = [this](std::int64_t number, std::span<const Column> columns) {
      if (IsNumber(number)) Take(number, columns);
      return true;
    };
    unread = pages.bytes() - pages.ForEachRow(take);
    std::ranges::sort(stores, {}, &Store::first_record);
  }

 private:
  void Take(std::int64_t number, std::span<const Column> columns) {
    const std::string shape = ShapeOf(columns);
    if (shape == kRecord || shape == kRecordOfFirstSchema) {
      last = std::max(last, number);
    } else if (!IsClaim(number)) {
      return;
    } else if (shape == kStore && columns[1].bytes.size() == kStoreIdSize) {
      stores.push_back({std::string(columns[1].bytes), number});
      last = std::max(last, number - 1);
    } else if (shape == kEventOrMissing) {
      const std::int64_t value = columns[1].integer;
      const auto reason = ValueNamed<Absence>(kAbsenceNames, columns[2].bytes);
      if (!reason) {
        events[number] = {static_cast<int>(value), std::string(columns[2].bytes)};
      } else if (IsClaim(value) && number <= value) {
        missing.push_back({number, value, *reason});
        last = std::max(last, value);
      }
    } else if (shape == kArchive || shape == kArchiveOfFirstSchema) {
      const std::size_t at = shape == kArchive ? 5 : 4;
      const auto state = ValueNamed<ArchiveState>(kArchiveStateNames, columns[2].bytes);
      Archive archive;
      archive.first_record = columns[at].integer;
      archive.last_record = columns[at + 1].integer;
      if (!state || archive.first_record > archive.last_record) return;
      if (!IsClaim(archive.first_record) || !IsClaim(archive.last_record)) return;
      archive.state = *state;
      last = std::max(last, archive.last_record);
      archives.push_back(archive);
    }
  }
};

// Whether a row's fields are those of its datagram. A program that knows more or fewer of this
// event made other ones, or kept those by name that the first schema had.
bool AgreeWith(std::string_view fields, const records::Json& values) {
  const std::string known = records::Dump(values);
  if (fields == known) return true;
  // What is much longer is none of these, and could take any amount of memory.
  if (fields.size() > 16 * known.size() + 1024) return false;
  const records::Json stored = records::Json::parse(fields, nullptr, false);
  return stored.is_object() || (stored.is_array() && stored.size() != values.size());
}

// The record of a row; false when it is none that anybody could read.
bool ReadRecord(std::span<const Column> columns, const Events& events, RecordRow* record) {
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
  if (is_of_first_schema) {
    record->type = static_cast<int>(columns[4].integer);
    record->event = columns[5].bytes;
  } else if (const auto event = events.find(columns[4].integer); event != events.end()) {
    std::tie(record->type, record->event) = event->second;
  }
  if (const auto* known = std::get_if<records::Record>(&decoded)) {
    // The rest of the row was made of the datagram: where they differ, one of the two is damaged.
    if (record->timestamp_ms != known->timestamp) return false;
    if (!record->event.empty() && record->event != known->event) return false;
    if (!is_of_first_schema && !AgreeWith(record->fields, known->values)) return false;
    record->type = known->type;
    record->event = known->event;
    record->fields = records::Dump(known->values);
    return true;
  }
  if (record->event.empty()) return false;  // nothing tells what it was
  // A program that knows more may have kept it. What this one knows did read when it came.
  return !records::FindEvent(record->event) && base::IsUtf8(record->event) &&
         base::IsUtf8(record->fields) && records::Json::accept(record->fields);
}

// Puts the records into a sound database, except for those whose numbers are in `gone`.
Status SaveRecords(const Pages& pages, const Events& events, const NumberSet& gone,
                   Connection* sound, NumberSet* saved, std::int64_t* left_out) {
  RecordInserter inserter;
  Status failure;
  RETURN_IF_ERROR(inserter.Prepare(sound));
  RETURN_IF_ERROR(sound->Execute("BEGIN"));
  pages.ForEachRow([&](std::int64_t number, std::span<const Column> columns) {
    RecordRow record;
    if (!IsNumber(number)) return true;
    if (!ReadRecord(columns, events, &record)) return true;
    if (gone.Contains(number)) {
      ++*left_out;
      return true;
    }
    Status status = inserter.Insert(number, record);
    if (status.ok()) saved->Add(number);
    // A broken page may tell a number that another record has.
    if (!status.ok() && status.code != SQLITE_CONSTRAINT_PRIMARYKEY) failure = std::move(status);
    return failure.ok();
  });
  RETURN_IF_ERROR(failure);
  return sound->Execute("COMMIT");
}

// The largest number that the damaged database at `path` is known to have given; where SQLite can't
// read even that, more than it can have given. What a log's broken end alone told is given again,
// as after a power cut: in another store.
std::int64_t LastNumberOf(const std::string& path, const Surroundings& surroundings) {
  constexpr std::int64_t kSmallestRow = 32;
  std::unique_ptr<Reader> reader;
  std::int64_t last = 0;
  // SQLite does not read behind what is broken in a log.
  if (Reader::Open(path, &reader, Connection::Mode::kRescue).ok() &&
      reader->LastNumber(&last).ok() && last <= kLargestRecovered) {
    return std::max(last, surroundings.last);
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

// Takes over the stores that begin at number `last` at the latest.
Status TakeStores(Connection* connection, const std::vector<Store>& stores, std::int64_t last) {
  Statement insert;
  RETURN_IF_ERROR(connection->Prepare(
      "INSERT OR IGNORE INTO stores(first_record, store_id) VALUES(?, ?)", &insert));
  for (const Store& store : stores) {
    if (store.first_record > last) continue;
    RETURN_IF_ERROR(insert.Bind(1, store.first_record).BindBlob(2, store.id).Run());
  }
  return {};
}

Status Adopt(Maintenance* maintenance, Reader* reader, Archive* archive) {
  Connection* const connection = &maintenance->connection;
  std::vector<Store> stores;
  std::vector<Missing> missing;
  std::vector<Missing> noted;  // the one before may have changed it
  NumberSet held;
  NumberSet gone;
  RETURN_IF_ERROR(reader->ReadStores(&stores));
  RETURN_IF_ERROR(reader->ReadMissing(&missing));
  RETURN_IF_ERROR(
      AddNumbers(&reader->connection(), archive->first_record, archive->last_record, &held));
  RETURN_IF_ERROR(ReadNoted(maintenance->path, &noted));
  AddGone(noted, &gone);
  for (const auto& [first, last] : held.runs()) {
    if (gone.Overlaps(first, last)) {
      return Status::Failed("it holds records that are noted as deleted or erased");
    }
  }
  Transaction transaction(connection);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(TakeBack(connection, noted, held));
  // Of other numbers it has nothing to tell.
  RETURN_IF_ERROR(TakeStores(connection, stores, archive->last_record));
  for (const Missing& run : missing) {
    RETURN_IF_ERROR(NoteMissing(connection,
                                held.Others(std::max(run.first_record, archive->first_record),
                                            std::min(run.last_record, archive->last_record)),
                                run.reason));
  }
  RETURN_IF_ERROR(InsertArchive(connection, archive));
  return transaction.Commit();
}

// ---- Recovering ----

Status CountUnreadable(Connection* connection, std::int64_t* numbers) {
  return connection->Read(
      "SELECT coalesce(sum(last_record - first_record + 1), 0) FROM missing "
      "WHERE reason = 'unreadable'",
      numbers);
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

// One damaged file on its way into the database.
class Recovery {
 public:
  Recovery(const std::string& file, const std::string& database_path, Recovered* recovered)
      : file_(file), database_path_(database_path), recovered_(recovered) {}

  Status Run(const std::string& directory);

 private:
  Connection* database() { return &maintenance_.connection; }
  Status AlreadyThere() const {
    return Status::Failed("records of the same numbers are there already, or were deleted: was " +
                          file_ + " recovered before?");
  }

  Status Save();
  NumberSet FindGone() const;
  Status ReadRanges();
  Status NoteNumbers();
  Status NoteStores(std::int64_t last);
  Status PutStore(std::int64_t first, std::int64_t last);
  Status NoteMissingNumbers(std::int64_t last, NumberSet held);
  Status AddLive(std::int64_t last, NumberSet* held);
  std::int64_t FirstNumber(std::int64_t last) const;
  Status MakeArchives(const std::string& directory);

  const std::string& file_;
  const std::string& database_path_;
  Recovered* const recovered_;
  Maintenance maintenance_;
  Pages pages_;
  std::optional<Surroundings> surroundings_;
  // What the database has noted and listed already.
  std::vector<Missing> noted_;
  std::vector<Archive> listed_;
  std::optional<Halfway> halfway_;
  std::unique_ptr<Reader> rescued_;
  NumberSet saved_;     // what it reads
  NumberSet archived_;  // the ranges of archives
  NumberSet held_;      // of these, what is known to have records
};

Status Recovery::Save() {
  RETURN_IF_ERROR(Pages::Open(file_, &pages_));
  const DatabaseHead& head = pages_.head();
  if (head.is_ours && head.version > kSchemaVersion) {
    return Status::Failed(file_ + " has schema version " + std::to_string(head.version) +
                          ", this program knows version " + std::to_string(kSchemaVersion));
  }
  surroundings_.emplace(pages_);
  halfway_.emplace(FolderOf(database_path_) + "/unfinished-recovery.db");
  {
    Connection sound;
    RETURN_IF_ERROR(halfway_->Create(&sound));
    RETURN_IF_ERROR(SaveRecords(pages_, surroundings_->events, FindGone(), &sound, &saved_,
                                &recovered_->left_out));
  }
  if (!head.is_ours && saved_.empty()) {
    return Status::Failed(file_ + " is not a database of usage-stat, or nothing of it is left");
  }
  return Reader::Open(halfway_->path(), &rescued_);
}

// Numbers whose rows, should a broken page still have some, must not come back.
NumberSet Recovery::FindGone() const {
  NumberSet gone;
  AddGone(noted_, &gone);
  AddGone(surroundings_->missing, &gone);
  for (const Archive& archive : surroundings_->archives) {
    if (archive.state != ArchiveState::kDeleted) continue;
    gone.Add(archive.first_record, archive.last_record);
  }
  return gone;
}

// Finds where archives are. What was saved of their numbers they have already: a recovery that was
// interrupted made them, or a broken page told a number that is not its row's. That is left out.
Status Recovery::ReadRanges() {
  NumberSet told;
  for (const Missing& run : surroundings_->missing) told.Add(run.first_record, run.last_record);
  for (const Archive& archive : listed_) {
    const std::int64_t first = archive.first_record;
    const std::int64_t last = archive.last_record;
    archived_.Add(first, last);
    std::unique_ptr<Reader> reader;
    const bool has_gaps = archive.records < last - first + 1 && told.Overlaps(first, last);
    if (has_gaps && Reader::Open(LocateArchive(database_path_, archive), &reader).ok()) {
      RETURN_IF_ERROR(AddNumbers(&reader->connection(), first, last, &held_));
    } else {
      held_.Add(first, last);
    }
  }
  NumberSet rest;
  for (const auto& [first, last] : saved_.runs()) {
    for (const auto& [from, to] : archived_.Others(first, last)) rest.Add(from, to);
  }
  recovered_->left_out += saved_.count() - rest.count();
  saved_ = std::move(rest);
  // Those that only the file tells of may come back.
  for (const Archive& archive : surroundings_->archives) {
    const bool is_held = archive.state == ArchiveState::kComplete &&
                         !saved_.Overlaps(archive.first_record, archive.last_record);
    if (is_held) archived_.Add(archive.first_record, archive.last_record);
  }
  return {};
}

// Notes all that is known of the file's numbers, before the first archive of them is there: so
// each archive takes along what belongs to it.
Status Recovery::NoteNumbers() {
  std::int64_t last = std::max(saved_.highest(), LastNumberOf(file_, *surroundings_));
  Transaction transaction(database());
  RETURN_IF_ERROR(transaction.Begin());
  // Of a file that was moved by hand the database knew nothing when it went on with its numbers.
  std::int64_t above = 0;
  RETURN_IF_ERROR(database()->Read("SELECT coalesce(min(id), " + std::to_string(INT64_MAX) +
                                       ") FROM records WHERE id > " +
                                       std::to_string(saved_.highest()),
                                   &above));
  last = std::min(last, above - 1);
  NumberSet held = held_;
  for (const auto& [from, to] : saved_.runs()) held.Add(from, to);
  RETURN_IF_ERROR(AddLive(last, &held));
  RETURN_IF_ERROR(NoteStores(last));
  RETURN_IF_ERROR(NoteMissingNumbers(last, std::move(held)));
  return transaction.Commit();
}

// Adds the numbers that the database itself has records of.
Status Recovery::AddLive(std::int64_t last, NumberSet* held) {
  NumberSet live;
  RETURN_IF_ERROR(AddNumbers(database(), 1, last, &live));
  for (const auto& [from, to] : live.runs()) {
    if (to >= saved_.lowest() && from <= saved_.highest()) return AlreadyThere();
    held->Add(from, to);
  }
  return {};
}

Status Recovery::NoteStores(std::int64_t last) {
  std::int64_t next = 0;
  RETURN_IF_ERROR(NextRecord(database(), &next));
  if (next <= last) RETURN_IF_ERROR(BeginStore(database(), last + 1));
  RETURN_IF_ERROR(TakeStores(database(), surroundings_->stores, last));
  for (const auto& [first, end] : archived_.Others(saved_.lowest(), saved_.highest())) {
    RETURN_IF_ERROR(PutStore(first, last));
  }
  return {};
}

// Has number `first` belong to the file's store, whatever the database has in front of it.
Status Recovery::PutStore(std::int64_t first, std::int64_t last) {
  Store store{"", first};
  for (const Store& each : surroundings_->stores) {
    if (each.first_record <= first) store.id = each.id;
  }
  if (store.id.empty() && first > saved_.lowest()) return {};
  if (store.id.empty()) RETURN_IF_ERROR(MakeStoreId(&store.id));
  std::string present;
  Statement find;
  RETURN_IF_ERROR(database()->Prepare(
      "SELECT store_id FROM stores WHERE first_record <= ? ORDER BY first_record DESC LIMIT 1",
      &find));
  if (find.Bind(1, first).Step()) present = find.Text(0);
  RETURN_IF_ERROR(find.status());
  return present == store.id ? Status() : TakeStores(database(), {store}, last);
}

Status Recovery::NoteMissingNumbers(std::int64_t last, NumberSet held) {
  RETURN_IF_ERROR(TakeBack(database(), noted_, saved_));
  for (const Missing& run : surroundings_->missing) {
    RETURN_IF_ERROR(NoteMissing(
        database(), held.Others(run.first_record, std::min(run.last_record, last)), run.reason));
  }
  // What lacks in the ranges of archives they tell themselves.
  for (const auto& [from, to] : archived_.runs()) held.Add(from, to);
  std::int64_t before = 0;
  std::int64_t after = 0;
  RETURN_IF_ERROR(CountUnreadable(database(), &before));
  RETURN_IF_ERROR(
      NoteMissing(database(), held.Others(FirstNumber(last), last), Absence::kUnreadable));
  RETURN_IF_ERROR(CountUnreadable(database(), &after));
  recovered_->unreadable = after - before;
  return {};
}

// Where the file's own numbers begin of which anything is to be told. When it no longer tells so,
// archives in front of its records are taken for its own.
std::int64_t Recovery::FirstNumber(std::int64_t last) const {
  const std::vector<Store>& stores = surroundings_->stores;
  const std::int64_t end = saved_.empty() ? last + 1 : saved_.lowest();
  if (!stores.empty()) return std::min(stores.front().first_record, end);
  std::int64_t first = 1;
  for (const Archive& archive : listed_) {
    if (archive.last_record < end) first = std::max(first, archive.last_record + 1);
  }
  return first;
}

Status Recovery::MakeArchives(const std::string& directory) {
  // None reaches over another, whose records would be passed over.
  for (const auto& [first, last] : archived_.Others(saved_.lowest(), saved_.highest())) {
    if (!saved_.Overlaps(first, last)) continue;
    for (std::int64_t after = first - 1; after < last;) {
      Archive archive;
      RETURN_IF_ERROR(MakeArchive(&maintenance_, directory, rescued_.get(), after, last, &archive));
      if (archive.records == 0) break;
      RETURN_IF_ERROR(FinishArchives(&maintenance_));
      after = archive.last_record;
      archive.state = ArchiveState::kComplete;
      recovered_->records += archive.records;
      recovered_->archives.push_back(std::move(archive));
    }
  }
  return {};
}

Status Recovery::Run(const std::string& directory) {
  RETURN_IF_ERROR(Maintenance::Open(database_path_, &maintenance_));
  RETURN_IF_ERROR(FinishArchives(&maintenance_));
  RETURN_IF_ERROR(ReadArchives(database(), ArchiveState::kComplete, &listed_));
  RETURN_IF_ERROR(ReadNoted(database_path_, &noted_));
  RETURN_IF_ERROR(Save());
  RETURN_IF_ERROR(ReadRanges());
  RETURN_IF_ERROR(NoteNumbers());
  RETURN_IF_ERROR(MakeArchives(directory));
  const bool is_new = recovered_->records > 0 || recovered_->unreadable > 0;
  return is_new || recovered_->left_out == 0 ? Status() : AlreadyThere();
}

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
    Pages pages;
    if (!is_aside || !Pages::Open(file, &pages).ok()) continue;
    largest = std::max(largest, LastNumberOf(file, Surroundings(pages)));
  }
  return largest;
}

bool HoldsRecords(const std::string& path) {
  constexpr std::int64_t kMostLookedAt = std::int64_t{64} * 1024 * 1024;
  Pages pages;
  if (!Pages::Open(path, &pages).ok()) return false;
  bool is_found = false;
  const auto look = [&](std::int64_t, std::span<const Column> columns) {
    RecordRow record;
    is_found = ReadRecord(columns, {}, &record) && records::FindEvent(record.event);
    return !is_found;
  };
  pages.ForEachRow(look, kMostLookedAt);
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
    if (status.ok()) status = Adopt(&maintenance, reader.get(), &archive);
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
  return Recovery(file, database_path, recovered).Run(directory);
}

}  // namespace velmora::usage_stat::store
