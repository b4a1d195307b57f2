#include "tools/store/statements.h"

namespace velmora::usage_stat::store {

Status InsertRecord(Statement* insert, const RecordRow& row) {
  return insert->Bind(1, row.received_ms)
      .Bind(2, row.sender.pid)
      .Bind(3, row.sender.uid)
      .Bind(4, row.type)
      .Bind(5, row.event)
      .Bind(6, row.timestamp_ms)
      .Bind(7, row.fields)
      .BindBlob(8, row.raw)
      .Run();
}

Status Count(Statement* count, const Tally& tally) {
  return count->Bind(1, tally.run)
      .Bind(2, tally.uid)
      .Bind(3, tally.outcome)
      .Bind(4, tally.reason)
      .Bind(5, tally.count)
      .Bind(6, tally.last_ms)
      .Run();
}

Status ReadArchives(Connection* connection, std::vector<Archive>* archives) {
  archives->clear();
  Statement select;
  Status status = connection->Prepare(
      "SELECT id, path, state, created_ms, first_record, last_record, records, "
      "first_timestamp_ms, last_timestamp_ms, bytes FROM archives ORDER BY id",
      &select);
  if (!status.ok()) return status;
  while (select.Step()) {
    archives->push_back({select.Int(0), std::string(select.Text(1)), std::string(select.Text(2)),
                         select.Int(3), select.Int(4), select.Int(5), select.Int(6), select.Int(7),
                         select.Int(8), select.Int(9)});
  }
  return select.status();
}

Status LatestRun(Connection* connection, std::int64_t* run) {
  return connection->Read("SELECT coalesce(max(id), 0) FROM runs", run);
}

}  // namespace velmora::usage_stat::store
