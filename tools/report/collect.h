// Reads a report's summary from the database.

#ifndef TOOLS_REPORT_COLLECT_H_
#define TOOLS_REPORT_COLLECT_H_

#include "tools/report/summary.h"
#include "tools/store/reader.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::report {

// Sums up what `journal` holds of `range`, archives included. The range must lie on the calendar
// and be no longer than kLongestRangeMs; it is refused otherwise.
store::Status Summarize(store::Journal* journal, Range range, Summary* summary);

// A hundred years: more days than that make no page to look at.
constexpr std::int64_t kLongestRangeMs = std::int64_t{36525} * 24 * 3600 * 1000;

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_COLLECT_H_
