// The balance sheet of a database: what was received and what became of it.

#ifndef TOOLS_INSPECTOR_BALANCE_H_
#define TOOLS_INSPECTOR_BALANCE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/store/reader.h"

namespace velmora::usage_stat::inspector {

// Datagrams by what became of them.
struct Outcomes {
  std::int64_t stored = 0;
  std::map<std::string, std::int64_t> quarantined;  // by kind of damage
  std::map<std::string, std::int64_t> refused;      // by reason
  std::int64_t off = 0;                             // came while collecting was switched off

  std::int64_t Sum() const;
};

struct RunBalance {
  store::Run run;
  Outcomes outcomes;
  // The time before it in which no collector is known to have listened; absent for the first run.
  std::optional<std::int64_t> gap_ms;
  bool is_latest = false;  // of those on its endpoint

  bool adds_up() const { return outcomes.Sum() == run.received; }
};

struct Balance {
  std::vector<RunBalance> runs;              // oldest first
  std::map<std::int64_t, Outcomes> senders;  // by user id
  Outcomes total;
  std::int64_t received = 0;

  // Rows that the database has, and those that it should have.
  std::int64_t records = 0;
  std::int64_t in_quarantine = 0;
  std::int64_t own = 0;       // records that collectors wrote about their own lives
  std::int64_t archived = 0;  // rows that were moved to archives
  std::int64_t deleted = 0;
  std::int64_t expected_rows() const;

  std::optional<store::RecordRow> last;
  std::int64_t last_minute = 0;  // records received within these times before now
  std::int64_t last_hour = 0;
  std::int64_t last_day = 0;

  bool adds_up() const;
};

// Reads everything from one state of the database, whatever its collector does meanwhile.
base::Status ReadBalance(store::Reader* reader, std::int64_t now_ms, Balance* balance);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_BALANCE_H_
