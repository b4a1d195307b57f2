#include "tools/store/journal_events.h"

#include <unistd.h>

#include <sstream>
#include <variant>

#include "tools/records/record.h"
#include "tools/store/file.h"
#include "tools/store/statements.h"

namespace velmora::usage_stat::store {

Status AddJournalEvent(Connection* connection, std::int64_t run, Event* event) {
  std::ostringstream out;
  if (event->WriteToStream(out) != 0) return Status::Failed("a journal event can't be written");
  RecordRow row;
  row.raw = out.str();
  const auto decoded = records::Decode(row.raw);
  const auto* record = std::get_if<records::Record>(&decoded);
  if (!record) return Status::Failed("a journal event can't be read back");
  row.received_ms = NowMs();
  row.sender = {getpid(), getuid()};
  row.type = record->type;
  row.event = record->event;
  row.timestamp_ms = record->timestamp;
  row.fields = records::Dump(record->fields);

  Statement insert;
  Statement count;
  RETURN_IF_ERROR(connection->Prepare(kInsertRecord, &insert));
  RETURN_IF_ERROR(InsertRecord(&insert, row));
  RETURN_IF_ERROR(connection->Prepare(kCount, &count));
  return Count(&count, {run, row.sender.uid, "journal", "", 1, row.received_ms});
}

}  // namespace velmora::usage_stat::store
