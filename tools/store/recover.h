// What is left after damage: archives that no database lists, and databases that were set aside.

#ifndef TOOLS_STORE_RECOVER_H_
#define TOOLS_STORE_RECOVER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// The largest number that any file beside the database at `path`, or any archive in `directory`, is
// known to have given. A database that is begun anew goes on behind it: whatever these claim, it
// has numbers left.
std::int64_t LargestKnownNumber(const std::string& path, const std::string& directory);

// Whether the file at `path` has a record of ours on its pages, whatever its head says. Looks at
// its first 64 MiB and at its log.
bool HoldsRecords(const std::string& path);

// Lists the archives in `directory` that the database does not list, with the stores of what they
// hold. `adopted` tells which, `problems` what can't be read or holds numbers that another has.
Status AdoptArchives(const std::string& database_path, const std::string& directory,
                     std::vector<std::string>* adopted, std::vector<std::string>* problems);

struct Recovered {
  std::int64_t records = 0;  // that were saved now
  // Numbers that were noted now as those of records that could not be read; where nothing tells how
  // many were given, the most that it can be.
  std::int64_t unreadable = 0;
  // Records that were left out: their numbers are noted as deleted or erased, or an archive has
  // them already.
  std::int64_t left_out = 0;
  std::vector<Archive> archives;
};

// Saves the records of the damaged database `file` that still stand whole in their pages, whatever
// else of it is broken (see Pages). They become archives in `directory` under the file's own stores
// and numbers, which the database at `database_path` lists; so does what could not be read, as
// missing. The file stays as it is. What was interrupted is ended by the same call again. Fails
// when the database or its archives have other records among these numbers, or all of these
// already.
Status Recover(const std::string& file, const std::string& database_path,
               const std::string& directory, Recovered* recovered);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_RECOVER_H_
