#include "tools/store/sqlite.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tools/store/pages.h"

namespace velmora::usage_stat::store {

namespace {

constexpr int kBusyWaitMs = 1000;

// The steps of SQLite's machine that a statement may take in a broken file, whose trees may lead to
// the same pages over and over: in a sound one a thousandth tells what it is asked.
constexpr int kMostRescueSteps = 20'000'000;

Status StatusOf(sqlite3* database, int result) {
  if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return {};
  const char* text = database ? sqlite3_errmsg(database) : sqlite3_errstr(result);
  return {database ? sqlite3_extended_errcode(database) : result, text};
}

int FlagsOf(Connection::Mode mode) {
  switch (mode) {
    case Connection::Mode::kRead:
    case Connection::Mode::kRescue:
      return SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
    case Connection::Mode::kWrite:
      return SQLITE_OPEN_READWRITE;
    case Connection::Mode::kCreate:
      return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  }
  return 0;
}

// Steps to the first row of a query that has one.
Status ReadRow(Connection* connection, std::string_view sql, Statement* statement) {
  RETURN_IF_ERROR(connection->Prepare(sql, statement));
  if (statement->Step()) return {};
  Status status = statement->status();
  return status.ok() ? Status::Failed("no row") : status;
}

}  // namespace

static_assert(Status::kFailed == SQLITE_ERROR);

bool IsDamage(const Status& status) {
  return (status.code & 0xff) == SQLITE_CORRUPT || (status.code & 0xff) == SQLITE_NOTADB;
}

bool IsMoved(const Status& status) { return status.code == SQLITE_READONLY_DBMOVED; }

void Statement::Finalize::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Statement& Statement::Bind(int index, std::int64_t value) {
  sqlite3_bind_int64(statement_.get(), index, value);
  return *this;
}

Statement& Statement::Bind(int index, std::string_view text) {
  sqlite3_bind_text64(statement_.get(), index, text.data(), text.size(), SQLITE_STATIC,
                      SQLITE_UTF8);
  return *this;
}

Statement& Statement::BindBlob(int index, std::string_view bytes) {
  // A null pointer would make a NULL of an empty blob.
  sqlite3_bind_blob64(statement_.get(), index, bytes.empty() ? "" : bytes.data(), bytes.size(),
                      SQLITE_STATIC);
  return *this;
}

Statement& Statement::BindNull(int index) {
  sqlite3_bind_null(statement_.get(), index);
  return *this;
}

bool Statement::Step() {
  result_ = sqlite3_step(statement_.get());
  return result_ == SQLITE_ROW;
}

Status Statement::Run() {
  while (Step()) {
  }
  Status status = this->status();
  Reset();
  return status;
}

void Statement::Reset() { sqlite3_reset(statement_.get()); }

Status Statement::status() const { return StatusOf(sqlite3_db_handle(statement_.get()), result_); }

bool Statement::IsNull(int column) const {
  return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::int64_t Statement::Int(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string_view Statement::Text(int column) const {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_.get(), column));
  return {bytes ? bytes : "",
          static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

void Connection::Close::operator()(sqlite3* database) const { sqlite3_close_v2(database); }

Status Connection::Open(const std::string& path, Mode mode, Connection* connection) {
  sqlite3* database = nullptr;
  // No lock around each column that is read: a connection has one thread at a time.
  const int flags = FlagsOf(mode) | SQLITE_OPEN_NOMUTEX;
  const int result = sqlite3_open_v2(path.c_str(), &database, flags, nullptr);
  connection->database_.reset(database);
  if (result != SQLITE_OK) {
    Status status = StatusOf(database, result);
    const int error = database ? sqlite3_system_errno(database) : 0;
    status.message = "cannot open " + path + ": " + (error ? strerror(error) : status.message);
    return status;
  }
  sqlite3_extended_result_codes(database, 1);
  sqlite3_busy_timeout(database, kBusyWaitMs);
  // A database may come from elsewhere: its schema must not run anything.
  const bool is_rescue = mode == Mode::kRescue;
  if (is_rescue) {
    sqlite3_progress_handler(
        database, kMostRescueSteps, [](void*) { return 1; }, nullptr);
  }
  sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, is_rescue ? 0 : 1, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_WRITABLE_SCHEMA, is_rescue ? 1 : 0, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  return {};
}

Status Connection::Execute(const std::string& sql) {
  return StatusOf(handle(), sqlite3_exec(handle(), sql.c_str(), nullptr, nullptr, nullptr));
}

Status Connection::Prepare(std::string_view sql, Statement* statement) {
  sqlite3_stmt* prepared = nullptr;
  const int result =
      sqlite3_prepare_v2(handle(), sql.data(), static_cast<int>(sql.size()), &prepared, nullptr);
  *statement = Statement(prepared);
  return StatusOf(handle(), result);
}

Status Connection::Read(std::string_view sql, std::int64_t* value) {
  Statement statement;
  Status status = ReadRow(this, sql, &statement);
  if (status.ok()) *value = statement.Int(0);
  return status;
}

Status Connection::Read(std::string_view sql, std::string* value) {
  Statement statement;
  Status status = ReadRow(this, sql, &statement);
  if (status.ok()) *value = statement.Text(0);
  return status;
}

bool Connection::is_in_place() const {
  int has_moved = 0;
  (void)sqlite3_file_control(handle(), nullptr, SQLITE_FCNTL_HAS_MOVED, &has_moved);
  return has_moved == 0;
}

Status Connection::ReadHead(std::string* head) const {
  sqlite3_file* file = nullptr;
  sqlite3_int64 size = 0;
  (void)sqlite3_file_control(handle(), nullptr, SQLITE_FCNTL_FILE_POINTER, &file);
  if (!file || !file->pMethods) return Status::Failed("no file");
  int result = file->pMethods->xFileSize(file, &size);
  head->assign(static_cast<std::size_t>(std::min<sqlite3_int64>(size, kHeadSize)), '\0');
  if (result == SQLITE_OK && size > 0) {
    result = file->pMethods->xRead(file, head->data(), static_cast<int>(head->size()), 0);
  }
  // It was cut off in between.
  if (result == SQLITE_IOERR_SHORT_READ) result = SQLITE_OK;
  return result == SQLITE_OK ? Status() : Status{result, sqlite3_errstr(result)};
}

std::int64_t Connection::LastId() const { return sqlite3_last_insert_rowid(handle()); }

std::int64_t Connection::Changes() const { return sqlite3_changes64(handle()); }

bool Connection::in_transaction() const { return sqlite3_get_autocommit(handle()) == 0; }

Transaction::~Transaction() {
  // Some failures have taken the transaction back already.
  if (connection_->in_transaction()) (void)connection_->Execute("ROLLBACK");
}

Status Transaction::Begin() { return connection_->Execute("BEGIN IMMEDIATE"); }

Status Transaction::Commit() { return connection_->Execute("COMMIT"); }

Durably::Durably(Connection* connection) : connection_(connection) {
  (void)connection_->Execute("PRAGMA synchronous = FULL");
}

Durably::~Durably() { (void)connection_->Execute("PRAGMA synchronous = NORMAL"); }

Snapshot::~Snapshot() {
  if (is_owner_ && connection_->in_transaction()) (void)connection_->Execute("ROLLBACK");
}

Status Snapshot::Begin() {
  if (connection_->in_transaction()) return {};
  is_owner_ = true;
  return connection_->Execute("BEGIN");
}

}  // namespace velmora::usage_stat::store
