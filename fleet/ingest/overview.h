// What operators ask the database.

#ifndef FLEET_INGEST_OVERVIEW_H_
#define FLEET_INGEST_OVERVIEW_H_

#include <string>

namespace velmora::usage_stat::fleet {

// Prints the balance sheet over the fleet, and that of every store if `each`. Fails when something
// does not add up.
int PrintStatus(const std::string& conninfo, bool each);

// Looks for everything that an operator should know, and prints it with what to do. Fails when
// something is wrong. `keep_days` as given to the ingester.
int PrintDiagnosis(const std::string& conninfo, const std::string& tombstones, long long keep_days);

// Writes the state of the fleet in the text format of Prometheus, for the textfile collector of its
// node exporter: into the file at `path`, in its place all at once, or to standard output when that
// is empty.
int WriteMetrics(const std::string& conninfo, const std::string& path);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_INGEST_OVERVIEW_H_
