#include "fleet/ingest/database.h"

#include <libpq-fe.h>

#include "tools/base/bytes.h"
#include "tools/base/text.h"

namespace velmora::usage_stat::fleet {

using base::Status;

// ---- Rows ----

void Rows::Clear::operator()(pg_result* result) const { PQclear(result); }

int Rows::size() const { return PQntuples(result_.get()); }

bool Rows::IsNull(int row, int column) const { return PQgetisnull(result_.get(), row, column); }

std::string_view Rows::Text(int row, int column) const {
  return {PQgetvalue(result_.get(), row, column),
          static_cast<std::size_t>(PQgetlength(result_.get(), row, column))};
}

std::int64_t Rows::Int(int row, int column) const {
  return base::ParseWhole<std::int64_t>(Text(row, column)).value_or(0);
}

std::string Rows::Bytes(int row, int column) const {
  constexpr std::string_view kPrefix = "\\x";
  const std::string_view text = Text(row, column);
  return text.starts_with(kPrefix) ? base::FromHex(text.substr(2)).value_or("") : std::string();
}

// ---- Reading a COPY ----

namespace {

using OwnedResult = std::unique_ptr<PGresult, decltype(&PQclear)>;

// Takes the bytes of a COPY in binary form apart.
class BinaryCopy {
 public:
  explicit BinaryCopy(std::string_view bytes) : rest_(bytes) {}

  bool Skip(std::size_t size) {
    if (rest_.size() < size) return false;
    rest_.remove_prefix(size);
    return true;
  }
  template <class Int>
  bool Read(Int* number) {
    if (rest_.size() < sizeof(Int)) return false;
    *number = static_cast<Int>(base::BigEndian(rest_.substr(0, sizeof(Int))));
    return Skip(sizeof(Int));
  }
  bool Read(std::optional<std::string_view>* field) {
    std::int32_t size = 0;
    if (!Read(&size)) return false;
    field->reset();
    if (size < 0) return true;
    *field = rest_.substr(0, static_cast<std::size_t>(size));
    return Skip(static_cast<std::size_t>(size));
  }

 private:
  std::string_view rest_;
};

}  // namespace

std::optional<std::int64_t> CopiedRow::Number(std::size_t column) const {
  const auto& field = fields_[column];
  if (!field) return std::nullopt;
  const std::uint64_t value = base::BigEndian(*field);
  switch (field->size()) {
    case 2:
      return static_cast<std::int16_t>(value);
    case 4:
      return static_cast<std::int32_t>(value);
    default:
      return static_cast<std::int64_t>(value);
  }
}

Status Database::Read(const std::string& sql, std::size_t columns,
                      const std::function<void(const CopiedRow&)>& take) {
  constexpr std::size_t kHeaderSize = 19;  // a mark, flags, and no extension
  const std::string copy = "COPY (" + sql + ") TO STDOUT (FORMAT binary)";
  {
    const OwnedResult begun(PQexec(connection_.get(), copy.c_str()), PQclear);
    if (PQresultStatus(begun.get()) != PGRES_COPY_OUT) return Failure();
  }
  CopiedRow row;
  row.fields_.resize(columns);
  bool first = true;
  bool sound = true;
  int size = 0;
  char* bytes = nullptr;
  // Each piece is one row, the first one with the header before it.
  while ((size = PQgetCopyData(connection_.get(), &bytes, 0)) > 0) {
    const std::unique_ptr<char, decltype(&PQfreemem)> piece(bytes, PQfreemem);
    BinaryCopy reader({bytes, static_cast<std::size_t>(size)});
    if (first) sound = sound && reader.Skip(kHeaderSize);
    first = false;
    std::int16_t fields = 0;
    sound = sound && reader.Read(&fields);
    if (!sound || fields < 0) continue;  // the end
    sound = static_cast<std::size_t>(fields) == columns;
    for (auto& field : row.fields_) sound = sound && reader.Read(&field);
    if (sound) take(row);
  }
  // Reads what the server says in the end: rows that came before a failure are not all.
  Status status = size == -2 ? Failure() : Status();
  while (PGresult* end = PQgetResult(connection_.get())) {
    if (PQresultStatus(end) != PGRES_COMMAND_OK && status.ok()) status = Failure();
    PQclear(end);
  }
  if (status.ok() && !sound) status = Status::Failed("database: its rows cannot be read");
  return status;
}

Status Database::Ask(const std::string& sql, nlohmann::json* rows) {
  Rows answer;
  const std::string as_json = "SELECT coalesce(json_agg(row_), '[]') FROM (" + sql + ") AS row_";
  RETURN_IF_ERROR(Run(as_json.c_str(), {}, &answer));
  *rows = nlohmann::json::parse(answer.Text(0, 0), nullptr, false);
  return rows->is_array() ? Status() : Status::Failed("database: its answer cannot be read");
}

// ---- COPY ----

CopyRows::CopyRows() {
  constexpr std::string_view kSignature("PGCOPY\n\xff\r\n\0", 11);
  bytes_ = kSignature;
  Put(0, 4);  // no flags
  Put(0, 4);  // no extension of the header
}

void CopyRows::Put(std::uint64_t value, std::size_t size) {
  base::PutBigEndian(value, size, &bytes_);
}

void CopyRows::Begin(int columns) {
  Put(static_cast<std::uint64_t>(columns), 2);
  ++rows_;
}

void CopyRows::Int16(std::int64_t value) {
  Put(2, 4);
  Put(static_cast<std::uint64_t>(value), 2);
}
void CopyRows::Int32(std::int64_t value) {
  Put(4, 4);
  Put(static_cast<std::uint64_t>(value), 4);
}
void CopyRows::Int64(std::int64_t value) {
  Put(8, 4);
  Put(static_cast<std::uint64_t>(value), 8);
}
void CopyRows::Bytes(std::string_view value) {
  Put(value.size(), 4);
  bytes_ += value;
}
void CopyRows::Null() { Put(0xffffffff, 4); }

// ---- The connection ----

void Database::Finish::operator()(pg_conn* connection) const { PQfinish(connection); }

Status Database::Failure() const {
  std::string message = PQerrorMessage(connection_.get());
  while (!message.empty() && message.back() == '\n') message.pop_back();
  for (char& character : message) {
    if (character == '\n') character = ' ';
  }
  return Status::Failed("database: " + message);
}

Status Database::Open(const std::string& conninfo, Database* database) {
  database->connection_.reset(PQconnectdb(conninfo.c_str()));
  if (!database->is_connected()) return database->Failure();
  PQsetNoticeProcessor(
      database->connection_.get(), [](void*, const char*) {}, nullptr);
  // A receipt tells a device that its records are safe: where commits are not waited for by
  // default, a crash of the server would take what was answered already.
  return database->Execute(
      "SET client_encoding = 'UTF8'; SET timezone = 'UTC'; SET jit = off;"
      "SELECT set_config('synchronous_commit', 'on', false) "
      "WHERE current_setting('synchronous_commit') = 'off'");
}

bool Database::is_connected() const {
  return connection_ && PQstatus(connection_.get()) == CONNECTION_OK;
}

Status Database::Check(pg_result* result, Rows* rows) {
  Rows taken;
  taken.result_.reset(result);
  const ExecStatusType status = PQresultStatus(result);
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_COPY_IN) {
    return Failure();
  }
  if (rows) *rows = std::move(taken);
  return {};
}

Status Database::Execute(const std::string& sql, Rows* rows) {
  return Check(PQexec(connection_.get(), sql.c_str()), rows);
}

Status Database::Run(const char* sql, const std::vector<Parameter>& parameters, Rows* rows) {
  std::vector<const char*> values;
  values.reserve(parameters.size());
  for (const Parameter& parameter : parameters) {
    values.push_back(parameter ? parameter->c_str() : nullptr);
  }
  return Check(PQexecParams(connection_.get(), sql, static_cast<int>(values.size()), nullptr,
                            values.data(), nullptr, nullptr, 0),
               rows);
}

Status Database::Copy(const std::string& target, const CopyRows& rows) {
  if (rows.empty()) return {};
  const std::string sql = "COPY " + target + " FROM STDIN (FORMAT binary)";
  RETURN_IF_ERROR(Check(PQexec(connection_.get(), sql.c_str()), nullptr));
  constexpr std::string_view kEnd = "\xff\xff";
  const auto put = [this](std::string_view bytes) {
    constexpr std::size_t kChunk = std::size_t{1} << 20;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(kChunk, bytes.size()))) {
      const std::size_t size = std::min(kChunk, bytes.size());
      if (PQputCopyData(connection_.get(), bytes.data(), static_cast<int>(size)) != 1) return false;
    }
    return true;
  };
  if (!put(rows.bytes_) || !put(kEnd) || PQputCopyEnd(connection_.get(), nullptr) != 1) {
    return Failure();
  }
  Status status;
  while (pg_result* result = PQgetResult(connection_.get())) {
    if (Status each = Check(result, nullptr); status.ok()) status = std::move(each);
  }
  return status;
}

Transaction::~Transaction() {
  if (is_open_) (void)database_->Execute("ROLLBACK");
}

Status Transaction::Begin(const std::string& sql, Rows* rows) {
  is_open_ = true;
  return database_->Execute("BEGIN;" + sql, rows);
}

Status Transaction::Commit(const std::string& sql) {
  RETURN_IF_ERROR(database_->Execute(sql + "COMMIT"));
  is_open_ = false;
  return {};
}

std::string ArrayOf(const std::vector<std::string>& values) {
  std::string text = "{";
  for (const std::string& value : values) {
    if (text.size() > 1) text += ',';
    text += '"' + value + '"';
  }
  return text + '}';
}

std::string ByteaOf(std::string_view bytes) { return "\\x" + base::ToHex(bytes); }

}  // namespace velmora::usage_stat::fleet
