#include "tools/store/maintenance.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>

#include "tools/store/schema.h"

namespace velmora::usage_stat::store {

Status Maintenance::Open(const std::string& database_path, Maintenance* maintenance) {
  maintenance->path = database_path;
  maintenance->lock =
      Descriptor(open(FolderOf(database_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!maintenance->lock.is_open()) {
    return Status::Errno("cannot open the folder of " + database_path);
  }
  if (flock(maintenance->lock.get(), LOCK_EX | LOCK_NB) != 0) {
    return {SQLITE_BUSY, "records of " + database_path + " are being archived or deleted already"};
  }
  return OpenForWriting(database_path, &maintenance->connection, nullptr);
}

void Maintenance::GiveBackSpace() {
  // The file gets shorter when its log has been played into it.
  (void)connection.Execute("PRAGMA incremental_vacuum; PRAGMA wal_checkpoint(TRUNCATE)");
}

}  // namespace velmora::usage_stat::store
