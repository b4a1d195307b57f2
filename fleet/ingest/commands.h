// What the program does: it takes batches, and tells operators what the database holds. Each
// function returns the exit code.

#ifndef FLEET_INGEST_COMMANDS_H_
#define FLEET_INGEST_COMMANDS_H_

#include <cstdint>
#include <string>

#include "fleet/transport/channel.h"

namespace velmora::usage_stat::fleet {

struct IngestOptions {
  std::string conninfo;
  std::string tombstones;
  BrokerOptions broker;
  std::string group;            // of a shared subscription; empty for a plain one
  std::int64_t keep_days = 30;  // of records in the database
};

// Takes messages from a broker into the ledger and sends receipts back, until a signal ends it. A
// broker or database that is away is waited for.
int Ingest(const IngestOptions& options);

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

#endif  // FLEET_INGEST_COMMANDS_H_
