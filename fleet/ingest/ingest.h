// The ingester at work: messages from a broker into the ledger, receipts back.

#ifndef FLEET_INGEST_INGEST_H_
#define FLEET_INGEST_INGEST_H_

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

// Runs until a signal ends it. A broker or database that is away is waited for. Returns the exit
// code.
int Ingest(const IngestOptions& options);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_INGEST_INGEST_H_
