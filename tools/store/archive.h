// Closed records in compressed files.
//
// An archive is a database like the one that its records came from, compressed with zstd: after
// `zstd -d` any SQL tool opens it.

#ifndef TOOLS_STORE_ARCHIVE_H_
#define TOOLS_STORE_ARCHIVE_H_

#include <cstdint>
#include <optional>
#include <string>

#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Moves all records that are committed when the call begins to one new file in `directory`, which
// is created if need be. Safe beside a running collector, and safe to be killed at any moment: the
// next call, or FinishArchives(), ends what was begun, so that every record is either in the
// database or in the archive once. Journals the archive. `archive` tells the file; without records
// it is empty and nothing happens.
Status ArchiveRecords(const std::string& database_path, const std::string& directory,
                      std::optional<Archive>* archive);

// Ends, or takes back, what a killed ArchiveRecords() left half done.
Status FinishArchives(const std::string& database_path);

// Where the file of `archive` is: its path, or, when the database was copied elsewhere together
// with its archives, its place in the archive folder of `database_path`.
std::string LocateArchive(const std::string& database_path, const Archive& archive);

// Unpacks the archive at `path` into the file at `unpacked_path`. Fails when it is damaged or
// larger than the space left.
Status UnpackArchive(const std::string& path, const std::string& unpacked_path);

// Whether `path` names an archive: by its ending, since a look into a database in use would disturb
// the locks of this process's connections to it.
bool IsArchive(const std::string& path);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_ARCHIVE_H_
