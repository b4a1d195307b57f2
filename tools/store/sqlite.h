// SQLite with owners for its handles and results that can't be overlooked. No exceptions.

#ifndef TOOLS_STORE_SQLITE_H_
#define TOOLS_STORE_SQLITE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tools/base/status.h"

struct sqlite3;
struct sqlite3_stmt;

namespace velmora::usage_stat::store {

// What fails in here carries SQLite's extended result codes; SQLITE_ERROR, which is
// base::Status::kFailed, stands for failures that are not SQLite's.
using base::Status;

// Whether the file itself is broken. Other failures, such as a full disk or a locked database, may
// pass.
bool IsDamage(const Status& status);

// Whether the file that was opened is no longer at its path.
bool IsMoved(const Status& status);

// One prepared statement. Belongs to its connection and must not outlive it.
class Statement {
 public:
  Statement() = default;
  explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}

  // Parameters, counted from 1. Texts and blobs are not copied: they must live until Step() has
  // returned something else than a row, or until Reset().
  Statement& Bind(int index, std::int64_t value);
  Statement& Bind(int index, std::string_view text);
  Statement& BindBlob(int index, std::string_view bytes);
  Statement& BindNull(int index);

  // True when there is a row to read. False at the end, and on failure: status() tells which.
  bool Step();
  // Runs a statement from its start to its end and resets it.
  Status Run();
  void Reset();
  Status status() const;

  // Columns of the current row, counted from 0.
  bool IsNull(int column) const;
  std::int64_t Int(int column) const;
  std::string_view Text(int column) const;  // until the next Step(); bytes of a blob too

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  int result_ = 0;
};

// One connection to a database. For one thread at a time.
class Connection {
 public:
  // kRescue reads what it can of a file that is shorter than it says, and gives up where a broken
  // tree would never end.
  enum class Mode { kRead, kRescue, kWrite, kCreate };

  // A connection that waits a second for other writers before it gives up.
  static Status Open(const std::string& path, Mode mode, Connection* connection);

  // Runs one or more statements without parameters or rows.
  Status Execute(const std::string& sql);
  Status Prepare(std::string_view sql, Statement* statement);
  // The first column of the first row of a query.
  Status Read(std::string_view sql, std::int64_t* value);
  Status Read(std::string_view sql, std::string* value);

  // Whether the file that was opened is still at its path.
  bool is_in_place() const;

  // The first bytes of the file itself, as they are now: SQLite looks at nothing and changes
  // nothing. Fewer than a header when there are no more.
  Status ReadHead(std::string* head) const;

  std::int64_t LastId() const;
  std::int64_t Changes() const;  // rows that the last statement inserted, changed or deleted
  bool in_transaction() const;
  sqlite3* handle() const { return database_.get(); }

 private:
  struct Close {
    void operator()(sqlite3* database) const;
  };
  std::unique_ptr<sqlite3, Close> database_;
};

// A write transaction that is taken back unless it was committed.
class Transaction {
 public:
  explicit Transaction(Connection* connection) : connection_(connection) {}
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  Status Begin();
  Status Commit();

 private:
  Connection* connection_;
};

// What is committed while it lives is on the disk when the commit returns, whatever is read
// meanwhile. Not within a transaction.
class Durably {
 public:
  explicit Durably(Connection* connection);
  ~Durably();
  Durably(const Durably&) = delete;
  Durably& operator=(const Durably&) = delete;

 private:
  Connection* connection_;
};

// One state of the database for all that is read while it lives, or while a transaction around it
// does.
class Snapshot {
 public:
  explicit Snapshot(Connection* connection) : connection_(connection) {}
  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  Status Begin();

 private:
  Connection* connection_;
  bool is_owner_ = false;
};

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_SQLITE_H_
