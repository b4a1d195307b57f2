#include "tools/store/schema.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/base/text.h"
#include "tools/records/views.h"
#include "tools/store/file.h"
#include "tools/store/pages.h"
#include "tools/store/recover.h"

namespace velmora::usage_stat::store {

namespace {

// A table or a view.
struct Definition {
  std::string_view name;
  bool is_view;
  // As SQLite keeps it. Nothing of it can be changed without a new version of the schema: see
  // CheckDefinitions().
  std::string_view sql;
};
// A commit writes whole pages, and most commits hold one record: so a record touches one small page
// and has no index; the counts of the newest records are derived from them (see AddUp()); and the
// event's name stands once.
constexpr Definition kDefinitions[] = {
    {"events", false, R"sql(CREATE TABLE events(
  id INTEGER PRIMARY KEY,
  type INTEGER NOT NULL,
  name TEXT NOT NULL UNIQUE))sql"},
    {"records", false, R"sql(CREATE TABLE records(
  id INTEGER PRIMARY KEY,
  received_ms INTEGER NOT NULL,
  pid INTEGER NOT NULL,
  uid INTEGER NOT NULL,
  event INTEGER NOT NULL,
  timestamp_ms INTEGER NOT NULL,
  fields TEXT NOT NULL,
  raw BLOB NOT NULL))sql"},
    {"quarantine", false, R"sql(CREATE TABLE quarantine(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  run INTEGER NOT NULL,
  received_ms INTEGER NOT NULL,
  pid INTEGER NOT NULL,
  uid INTEGER NOT NULL,
  kind TEXT NOT NULL,
  reason TEXT NOT NULL,
  type INTEGER,
  size INTEGER NOT NULL,
  raw BLOB NOT NULL))sql"},
    {"runs", false, R"sql(CREATE TABLE runs(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  pid INTEGER NOT NULL,
  endpoint TEXT NOT NULL,
  boot TEXT NOT NULL,
  boot_offset_ms INTEGER NOT NULL,
  started_ms INTEGER NOT NULL,
  ended_ms INTEGER,
  first_record INTEGER NOT NULL,
  counted_record INTEGER NOT NULL))sql"},
    {"tally", false, R"sql(CREATE TABLE tally(
  run INTEGER NOT NULL,
  uid INTEGER NOT NULL,
  outcome TEXT NOT NULL,
  reason TEXT NOT NULL,
  count INTEGER NOT NULL,
  last_ms INTEGER NOT NULL,
  PRIMARY KEY(run, uid, outcome, reason)) WITHOUT ROWID)sql"},
    {"archives", false, R"sql(CREATE TABLE archives(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  path TEXT NOT NULL,
  state TEXT NOT NULL,
  schema INTEGER NOT NULL,
  created_ms INTEGER NOT NULL,
  first_record INTEGER NOT NULL,
  last_record INTEGER NOT NULL,
  records INTEGER NOT NULL,
  first_timestamp_ms INTEGER NOT NULL,
  last_timestamp_ms INTEGER NOT NULL,
  bytes INTEGER NOT NULL))sql"},
    {"stores", false, R"sql(CREATE TABLE stores(
  first_record INTEGER PRIMARY KEY,
  store_id BLOB NOT NULL))sql"},
    {"missing", false, R"sql(CREATE TABLE missing(
  first_record INTEGER PRIMARY KEY,
  last_record INTEGER NOT NULL,
  reason TEXT NOT NULL))sql"},
    {"clock_steps", false, R"sql(CREATE TABLE clock_steps(
  record INTEGER NOT NULL,
  wall_ms INTEGER NOT NULL,
  step_ms INTEGER NOT NULL))sql"},
    {"newest_counts", true, R"sql(CREATE VIEW newest_counts AS
  SELECT runs.id AS run, uid, count(*) AS count, max(received_ms) AS last_ms
  FROM runs CROSS JOIN records ON records.id > counted_record
  WHERE runs.id = (SELECT max(id) FROM runs) GROUP BY uid)sql"},
    {"outcomes", true, R"sql(CREATE VIEW outcomes AS
  SELECT run, uid, outcome, reason, sum(count) AS count, max(last_ms) AS last_ms
  FROM (SELECT run, uid, outcome, reason, count, last_ms FROM tally
        UNION ALL SELECT run, uid, 'stored', '', count, last_ms FROM newest_counts)
  GROUP BY run, uid, outcome, reason)sql"},
    {"run_counts", true, R"sql(CREATE VIEW run_counts AS
  SELECT runs.id AS run, coalesce(max(started_ms, max(last_ms)), started_ms) AS last_commit_ms,
    coalesce(sum(count) FILTER (
      WHERE outcome IN ('stored', 'quarantined', 'refused', 'off')), 0) AS received
  FROM runs LEFT JOIN outcomes ON run = runs.id GROUP BY runs.id)sql"},
    {"record_list", true, R"sql(CREATE VIEW record_list AS
  SELECT records.id, received_ms, pid, uid, events.type, events.name AS event, timestamp_ms,
    fields, raw
  FROM records CROSS JOIN events ON events.id = records.event)sql"},
};

// ---- What SQL tools read ----

// Has the views and the names of values be those of this program's dictionary, whatever program
// wrote the file before: so a dictionary that grows needs no new version of the schema. What others
// have put under these names stays.
Status RenewViews(Connection* connection) {
  static const std::vector<records::View> wanted = [] {
    std::vector<records::View> views = records::Views();
    views.insert(views.begin(), {"in_archives", kInArchives});
    for (const Definition& each : kDefinitions) {
      if (each.is_view) views.push_back({std::string(each.name), std::string(each.sql)});
    }
    return views;
  }();
  const records::NameTable& names = records::ValueNames();
  std::map<std::string, std::string, std::less<>> found;  // the texts of views; no other's
  Statement select;
  RETURN_IF_ERROR(connection->Prepare(
      "SELECT name, CASE type WHEN 'view' THEN sql ELSE '' END FROM sqlite_schema", &select));
  while (select.Step()) found.emplace(select.Text(0), select.Text(1));
  RETURN_IF_ERROR(select.status());
  select = Statement();

  std::string changes;
  std::string text;
  const bool has_names = found.contains("value_names");
  if (has_names) RETURN_IF_ERROR(connection->Read(names.read, &text));
  if (!has_names) changes += names.create + ";";
  if (text != names.text) changes += "DELETE FROM value_names;" + names.fill + ";";
  for (const records::View& view : wanted) {
    const auto kept = found.find(view.name);
    if (kept != found.end() && (kept->second.empty() || kept->second == view.sql)) continue;
    if (kept != found.end()) changes += "DROP VIEW " + view.name + ";";
    changes += view.sql + ";";
  }
  if (changes.empty()) return {};
  Transaction transaction(connection);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(connection->Execute(changes));
  return transaction.Commit();
}

// How a file's tables and views are defined, beside kDefinitions.
struct Definitions {
  std::size_t ours = 0;     // to the letter
  std::string other_table;  // the name of one that is something else
  std::string other_view;
};

Status ReadDefinitions(Connection* connection, Definitions* found) {
  Statement select;
  RETURN_IF_ERROR(connection->Prepare(
      "SELECT lower(name), type, sql FROM sqlite_schema WHERE type IN ('table', 'view')", &select));
  while (select.Step()) {
    const auto* ours = std::ranges::find(kDefinitions, select.Text(0), &Definition::name);
    if (ours == std::end(kDefinitions)) continue;
    if (select.Text(2) == ours->sql) {
      ++found->ours;
    } else if (ours->is_view) {
      found->other_view = ours->name;
    } else if (select.Text(1) != "table") {
      found->other_table = ours->name;
    }
  }
  return select.status();
}

// What a stranger's file has in the place of our tables and views could run for ever. So the text
// of a view can't be changed without a new version of the schema.
Status CheckDefinitions(const std::string& path, Connection::Mode mode, Connection* connection) {
  Definitions found;
  Status status = ReadDefinitions(connection, &found);
  if (mode == Connection::Mode::kRescue) {
    // Damage may have hit them.
    status = {};
    found.other_view.clear();
  }
  const std::string other = found.other_table + found.other_view;
  if (!status.ok() || other.empty()) return status;
  return Status::Failed(path + " is not sound: what it calls " + other + " is something else");
}

// What SQLite's header says about a file, before SQLite is asked to use it: it could already change
// somebody else's database.
enum class Kind { kMissing, kEmpty, kNoDatabase, kForeign, kOtherVersion, kOurs };

struct Finding {
  Kind kind = Kind::kMissing;
  std::uint32_t version = 0;
};

// Looks at the file that `connection` has opened, through the connection: closing a descriptor of
// one's own would release the locks that SQLite holds for other connections of the process.
Status Inspect(const Connection& connection, Finding* finding) {
  std::string head;
  RETURN_IF_ERROR(connection.ReadHead(&head));
  const DatabaseHead said = ReadHead(head);
  finding->version = said.version;
  if (head.empty()) {
    finding->kind = Kind::kEmpty;
  } else if (!said.is_ours) {
    finding->kind = said.page_size == 0 ? Kind::kNoDatabase : Kind::kForeign;
  } else {
    finding->kind = said.version == kSchemaVersion ? Kind::kOurs : Kind::kOtherVersion;
  }
  return {};
}

// Opens the file at `path`, if there is one, and looks what it is.
Status Open(const std::string& path, Connection::Mode mode, Connection* connection,
            Finding* finding) {
  *finding = {};
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return errno == ENOENT ? Status() : Status::Errno("cannot open " + path);
  }
  // Opening a FIFO would wait for its other end.
  if (!S_ISREG(status.st_mode)) return Status::Failed(path + " is not a file");
  RETURN_IF_ERROR(Connection::Open(path, mode, connection));
  Status inspected = Inspect(*connection, finding);
  if (!inspected.ok()) inspected.message = "cannot open " + path + ": " + inspected.message;
  return inspected;
}

// Why a file is not opened; success for a database of ours.
Status Judge(const std::string& path, const Finding& finding) {
  switch (finding.kind) {
    case Kind::kMissing:
      return Status::Failed("there is no database " + path);
    case Kind::kEmpty:
      return Status::Failed(path + " is empty");
    case Kind::kNoDatabase:
    case Kind::kForeign:
      return Status::Failed(path + " is not a database of usage-stat; it was left as it is");
    case Kind::kOtherVersion:
      return Status::Failed(path + " has schema version " + std::to_string(finding.version) +
                            ", this program knows version " + std::to_string(kSchemaVersion) +
                            "; it was left as it is");
    case Kind::kOurs:
      break;
  }
  return {};
}

// Makes the database, unless another process has made it meanwhile.
Status Create(const std::string& path) {
  const std::string folder = FolderOf(path);
  if (mkdir(folder.c_str(), kFolderMode) != 0 && errno != EEXIST) {
    return Status::Errno("cannot create the folder " + folder);
  }
  const std::string target = TargetOf(path);
  NewFile file;
  RETURN_IF_ERROR(file.Begin(target));
  struct stat present {};
  if (stat(target.c_str(), &present) == 0 && present.st_size > 0) return {};
  ClearLog(target);
  {
    Connection connection;
    RETURN_IF_ERROR(Connection::Open(file.name(), Connection::Mode::kWrite, &connection));
    RETURN_IF_ERROR(InitializeSchema(&connection));
    // From the start, so that no moment's journal keeps those out who may only read.
    RETURN_IF_ERROR(connection.Execute("PRAGMA journal_mode = WAL"));
  }
  return file.Place();
}

// Has a database of ours be as this program wants it.
Status MakeReady(Connection* connection) {
  // Nothing that is collected depends on them: a disk that is full now keeps what it has.
  (void)RenewViews(connection);
  Definitions found;
  RETURN_IF_ERROR(ReadDefinitions(connection, &found));
  if (!found.other_table.empty()) {
    return {SQLITE_CORRUPT, "what it calls " + found.other_table + " is no table"};
  }
  // A commit reaches the file's log at once and the disk at the next checkpoint: a killed process
  // loses nothing, a power cut at most the last moments, and flash memory is written to in bulk.
  RETURN_IF_ERROR(connection->Execute(
      "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA secure_delete = ON; "
      "PRAGMA journal_size_limit = "
      "4194304"));
  // The log and its index stay where they are when the last writer goes: who may only read could
  // not make them.
  int is_kept = 1;
  (void)sqlite3_file_control(connection->handle(), nullptr, SQLITE_FCNTL_PERSIST_WAL, &is_kept);
  return {};
}

}  // namespace

Status CheckPages(Connection* connection) {
  std::string verdict;
  RETURN_IF_ERROR(connection->Read("PRAGMA quick_check(1)", &verdict));
  // It may tell more than one line: the last says what is wrong where.
  return verdict == "ok" ? Status()
                         : Status{SQLITE_CORRUPT, verdict.substr(verdict.rfind('\n') + 1)};
}

bool MayHideDamage(const Status& status) {
  const int code = status.code & 0xff;
  return code == SQLITE_FULL || code == SQLITE_IOERR;
}

Status CauseOf(Connection* connection, const Status& status) {
  const int code = status.code & 0xff;
  if (code == SQLITE_CONSTRAINT) {
    if (Status found = CheckPages(connection); IsDamage(found)) return found;
  }
  if (code == SQLITE_ERROR) {
    Definitions found;
    if (ReadDefinitions(connection, &found).ok() && found.ours < std::size(kDefinitions)) {
      return {SQLITE_CORRUPT, status.message};
    }
  }
  return status;
}

Status InitializeSchema(Connection* connection) {
  // The header's marks are written before the journal mode, while they still go to the file itself.
  std::string sql = "PRAGMA page_size = " + std::to_string(kPageSize) +
                    "; PRAGMA auto_vacuum = INCREMENTAL; PRAGMA application_id = " +
                    std::to_string(kApplicationId) +
                    "; PRAGMA user_version = " + std::to_string(kSchemaVersion) + "; BEGIN;";
  for (const Definition& each : kDefinitions) sql.append(each.sql).append(";");
  return connection->Execute(sql + "COMMIT");
}

std::string DefaultDatabasePath() {
  if (const char* path = std::getenv("USAGE_STAT_DATABASE"); path && *path) return path;
  if (const char* folder = std::getenv("STATE_DIRECTORY"); folder && *folder) {
    return std::string(folder) + "/records.db";
  }
  return "/var/lib/usage-stat/records.db";
}

std::string DefaultArchiveDirectory(const std::string& database_path) {
  return FolderOf(database_path) + "/archives";
}

Status OpenForWriting(const std::string& path, Connection* connection, bool* created) {
  Finding finding;
  RETURN_IF_ERROR(Open(path, Connection::Mode::kWrite, connection, &finding));
  const bool may_create = created;
  const bool is_new =
      may_create && (finding.kind == Kind::kMissing || finding.kind == Kind::kEmpty);
  if (is_new) {
    *connection = Connection();
    RETURN_IF_ERROR(Create(path));
    RETURN_IF_ERROR(Open(path, Connection::Mode::kWrite, connection, &finding));
  } else if (may_create) {
    NewFile::RemoveLeft(TargetOf(path));
  }
  if (created) *created = is_new;
  Status status = Judge(path, finding);
  // Somebody else's file stays as it is. Ours may have lost its head, and would be in the way for
  // ever.
  if (may_create && finding.kind == Kind::kNoDatabase && HoldsRecords(path)) {
    status = {SQLITE_NOTADB, "the head of the file is damaged"};
  }
  if (status.ok()) {
    status = MakeReady(connection);
    const bool is_named = status.ok() || IsDamage(status);
    if (!is_named) status.message = "cannot write " + path + ": " + status.message;
  }
  if (!status.ok()) *connection = Connection();
  return status;
}

Status CheckInUse(const std::string& path, const Connection& connection) {
  if (!connection.is_in_place()) {
    return {SQLITE_READONLY_DBMOVED, path + " was removed or replaced while in use"};
  }
  Finding finding;
  RETURN_IF_ERROR(Inspect(connection, &finding));
  if (finding.kind == Kind::kEmpty || finding.kind == Kind::kNoDatabase ||
      finding.kind == Kind::kForeign) {
    return {SQLITE_NOTADB, "it was overwritten while in use"};
  }
  return Judge(path, finding);
}

Status SetAside(const std::string& path, std::string* moved_path) {
  const std::string target = TargetOf(path);
  *moved_path = target + ".damaged-" + std::to_string(NowMs());
  return MoveWithLog(target, *moved_path);
}

void ClearLog(const std::string& target) {
  const std::string log = target + "-wal";
  const std::string beginning = std::filesystem::path(target).filename().string() + ".damaged-";
  std::int64_t latest_ms = 0;
  for (const std::string& path : FilesIn(FolderOf(target))) {
    const std::string name = std::filesystem::path(path).filename();
    if (!name.starts_with(beginning)) continue;
    const auto time_ms =
        base::ParseWhole<std::int64_t>(std::string_view(name).substr(beginning.size()));
    latest_ms = std::max(latest_ms, time_ms.value_or(0));
  }
  const std::string aside = target + ".damaged-" + std::to_string(latest_ms);
  struct stat status {};
  // What was written to later is another one's.
  const bool is_its =
      access((aside + "-wal").c_str(), F_OK) != 0 && stat(log.c_str(), &status) == 0 &&
      std::int64_t{status.st_mtim.tv_sec} * 1000 + status.st_mtim.tv_nsec / 1'000'000 <= latest_ms;
  if (is_its) (void)rename(log.c_str(), (aside + "-wal").c_str());
  unlink(log.c_str());
  unlink((target + "-shm").c_str());
}

Status MoveWithLog(const std::string& from, const std::string& to) {
  for (const char* suffix : {"", "-wal", "-shm"}) {
    const std::string name = from + suffix;
    if (rename(name.c_str(), (to + suffix).c_str()) == 0) continue;
    const bool may_be_gone = *suffix != '\0' || access(to.c_str(), F_OK) == 0;
    if (errno != ENOENT || !may_be_gone) return Status::Errno("cannot move " + name);
  }
  return {};
}

Status OpenForReading(const std::string& path, Connection* connection, int* schema,
                      Connection::Mode mode) {
  Finding finding;
  RETURN_IF_ERROR(Open(path, mode, connection, &finding));
  const bool is_of_first_schema = finding.kind == Kind::kOtherVersion && finding.version == 1;
  if (Status status = Judge(path, finding); !is_of_first_schema && !status.ok()) {
    *connection = Connection();
    return status;
  }
  if (schema) *schema = static_cast<int>(finding.version);
  Status status = connection->Execute("SELECT count(*) FROM sqlite_schema");
  // On a read-only medium SQLite can't make the files that it shares with writers. Then there are
  // no writers either; anywhere else there may be one that has just begun.
  struct statvfs medium {};
  const bool unshareable =
      (status.code & 0xff) == SQLITE_CANTOPEN || (status.code & 0xff) == SQLITE_READONLY;
  if (unshareable && statvfs(path.c_str(), &medium) == 0 && (medium.f_flag & ST_RDONLY) != 0) {
    status = Connection::Open(ImmutableUri(path), Connection::Mode::kRead, connection);
  }
  RETURN_IF_ERROR(status);
  return CheckDefinitions(path, mode, connection);
}

}  // namespace velmora::usage_stat::store
