// What making archives and deleting old records have in common.

#ifndef TOOLS_STORE_KEEPER_H_
#define TOOLS_STORE_KEEPER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/store/file.h"
#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// The database, for one process at a time that moves or deletes rows.
struct Keeper {
  Descriptor lock;  // on the folder, so that no file has to be made for it
  Connection connection;
  std::int64_t run = 0;      // that what is done counts for
  bool has_removed = false;  // rows
};

// Does not wait: SQLITE_BUSY when another process is at it.
Status OpenKeeper(const std::string& database_path, Keeper* keeper);

// Counts rows that were taken out of the database.
Status CountRemoved(Keeper* keeper, const char* outcome, const std::string& reason,
                    std::int64_t rows);

// Gives the space of rows that were removed back to the file system, as far as other connections
// let it just now.
void GiveBackSpace(Connection* connection);

Status SetState(Connection* connection, std::int64_t archive, const char* state);

// The archives in `state`, oldest first.
Status ReadArchives(Connection* connection, std::string_view state, std::vector<Archive>* archives);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_KEEPER_H_
