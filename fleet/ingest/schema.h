// The tables of the fleet's database.

#ifndef FLEET_INGEST_SCHEMA_H_
#define FLEET_INGEST_SCHEMA_H_

#include <map>
#include <string>
#include <utility>

#include "fleet/ingest/database.h"

namespace velmora::usage_stat::fleet {

// Makes the tables, or brings those of an older version up to date. A database of a newer version
// is refused. Many programs may do so at once.
base::Status PrepareSchema(Database* database);

// The table records are kept in that arrive on `day`, which is such as "2026-11-25"; made when it
// is not there.
base::Status PreparePartition(Database* database, const std::string& day);

// The database's own day, in UTC: what decides about partitions is one clock.
base::Status Today(Database* database, std::string* day);

// The numbers of the event classes, by name. Those new to the database are added.
using EventIds = std::map<std::string, int, std::less<>>;
base::Status LoadEvents(Database* database, EventIds* events);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_INGEST_SCHEMA_H_
