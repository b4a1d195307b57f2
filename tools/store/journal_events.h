// Records about the database's own life, such as a new file or an archive, made by the program that
// does it.

#ifndef TOOLS_STORE_JOURNAL_EVENTS_H_
#define TOOLS_STORE_JOURNAL_EVENTS_H_

#include "src/stat_event/event.h"
#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Adds `event` as a record that this process sent and received now, and counts it for `run`. Part
// of the caller's transaction.
Status AddJournalEvent(Connection* connection, std::int64_t run, Event* event);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_JOURNAL_EVENTS_H_
