// usage-stat sql: queries over everything that was kept.

#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/rows.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/record.h"
#include "tools/records/views.h"
#include "tools/store/archive.h"
#include "tools/store/reader.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::inspector {

namespace {

using base::Status;
using records::Json;
using store::Archive;
using store::Query;
using store::Reader;
using store::RecordRow;

struct Options {
  std::string database;
  std::string query;
  std::string output;
};

// What the table is made from, for as long as the program runs.
struct Source {
  Reader* live = nullptr;
  std::string database;
  std::vector<std::string> problems;  // archives that could not be read
};

// ---- Records of the database and its archives as one table ----
//
// SQLite attaches ten files at most. The table instead reads one archive after another, oldest
// first, each unpacked into a nameless temporary file that is gone before the next is opened: a
// query takes the temporary space of one archive for each place where it names the table, however
// many there are.

enum Column { kId, kReceived, kPid, kUid, kEvent, kTimestamp, kFields, kRaw };
constexpr const char* kTable =
    "CREATE TABLE records(id INTEGER PRIMARY KEY, received_ms INTEGER, pid INTEGER, uid INTEGER, "
    "event INTEGER, timestamp_ms INTEGER, fields TEXT, raw BLOB)";

// Ids of events in this table: their places in the catalogue.
std::int64_t IdOfEvent(std::string_view event) {
  const records::RecordType* type = records::FindEvent(event);
  return type ? type - records::Catalogue().data() + 1 : 0;
}

struct Table : sqlite3_vtab {
  Source* source;
};

class Cursor : public sqlite3_vtab_cursor {
 public:
  explicit Cursor(Source* source) : sqlite3_vtab_cursor{}, source_(source) {}

  Status Begin(Query query) {
    query_ = std::move(query);
    rows_.clear();
    next_ = 0;
    archive_.reset();
    archived_ = INT64_MIN;
    live_ = query_.after_id.value_or(INT64_MIN);
    is_end_ = false;
    RETURN_IF_ERROR(OpenNext());
    return Next();
  }

  // Goes to the next row; is_end() after the last one.
  Status Next() {
    ++next_;
    while (next_ >= rows_.size() && !is_end_) {
      RETURN_IF_ERROR(ReadRows());
      next_ = 0;
    }
    return {};
  }

  bool is_end() const { return is_end_; }
  const RecordRow& row() const { return rows_[next_]; }

 private:
  // Opens the next archive that may hold a match which was not handed out yet.
  Status OpenNext() {
    archive_.reset();
    std::vector<Archive> archives;
    RETURN_IF_ERROR(source_->live->ReadArchives(&archives));
    for (const Archive& archive : archives) {
      if (archive.state != store::ArchiveState::kComplete || archive.last_record <= archived_) {
        continue;
      }
      archived_ = archive.last_record;
      if (archived_ <= live_ || !MayHoldMatch(archive, query_)) continue;
      const std::string path = store::LocateArchive(source_->database, archive);
      const Status status = Reader::Open(path, &archive_);
      if (!status.ok()) {
        source_->problems.push_back(status.message);
        continue;
      }
      position_ = live_;
      break;
    }
    return {};
  }

  // The next rows of the archive that is open, or of the database.
  Status ReadRows() {
    constexpr std::size_t kMost = 1000;
    rows_.clear();
    Query query = query_;
    query.after_id = archive_ ? position_ : live_;
    RETURN_IF_ERROR(
        (archive_ ? archive_.get() : source_->live)->ForEach(query, [this](const RecordRow& row) {
          rows_.push_back(row);
          return rows_.size() < kMost;
        }));
    const bool is_last = rows_.size() < kMost;
    if (archive_) {
      if (is_last) return OpenNext();
      position_ = rows_.back().id;
      return {};
    }
    // Rows may have moved to an archive meanwhile, those that were just read among them.
    RETURN_IF_ERROR(OpenNext());
    if (archive_) {
      rows_.clear();
    } else if (rows_.empty()) {
      is_end_ = true;
    } else {
      live_ = rows_.back().id;
    }
    return {};
  }

  Source* source_;
  Query query_;
  std::unique_ptr<Reader> archive_;    // that is being read
  std::int64_t position_ = INT64_MIN;  // the last row that was read of it
  std::int64_t archived_ = INT64_MIN;  // the last number of the archives so far
  std::int64_t live_ = INT64_MIN;      // the last row that was read of the database itself
  std::vector<RecordRow> rows_;
  std::size_t next_ = 0;
  bool is_end_ = true;
};

int Connect(sqlite3* database, void* source, int, const char* const*, sqlite3_vtab** table,
            char**) {
  auto* made = new Table{};
  made->source = static_cast<Source*>(source);
  *table = made;
  return sqlite3_declare_vtab(database, kTable);
}

int Disconnect(sqlite3_vtab* table) {
  delete static_cast<Table*>(table);
  return SQLITE_OK;
}

// Which conditions are handed to Filter: a letter for each, in the order of the arguments.
int BestIndex(sqlite3_vtab*, sqlite3_index_info* info) {
  std::string plan;
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& constraint = info->aConstraint[i];
    if (constraint.usable == 0) continue;
    const bool is_equal = constraint.op == SQLITE_INDEX_CONSTRAINT_EQ;
    const bool is_from =
        constraint.op == SQLITE_INDEX_CONSTRAINT_GE || constraint.op == SQLITE_INDEX_CONSTRAINT_GT;
    const bool is_to =
        constraint.op == SQLITE_INDEX_CONSTRAINT_LE || constraint.op == SQLITE_INDEX_CONSTRAINT_LT;
    char letter = 0;
    if (constraint.iColumn == kEvent && is_equal) letter = 'e';
    if (constraint.iColumn == kTimestamp) letter = is_from ? 's' : is_to ? 'u' : '\0';
    if (constraint.iColumn == kId || constraint.iColumn == -1) {
      letter = is_equal ? 'i' : is_from ? 'a' : is_to ? 'l' : '\0';
    }
    if (letter == 0) continue;
    plan += letter;
    info->aConstraintUsage[i].argvIndex = static_cast<int>(plan.size());
  }
  info->idxStr = sqlite3_mprintf("%s", plan.c_str());
  info->needToFreeIdxStr = 1;
  info->estimatedCost = plan.find('i') != std::string::npos ? 1e4 : plan.empty() ? 1e8 : 1e7;
  return SQLITE_OK;
}

int Open(sqlite3_vtab* table, sqlite3_vtab_cursor** cursor) {
  *cursor = new Cursor(static_cast<Table*>(table)->source);
  return SQLITE_OK;
}

int Close(sqlite3_vtab_cursor* cursor) {
  delete static_cast<Cursor*>(cursor);
  return SQLITE_OK;
}

int Told(sqlite3_vtab_cursor* cursor, const Status& status) {
  if (status.ok()) return SQLITE_OK;
  sqlite3_free(cursor->pVtab->zErrMsg);
  cursor->pVtab->zErrMsg = sqlite3_mprintf("%s", status.message.c_str());
  return SQLITE_ERROR;
}

// The conditions narrow what is read; SQLite itself checks them again.
int Filter(sqlite3_vtab_cursor* cursor, int, const char* plan, int count, sqlite3_value** values) {
  Query query;
  for (int i = 0; i < count; ++i) {
    if (sqlite3_value_numeric_type(values[i]) != SQLITE_INTEGER) continue;
    const std::int64_t value = sqlite3_value_int64(values[i]);
    const std::int64_t before = value > INT64_MIN ? value - 1 : value;
    const std::int64_t behind = value < INT64_MAX ? value + 1 : value;
    switch (plan[i]) {
      case 'e':
        if (value >= 1 && value <= static_cast<std::int64_t>(records::Catalogue().size())) {
          query.events = {
              std::string(records::Catalogue()[static_cast<std::size_t>(value - 1)].event)};
        } else {
          query.events = {""};
        }
        break;
      case 's':
        query.since_ms = value;
        break;
      case 'u':
        query.until_ms = behind;
        break;
      case 'i':
        query.after_id = before;
        query.last_id = value;
        break;
      case 'a':
        query.after_id = before;
        break;
      case 'l':
        query.last_id = value;
        break;
      default:
        break;
    }
  }
  return Told(cursor, static_cast<Cursor*>(cursor)->Begin(std::move(query)));
}

int Next(sqlite3_vtab_cursor* cursor) { return Told(cursor, static_cast<Cursor*>(cursor)->Next()); }

int IsEnd(sqlite3_vtab_cursor* cursor) { return static_cast<Cursor*>(cursor)->is_end() ? 1 : 0; }

void ResultText(sqlite3_context* context, const std::string& text) {
  sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

int ColumnOf(sqlite3_vtab_cursor* cursor, sqlite3_context* context, int column) {
  const RecordRow& row = static_cast<Cursor*>(cursor)->row();
  const std::array numbers = {row.id,         row.received_ms,      row.sender.pid,
                              row.sender.uid, IdOfEvent(row.event), row.timestamp_ms};
  if (column < kFields) {
    sqlite3_result_int64(context, numbers[static_cast<std::size_t>(column)]);
  } else if (column == kRaw) {
    sqlite3_result_blob64(context, row.raw.data(), row.raw.size(), SQLITE_TRANSIENT);
  } else if (row.fields.starts_with('[')) {
    ResultText(context, row.fields);
  } else if (const auto read = records::Read(row.raw)) {
    ResultText(context, records::Dump(read->type->values_of(*read->event)));
  }
  return SQLITE_OK;
}

int RowId(sqlite3_vtab_cursor* cursor, sqlite3_int64* id) {
  *id = static_cast<Cursor*>(cursor)->row().id;
  return SQLITE_OK;
}

sqlite3_module MakeModule() {
  sqlite3_module module{};
  module.xCreate = Connect;
  module.xConnect = Connect;
  module.xBestIndex = BestIndex;
  module.xDisconnect = Disconnect;
  module.xDestroy = Disconnect;
  module.xOpen = Open;
  module.xClose = Close;
  module.xFilter = Filter;
  module.xNext = Next;
  module.xEof = IsEnd;
  module.xColumn = ColumnOf;
  module.xRowid = RowId;
  return module;
}

// ---- The query ----

// Only what reads is allowed: the files that others write to are none of a query's business.
int Allow(void*, int action, const char*, const char* name, const char*, const char*) {
  const bool reads = action == SQLITE_SELECT || action == SQLITE_READ ||
                     action == SQLITE_RECURSIVE || action == SQLITE_FUNCTION;
  const bool loads =
      action == SQLITE_FUNCTION && name && std::string_view(name) == "load_extension";
  return reads && !loads ? SQLITE_OK : SQLITE_DENY;
}

// Hides the tables of the database behind those that have everything.
Status Prepare(store::Connection* connection, Source* source) {
  static const sqlite3_module kModule = MakeModule();
  if (sqlite3_create_module(connection->handle(), "everything", &kModule, source) != SQLITE_OK) {
    return Status::Failed("cannot make the table of all records");
  }
  std::string sql =
      "CREATE VIRTUAL TABLE temp.records USING everything;"
      "CREATE TEMP TABLE events(id INTEGER PRIMARY KEY, type INTEGER, name TEXT);";
  for (const records::RecordType& type : records::Catalogue()) {
    sql += fmt::format("INSERT INTO temp.events VALUES({}, {}, '{}');", IdOfEvent(type.event),
                       type.code, type.event);
  }
  const auto make_temporary = [&sql](std::string_view statement) {
    sql += fmt::format("CREATE TEMP{};", statement.substr(std::string_view("CREATE").size()));
  };
  make_temporary(records::ValueNames().create);
  sql += records::ValueNames().fill + ";";
  make_temporary(store::kInArchives);
  for (const records::View& view : records::Views()) make_temporary(view.sql);
  return connection->Execute(sql);
}

std::string Cell(sqlite3_stmt* row, int column) {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(row, column));
  const std::string value(bytes ? bytes : "",
                          static_cast<std::size_t>(sqlite3_column_bytes(row, column)));
  return sqlite3_column_type(row, column) == SQLITE_BLOB ? base::ToHex(value) : value;
}

Json ValueOf(sqlite3_stmt* row, int column) {
  switch (sqlite3_column_type(row, column)) {
    case SQLITE_INTEGER:
      return sqlite3_column_int64(row, column);
    case SQLITE_FLOAT:
      return sqlite3_column_double(row, column);
    case SQLITE_NULL:
      return nullptr;
    default:
      return Cell(row, column);
  }
}

void PrintRow(sqlite3_stmt* row, const std::string& output) {
  const int columns = sqlite3_column_count(row);
  if (output == "json") {
    Json json = Json::object();
    for (int i = 0; i < columns; ++i) json[sqlite3_column_name(row, i)] = ValueOf(row, i);
    Print("{}\n", records::SafeJson(json));
    return;
  }
  for (int i = 0; i < columns; ++i) {
    const std::string cell = Cell(row, i);
    if (output == "csv") {
      Print("{}{}", i > 0 ? "," : "", CsvCell(cell));
    } else {
      Print("{}{}", i > 0 ? "\t" : "", Printable(cell));
    }
  }
  Write(output == "csv" ? "\r\n" : "\n");
}

void PrintHead(sqlite3_stmt* statement, const std::string& output) {
  if (output == "json") return;
  for (int i = 0; i < sqlite3_column_count(statement); ++i) {
    const std::string name = sqlite3_column_name(statement, i);
    Print("{}{}",
          i == 0            ? ""
          : output == "csv" ? ","
                            : "\t",
          output == "csv" ? CsvCell(name) : Coloured(Colour::kBold, Printable(name)));
  }
  Write(output == "csv" ? "\r\n" : "\n");
}

int Run(const Options& options) {
  std::unique_ptr<store::History> history;
  Status status = store::History::Open(options.database, &history);
  // Queries have a connection of their own, which reads the tables beside the records.
  std::unique_ptr<Reader> live;
  if (status.ok()) status = Reader::Open(options.database, &live);
  if (!status.ok()) return Complain(kFailed, status.message);
  Source source{&history->live(), options.database, {}};
  store::Connection& connection = live->connection();
  if (status = Prepare(&connection, &source); !status.ok()) {
    return Complain(kFailed, status.message);
  }
  sqlite3_set_authorizer(connection.handle(), Allow, nullptr);

  sqlite3_stmt* statement = nullptr;
  const char* rest = nullptr;
  const int error =
      sqlite3_prepare_v2(connection.handle(), options.query.c_str(), -1, &statement, &rest);
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> owner(statement, sqlite3_finalize);
  if (error != SQLITE_OK) return Complain(kUsage, sqlite3_errmsg(connection.handle()));
  if (!statement ||
      std::string_view(rest).find_first_not_of(" \t\r\n;") != std::string_view::npos) {
    return Complain(kUsage, "one query is wanted, and nothing behind it");
  }
  PrintHead(statement, options.output);
  int result = SQLITE_ROW;
  while ((result = sqlite3_step(statement)) == SQLITE_ROW) PrintRow(statement, options.output);
  if (result != SQLITE_DONE) return Complain(kFailed, sqlite3_errmsg(connection.handle()));
  for (const std::string& problem : source.problems) Complain(kFailed, problem);
  return source.problems.empty() ? kOk : kFailed;
}

}  // namespace

void AddSql(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("sql", "Query all records, archived ones included, with SQL");
  command.Argument("QUERY", "One SELECT statement", &options->query, true);
  AddDatabaseOption(command, &options->database);
  AddOutputOption(command, &options->output, {"text", "csv", "json"});
  command.Footer(
      "Each event is a table, such as change_page, with the columns of usage-stat types; records\n"
      "has all of them as they were sent. Nothing is changed, whatever the query says.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
