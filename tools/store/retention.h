// What is kept for how long.

#ifndef TOOLS_STORE_RETENTION_H_
#define TOOLS_STORE_RETENTION_H_

#include <cstdint>
#include <string>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// What is kept. Zero means without limit.
struct Retention {
  std::int64_t keep_days = 0;  // rows received and archives made longer ago go
  std::int64_t max_bytes = 0;  // database and archives together; the oldest go first
};

// Deletes what `retention` no longer keeps, in small transactions between which a collector gets
// its turn. Archives go as whole files, each noted by a record.
Status ApplyRetention(const std::string& database_path, const Retention& retention);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_RETENTION_H_
