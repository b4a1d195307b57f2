#include "tools/store/keeper.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <unistd.h>

#include "tools/store/schema.h"
#include "tools/store/statements.h"

namespace velmora::usage_stat::store {

Status OpenKeeper(const std::string& database_path, Keeper* keeper) {
  keeper->lock =
      Descriptor(open(FolderOf(database_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!keeper->lock.is_open()) return Status::Errno("cannot open the folder of " + database_path);
  if (flock(keeper->lock.get(), LOCK_EX | LOCK_NB) != 0) {
    return {SQLITE_BUSY, "records of " + database_path + " are being archived or deleted already"};
  }
  Status status = OpenForWriting(database_path, &keeper->connection, nullptr);
  if (status.ok()) status = LatestRun(&keeper->connection, &keeper->run);
  return status;
}

Status CountRemoved(Keeper* keeper, const char* outcome, const std::string& reason,
                    std::int64_t rows) {
  Statement count;
  Status status = keeper->connection.Prepare(kCount, &count);
  if (!status.ok() || rows == 0) return status;
  keeper->has_removed = true;
  return Count(&count, {keeper->run, getuid(), outcome, reason, rows, NowMs()});
}

void GiveBackSpace(Connection* connection) {
  // The file gets shorter when its log has been played into it.
  (void)connection->Execute("PRAGMA incremental_vacuum; PRAGMA wal_checkpoint(TRUNCATE)");
}

Status SetState(Connection* connection, std::int64_t archive, const char* state) {
  Statement update;
  Status status = connection->Prepare("UPDATE archives SET state = ? WHERE id = ?", &update);
  return status.ok() ? update.Bind(1, std::string_view(state)).Bind(2, archive).Run() : status;
}

Status ReadArchives(Connection* connection, std::string_view state,
                    std::vector<Archive>* archives) {
  Status status = ReadArchives(connection, archives);
  std::erase_if(*archives, [state](const Archive& archive) { return archive.state != state; });
  return status;
}

}  // namespace velmora::usage_stat::store
