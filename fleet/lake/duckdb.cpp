#include "fleet/lake/duckdb.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <cstdlib>
#include <utility>

namespace velmora::usage_stat::fleet {

namespace {

using base::Status;

// ---- The library's C interface, as far as it is used here ----

constexpr int kSuccess = 0;

// A result; the library alone looks inside.
struct RawResult {
  std::uint64_t counts[3];
  void* pointers[3];
};

struct Library {
  int (*open)(const char* path, void** database);
  void (*close)(void** database);
  int (*connect)(void* database, void** connection);
  void (*disconnect)(void** connection);
  int (*query)(void* connection, const char* sql, RawResult* result);
  void (*destroy_result)(RawResult* result);
  const char* (*result_error)(RawResult* result);
  char* (*value_varchar)(RawResult* result, std::uint64_t column, std::uint64_t row);
  void (*free)(void* memory);
  int (*prepare)(void* connection, const char* sql, void** statement);
  const char* (*prepare_error)(void* statement);
  void (*destroy_prepare)(void** statement);
  int (*execute_prepared_streaming)(void* statement, RawResult* result);
  void* (*fetch_chunk)(RawResult result);
  void (*destroy_data_chunk)(void** chunk);
  std::uint64_t (*data_chunk_get_size)(void* chunk);
  void* (*data_chunk_get_vector)(void* chunk, std::uint64_t column);
  void* (*vector_get_data)(void* vector);
  int (*appender_create)(void* connection, const char* schema, const char* table, void** appender);
  int (*appender_close)(void* appender);
  const char* (*appender_error)(void* appender);
  int (*appender_destroy)(void** appender);
  int (*appender_end_row)(void* appender);
  int (*append_int64)(void* appender, std::int64_t number);
  int (*append_varchar_length)(void* appender, const char* text, std::uint64_t size);
  int (*append_null)(void* appender);
};

template <class Function>
bool Find(void* handle, const char* name, Function* function) {
  void* symbol = dlsym(handle, name);
  *function = reinterpret_cast<Function>(symbol);
  return symbol;
}

// Stays loaded as long as the process lives.
Status Load(Library* library) {
  const char* path = std::getenv("USAGE_STAT_DUCKDB");
  if (!path || !*path) path = USAGE_STAT_DUCKDB;
  void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    return Status::Failed(fmt::format(
        "cannot load DuckDB: {}; install it with scripts/setup lake, or let USAGE_STAT_DUCKDB name "
        "libduckdb.so",
        dlerror()));
  }
  const bool complete =
      Find(handle, "duckdb_open", &library->open) &&
      Find(handle, "duckdb_close", &library->close) &&
      Find(handle, "duckdb_connect", &library->connect) &&
      Find(handle, "duckdb_disconnect", &library->disconnect) &&
      Find(handle, "duckdb_query", &library->query) &&
      Find(handle, "duckdb_destroy_result", &library->destroy_result) &&
      Find(handle, "duckdb_result_error", &library->result_error) &&
      Find(handle, "duckdb_value_varchar", &library->value_varchar) &&
      Find(handle, "duckdb_free", &library->free) &&
      Find(handle, "duckdb_prepare", &library->prepare) &&
      Find(handle, "duckdb_prepare_error", &library->prepare_error) &&
      Find(handle, "duckdb_destroy_prepare", &library->destroy_prepare) &&
      Find(handle, "duckdb_execute_prepared_streaming", &library->execute_prepared_streaming) &&
      Find(handle, "duckdb_fetch_chunk", &library->fetch_chunk) &&
      Find(handle, "duckdb_destroy_data_chunk", &library->destroy_data_chunk) &&
      Find(handle, "duckdb_data_chunk_get_size", &library->data_chunk_get_size) &&
      Find(handle, "duckdb_data_chunk_get_vector", &library->data_chunk_get_vector) &&
      Find(handle, "duckdb_vector_get_data", &library->vector_get_data) &&
      Find(handle, "duckdb_appender_create", &library->appender_create) &&
      Find(handle, "duckdb_appender_close", &library->appender_close) &&
      Find(handle, "duckdb_appender_error", &library->appender_error) &&
      Find(handle, "duckdb_appender_destroy", &library->appender_destroy) &&
      Find(handle, "duckdb_appender_end_row", &library->appender_end_row) &&
      Find(handle, "duckdb_append_int64", &library->append_int64) &&
      Find(handle, "duckdb_append_varchar_length", &library->append_varchar_length) &&
      Find(handle, "duckdb_append_null", &library->append_null);
  return complete ? Status() : Status::Failed(fmt::format("{} is not the DuckDB known here", path));
}

Library lib;

Status Failure(RawResult* result) {
  const char* error = lib.result_error(result);
  return Status::Failed(fmt::format("DuckDB: {}", error ? error : "no reason given"));
}

}  // namespace

std::string Quoted(std::string_view text) {
  std::string literal = "'";
  for (const char c : text) {
    if (c == '\'') literal += '\'';
    literal += c;
  }
  return literal + "'";
}

Status DuckDb::Open(const std::string& folder, const std::string& memory,
                    std::unique_ptr<DuckDb>* database) {
  static const Status loaded = Load(&lib);
  if (!loaded.ok()) return loaded;
  std::unique_ptr<DuckDb> made(new DuckDb);
  if (lib.open(nullptr, &made->database_) != kSuccess ||
      lib.connect(made->database_, &made->connection_) != kSuccess) {
    return Status::Failed("DuckDB does not start");
  }
  // All that is used is built into the library.
  RETURN_IF_ERROR(
      made->Run("SET autoinstall_known_extensions = false; "
                "SET autoload_known_extensions = false; SET TimeZone = 'UTC'; "
                "SET memory_limit = " +
                Quoted(memory) + "; SET temp_directory = " + Quoted(folder)));
  *database = std::move(made);
  return {};
}

DuckDb::~DuckDb() {
  if (connection_) lib.disconnect(&connection_);
  if (database_) lib.close(&database_);
}

Status DuckDb::Run(const std::string& sql) {
  RawResult result{};
  Status status;
  if (lib.query(connection_, sql.c_str(), &result) != kSuccess) status = Failure(&result);
  lib.destroy_result(&result);
  return status;
}

Status DuckDb::Ask(const std::string& sql, nlohmann::json* rows) {
  RawResult result{};
  Status status;
  const std::string as_json =
      "SELECT coalesce(to_json(list(row_)), '[]')::VARCHAR FROM (" + sql + ") AS row_";
  if (lib.query(connection_, as_json.c_str(), &result) != kSuccess) {
    status = Failure(&result);
  } else {
    char* text = lib.value_varchar(&result, 0, 0);
    *rows = nlohmann::json::parse(text ? text : "", nullptr, false);
    if (!rows->is_array()) status = Status::Failed("DuckDB: the answer cannot be read");
    lib.free(text);
  }
  lib.destroy_result(&result);
  return status;
}

// ---- Streams ----

// On a connection of its own, which can read one result at a time.
struct DuckDb::Stream::Result {
  void* connection = nullptr;
  RawResult raw{};
  void* statement = nullptr;
  void* chunk = nullptr;

  ~Result() {
    if (chunk) lib.destroy_data_chunk(&chunk);
    lib.destroy_result(&raw);
    if (statement) lib.destroy_prepare(&statement);
    if (connection) lib.disconnect(&connection);
  }
};

DuckDb::Stream::Stream() = default;
DuckDb::Stream::~Stream() = default;
DuckDb::Stream::Stream(Stream&& other) noexcept = default;
DuckDb::Stream& DuckDb::Stream::operator=(Stream&& other) noexcept = default;

bool DuckDb::Stream::Next() {
  if (++row_ < size_) return true;
  do {
    if (!result_) return false;
    if (result_->chunk) lib.destroy_data_chunk(&result_->chunk);
    result_->chunk = lib.fetch_chunk(result_->raw);
    if (!result_->chunk) {
      result_.reset();
      return false;
    }
    size_ = lib.data_chunk_get_size(result_->chunk);
  } while (size_ == 0);
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    columns_[i] = static_cast<const std::int64_t*>(
        lib.vector_get_data(lib.data_chunk_get_vector(result_->chunk, i)));
  }
  row_ = 0;
  return true;
}

Status DuckDb::Read(const std::string& sql, std::size_t columns, Stream* stream) {
  Stream made;
  made.result_ = std::make_unique<Stream::Result>();
  made.columns_.resize(columns);
  Stream::Result* result = made.result_.get();
  if (lib.connect(database_, &result->connection) != kSuccess) {
    return Status::Failed("DuckDB: no connection");
  }
  if (lib.prepare(result->connection, sql.c_str(), &result->statement) != kSuccess) {
    return Status::Failed(fmt::format("DuckDB: {}", lib.prepare_error(result->statement)));
  }
  if (lib.execute_prepared_streaming(result->statement, &result->raw) != kSuccess) {
    return Failure(&result->raw);
  }
  *stream = std::move(made);
  return {};
}

// ---- Appenders ----

Status DuckDb::Append(const std::string& table, Appender* appender) {
  if (lib.appender_create(connection_, nullptr, table.c_str(), &appender->handle_) != kSuccess) {
    return Status::Failed("DuckDB: no table " + table);
  }
  return {};
}

DuckDb::Appender::~Appender() {
  if (handle_) lib.appender_destroy(&handle_);
}

void DuckDb::Appender::Add(std::int64_t number) {
  failed_ |= lib.append_int64(handle_, number) != kSuccess;
}

void DuckDb::Appender::Add(const std::optional<std::int64_t>& number) {
  if (number) return Add(*number);
  failed_ |= lib.append_null(handle_) != kSuccess;
}

void DuckDb::Appender::Add(std::string_view text) {
  failed_ |= lib.append_varchar_length(handle_, text.data(), text.size()) != kSuccess;
}

void DuckDb::Appender::EndRow() { failed_ |= lib.appender_end_row(handle_) != kSuccess; }

Status DuckDb::Appender::Close() {
  failed_ |= lib.appender_close(handle_) != kSuccess;
  if (!failed_) return {};
  const char* error = lib.appender_error(handle_);
  return Status::Failed(fmt::format("DuckDB: {}", error ? error : "a row was refused"));
}

}  // namespace velmora::usage_stat::fleet
