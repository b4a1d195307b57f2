// Deleting records for good: from the database, its log, its archives, and what lies beside them.

#ifndef TOOLS_STORE_ERASE_H_
#define TOOLS_STORE_ERASE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tools/store/file.h"
#include "tools/store/reader.h"

namespace velmora::usage_stat::store {

struct Erased {
  std::int64_t records = 0;      // from the database and from archives
  std::int64_t quarantined = 0;  // datagrams that could not be read as records
  // Files that went whole, since nobody can look through them or they are no part of the database
  // any more: damaged databases that were set aside, archives that can't be read, and archives that
  // hold a match and can't be listed.
  std::vector<std::string> files;
  // Of files that were found damaged meanwhile and are kept, a line each.
  std::vector<std::string> damages;
};

// What Erase() would take, and nothing happens.
Status CountErasable(const std::string& database_path, const Query& query,
                     const std::string& directory, Erased* erased);

// Takes all records that match `query` out of the database at `database_path` and its archives; an
// empty query matches all. What is deleted is overwritten, and the log that may still hold it is
// emptied. Their numbers are noted as erased. Archives are those beside the database, those in
// `directory`, if that is not empty, and those in every folder where the database lists one; such
// as are not listed are taken up first, where their numbers let them.
//
// What can't be read as a record can't be looked through, so it goes as well: the quarantine, up to
// the query's `until_ms`, damaged databases and damaged archives. A query for one number, which is
// one record, leaves them alone. Copies that killed processes left go in any case.
//
// Safe beside a running collector and to be killed at any moment: then the same call again ends
// what was begun. Fails when a reader holds on to the log for ten seconds.
Status Erase(const std::string& database_path, const Query& query, const std::string& directory,
             Erased* erased);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_ERASE_H_
