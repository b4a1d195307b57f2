// Closed records in compressed files.
//
// An archive is a database like the one that its records came from, compressed with zstd: after
// `zstd -d` any SQL tool opens it.

#ifndef TOOLS_STORE_ARCHIVE_H_
#define TOOLS_STORE_ARCHIVE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tools/store/maintenance.h"
#include "tools/store/numbers.h"
#include "tools/store/reader.h"
#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Moves all records that are committed when the call begins to new files in `directory`, which is
// created if need be; `archives` tells them. Safe beside a running collector, and safe to be killed
// at any moment: the next call, or FinishArchives(), ends what was begun, so that every record is
// either in the database or in an archive once. Notes each archive as a record of its own.
Status ArchiveRecords(const std::string& database_path, const std::string& directory,
                      std::vector<Archive>* archives);

// Ends, or takes back, what a killed ArchiveRecords() left half done.
Status FinishArchives(const std::string& database_path);
Status FinishArchives(Maintenance* maintenance);

// Makes one archive file of the records of `source` after number `after`, as many as fit, and those
// up to `last` at most; the tables beside the records come from `maintenance`'s database. It is
// noted as begun. `archive` tells what it holds: nothing when there are no such records, and then
// no file is made.
Status MakeArchive(Maintenance* maintenance, const std::string& directory, Reader* source,
                   std::int64_t after, std::int64_t last, Archive* archive);

// Makes a file of what is left of `archive`, whose records `source` reads, without the numbers of
// `gone`; some are left. `archive` then tells what the file holds, and `temporary` its name, from
// which it is to be moved to the archive's place.
Status MakeRest(Maintenance* maintenance, Reader* source, const NumberSet& gone, Archive* archive,
                std::string* temporary);

// Where the file of `archive` is: its path, or, when the database was copied elsewhere together
// with its archives, its place in the archive folder of `database_path`.
std::string LocateArchive(const std::string& database_path, const Archive& archive);

// Whether the file at `path` can be an archive of this database: a regular file, named as archives
// are, or in the folder that is theirs, or a database before an upgrade. What a database says of
// its archives may have been put there to have other files deleted.
bool MayBeArchive(const std::string& database_path, const std::string& path);

// Deletes the file of an archive; one that is not there is no failure.
Status DeleteFile(const std::string& database_path, const Archive& archive);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_ARCHIVE_H_
