// What every program that writes into the database keeps in order: the numbers of records, the
// counts, the runs of numbers without records, and the records about the database's own life.
//
// Counts are written rarely: those of the newest records are derived from the records themselves,
// by the views that the schema has for it, until they are added up. So a record alone costs no
// counter's page, and counts fit the rows at every moment.

#ifndef TOOLS_STORE_LEDGER_H_
#define TOOLS_STORE_LEDGER_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "src/stat_event/event.h"
#include "tools/store/numbers.h"
#include "tools/store/row.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Inserts records. Belongs to its connection.
class RecordInserter {
 public:
  Status Prepare(Connection* connection);
  // Inserts `row` under the number `id`. Part of the caller's transaction; Forget() when that was
  // taken back.
  Status Insert(std::int64_t id, const RecordRow& row);
  void Forget() { events_.clear(); }

 private:
  Status FindEvent(const RecordRow& row, std::int64_t* event);

  Connection* connection_ = nullptr;
  Statement insert_;
  std::map<std::string, std::int64_t, std::less<>> events_;  // by name
};

// All that follows is part of the caller's transaction.

// The largest number of a record that is believed: as many as JSON can carry, and more than any
// device lives to give. Damage, or a stranger's archive, may claim anything.
constexpr std::int64_t kLargestNumber = std::int64_t{1} << 53;

// The number of the next record. IsDamage() when that would be larger than any that was given.
Status NextRecord(Connection* connection, std::int64_t* number);

// Prepares what Count() runs.
constexpr std::string_view kCount =
    "INSERT INTO tally(run, uid, outcome, reason, count, last_ms) VALUES(?, ?, ?, ?, ?, ?) "
    "ON CONFLICT DO UPDATE SET count = count + excluded.count, last_ms = excluded.last_ms";
// Adds to a count; the count of `tally` may be negative.
Status Count(Statement* count, const Tally& tally);
Status Count(Connection* connection, const Tally& tally);

// Adds up the records that came since this was last done.
Status AddUp(Connection* connection);

// The run that what is done outside of any run counts for: the latest, or 0.
Status LatestRun(Connection* connection, std::int64_t* run);

// Adds `event` as a record that this process sent and received now, and counts it for the latest
// run.
Status AddOwnRecord(Connection* connection, Event* event);

// Takes the records numbered `first` to `last` out of the database, and counts them as `outcome`
// for `reason`. `removed` tells how many there were.
Status RemoveRecords(Connection* connection, std::int64_t first, std::int64_t last, Outcome outcome,
                     std::string_view reason, std::int64_t* removed);

// Notes that the numbers `first` to `last` have no records any more; those of which that was noted
// before keep their reason.
Status NoteMissing(Connection* connection, std::int64_t first, std::int64_t last, Absence reason);
Status NoteMissing(Connection* connection, const Runs& runs, Absence reason);

// A random id for a store.
Status MakeStoreId(std::string* id);

// Begins a new store with the next number, or with `first` when that is larger.
Status BeginStore(Connection* connection, std::int64_t first = 0);

Status InsertArchive(Connection* connection, Archive* archive);
// Notes what `archive` holds now.
Status UpdateArchive(Connection* connection, const Archive& archive);
Status SetState(Connection* connection, std::int64_t archive, ArchiveState state);
// The archives, oldest record first; `schema` is that of the database.
Status ReadArchives(Connection* connection, int schema, std::vector<Archive>* archives);
Status ReadArchives(Connection* connection, ArchiveState state, std::vector<Archive>* archives);
// Adds the numbers from `first` to `last` that the database has records of, and all that archives
// have, except for the archive with the id `but`: damage may have made its range reach over others.
Status AddHeld(Connection* connection, std::int64_t first, std::int64_t last, NumberSet* held,
               std::int64_t but = 0);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_LEDGER_H_
