// The statements that more than one part of the writing side uses.

#ifndef TOOLS_STORE_STATEMENTS_H_
#define TOOLS_STORE_STATEMENTS_H_

#include <string_view>
#include <vector>

#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

constexpr std::string_view kInsertRecord =
    "INSERT INTO records(received_ms, pid, uid, type, event, timestamp_ms, fields, raw) "
    "VALUES(?, ?, ?, ?, ?, ?, ?, ?)";
Status InsertRecord(Statement* insert, const RecordRow& row);

constexpr std::string_view kCount =
    "INSERT INTO tally(run, uid, outcome, reason, count, last_ms) VALUES(?, ?, ?, ?, ?, ?) "
    "ON CONFLICT DO UPDATE SET count = count + excluded.count, last_ms = excluded.last_ms";
// Adds to a count; the count of `tally` may be negative.
Status Count(Statement* count, const Tally& tally);

// All archives, oldest first.
Status ReadArchives(Connection* connection, std::vector<Archive>* archives);

// The run that what is done outside of any run counts for: the latest, or 0.
Status LatestRun(Connection* connection, std::int64_t* run);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_STATEMENTS_H_
