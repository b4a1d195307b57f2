#include "tools/store/retention.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "src/events/device_events.h"
#include "tools/store/archive.h"
#include "tools/store/journal_events.h"
#include "tools/store/keeper.h"

namespace velmora::usage_stat::store {

namespace {

constexpr int kRowsAtOnce = 100;
constexpr std::int64_t kDayMs = 24LL * 60 * 60 * 1000;

Status DeleteArchive(Keeper* keeper, const std::string& database_path, const Archive& archive) {
  const std::string path = LocateArchive(database_path, archive);
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return Status::Errno("cannot delete " + path);
  DeleteArchiveEvent event;
  event.archive_ = archive.path;
  Transaction transaction(&keeper->connection);
  Status status = transaction.Begin();
  if (status.ok()) status = SetState(&keeper->connection, archive.id, "deleted");
  if (status.ok()) status = AddJournalEvent(&keeper->connection, keeper->run, &event);
  if (status.ok()) status = transaction.Commit();
  return status;
}

// Deletes those of the oldest rows of `table` that were received before `before_ms`, and gives
// their pages back to the file system. `deleted` tells how many there were.
Status DeleteOldest(Keeper* keeper, const std::string& table, std::int64_t before_ms,
                    const char* reason, std::int64_t* deleted) {
  Statement remove;
  Transaction transaction(&keeper->connection);
  Status status = transaction.Begin();
  if (status.ok()) {
    status = keeper->connection.Prepare("DELETE FROM " + table + " WHERE id IN (SELECT id FROM " +
                                            table + " ORDER BY id LIMIT ?) AND received_ms < ?",
                                        &remove);
  }
  if (status.ok()) status = remove.Bind(1, kRowsAtOnce).Bind(2, before_ms).Run();
  *deleted = keeper->connection.Changes();
  if (status.ok()) status = CountRemoved(keeper, "deleted", reason, *deleted);
  if (status.ok()) status = keeper->connection.Execute("PRAGMA incremental_vacuum");
  if (status.ok()) status = transaction.Commit();
  return status;
}

Status ApplyAge(Keeper* keeper, const std::string& database_path, std::int64_t keep_days) {
  const std::int64_t before_ms = NowMs() - keep_days * kDayMs;
  std::vector<Archive> archives;
  if (Status status = ReadArchives(&keeper->connection, "complete", &archives); !status.ok()) {
    return status;
  }
  for (const Archive& archive : archives) {
    if (archive.created_ms >= before_ms) continue;
    RETURN_IF_ERROR(DeleteArchive(keeper, database_path, archive));
  }
  for (const char* table : {"records", "quarantine"}) {
    for (std::int64_t deleted = 1; deleted > 0;) {
      if (Status status = DeleteOldest(keeper, table, before_ms, "age", &deleted); !status.ok()) {
        return status;
      }
    }
  }
  return {};
}

// The bytes of the pages in use.
Status DatabaseBytes(Connection* connection, std::int64_t* bytes) {
  return connection->Read(
      "SELECT (page_count - freelist_count) * page_size "
      "FROM pragma_page_count, pragma_freelist_count, pragma_page_size",
      bytes);
}

Status ApplySize(Keeper* keeper, const std::string& database_path, std::int64_t max_bytes) {
  std::vector<Archive> archives;
  std::int64_t bytes = 0;
  Status status = ReadArchives(&keeper->connection, "complete", &archives);
  if (status.ok()) status = DatabaseBytes(&keeper->connection, &bytes);
  if (!status.ok()) return status;
  for (const Archive& archive : archives) bytes += archive.bytes;

  for (const Archive& archive : archives) {
    if (bytes <= max_bytes) return {};
    status = DeleteArchive(keeper, database_path, archive);
    if (!status.ok()) return status;
    bytes -= archive.bytes;
  }
  for (std::int64_t deleted = 1; deleted > 0;) {
    status = DatabaseBytes(&keeper->connection, &bytes);
    if (!status.ok() || bytes <= max_bytes) return status;
    std::int64_t quarantine_is_older = 0;
    status = keeper->connection.Read(
        "SELECT coalesce((SELECT received_ms FROM quarantine ORDER BY id LIMIT 1) < "
        "coalesce((SELECT received_ms FROM records ORDER BY id LIMIT 1), 9e18), 0)",
        &quarantine_is_older);
    if (!status.ok()) return status;
    status = DeleteOldest(keeper, quarantine_is_older ? "quarantine" : "records", INT64_MAX, "size",
                          &deleted);
    if (!status.ok()) return status;
  }
  return {};
}

}  // namespace

Status ApplyRetention(const std::string& database_path, const Retention& retention) {
  Keeper keeper;
  Status status = OpenKeeper(database_path, &keeper);
  if (status.ok() && retention.keep_days > 0) {
    status = ApplyAge(&keeper, database_path, retention.keep_days);
  }
  if (status.ok() && retention.max_bytes > 0) {
    status = ApplySize(&keeper, database_path, retention.max_bytes);
  }
  if (keeper.has_removed) GiveBackSpace(&keeper.connection);
  return status;
}

}  // namespace velmora::usage_stat::store
