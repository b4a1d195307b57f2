// The file that a collector keeps its records in: one SQLite database that any SQL tool opens.

#ifndef TOOLS_STORE_SCHEMA_H_
#define TOOLS_STORE_SCHEMA_H_

#include <cstdint>
#include <string>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Marks a database as ours, in the field of SQLite's header that is made for it ("USrd").
constexpr int kApplicationId = 0x55537264;
constexpr int kSchemaVersion = 2;
constexpr std::uint32_t kPageSize = 1024;

// How many records are in archives, where the views of this database do not see them.
constexpr const char* kInArchives =
    "CREATE VIEW in_archives AS SELECT\n  count(*) AS archives, coalesce(sum(records), 0) AS "
    "records,"
    "\n  min(first_record) AS first_record, max(last_record) AS last_record\n"
    "FROM archives WHERE state = 'complete'";

// The largest database that is put into one archive, in bytes: what its reader needs for a moment
// in the folder of temporary files, which on a device is often memory.
constexpr std::int64_t kLargestUnpacked = std::int64_t{16} * 1024 * 1024;

// Where the records are when nobody says otherwise: the environment variable USAGE_STAT_DATABASE,
// else records.db in $STATE_DIRECTORY, which systemd sets for a service, else
// /var/lib/usage-stat/records.db.
std::string DefaultDatabasePath();

// The folder that the archives of a database go to by default: `archives`, beside it.
std::string DefaultArchiveDirectory(const std::string& database_path);

// Opens the database at `path` for writing. When there is none, or the file is empty, it is
// created, readable for its owner and its group, and `created` tells so; for a null `created` it is
// refused. It gets the views of records::Views(), or the present ones in the place of older. A file
// that is not ours, or of a newer version than this one knows, is refused and left as it is, to the
// last byte; IsDamage() where it may be created, and records of ours tell that it only lost its
// head.
Status OpenForWriting(const std::string& path, Connection* connection, bool* created);

// Looks whether the database at `path`, to which `connection` writes, is still what it was: SQLite
// would go on writing to a file that nobody finds again. IsMoved() when the file was
// removed or replaced, and IsDamage() when its head was overwritten.
Status CheckInUse(const std::string& path, const Connection& connection);

// Looks at every page; IsDamage() tells what is wrong.
Status CheckPages(Connection* connection);

// Whether a failure of the disk may be one of the file: where a page tells of pages that no file
// has, SQLite says that the disk is full. CheckPages() tells.
bool MayHideDamage(const Status& status);

// Why writing to a database failed with `status`, which is returned when it is that. IsDamage()
// when rows are there that the tables don't allow, or the tables are other ones: then what comes
// in, which would be tried for ever, is not at fault.
Status CauseOf(Connection* connection, const Status& status);

// Moves a damaged database, with the files beside it, out of the way. `moved_path` tells where to:
// it still holds what can be rescued.
Status SetAside(const std::string& path, std::string* moved_path);

// Makes way for a new database at `target`, where there is none: the log that one left behind would
// be played into it. That of the one that was set aside last follows it, should it not have.
void ClearLog(const std::string& target);

// Moves a database's file and those beside it to another name. Safe to be killed at any moment: the
// same call goes on.
Status MoveWithLog(const std::string& from, const std::string& to);

// Gives the empty database of `connection` our tables and marks.
Status InitializeSchema(Connection* connection);

// Opens the database at `path` for reading. Refuses what OpenForWriting() refuses, and a missing
// file. Nothing is written except what SQLite itself needs beside a database that is in use.
// `schema`, which may be null, tells its version: this program's, or 1, which it can read as well.
Status OpenForReading(const std::string& path, Connection* connection, int* schema = nullptr,
                      Connection::Mode mode = Connection::Mode::kRead);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_SCHEMA_H_
