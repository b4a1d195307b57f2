// What making archives, deleting old records and upgrading have in common.

#ifndef TOOLS_STORE_MAINTENANCE_H_
#define TOOLS_STORE_MAINTENANCE_H_

#include <string>

#include "tools/store/file.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// The database, for one process at a time that moves or deletes rows.
struct Maintenance {
  std::string path;
  Descriptor lock;  // on the folder, so that no file has to be made for it
  Connection connection;

  // Does not wait: SQLITE_BUSY when another process is at it.
  static Status Open(const std::string& database_path, Maintenance* maintenance);

  // Gives the space of rows that were removed back to the file system, as far as other connections
  // let it just now.
  void GiveBackSpace();
};

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_MAINTENANCE_H_
