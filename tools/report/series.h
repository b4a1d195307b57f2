// The days of a range, gathered to no more bars than a chart can show.

#ifndef TOOLS_REPORT_SERIES_H_
#define TOOLS_REPORT_SERIES_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/report/summary.h"

namespace velmora::usage_stat::report {

struct Series {
  struct Bucket {
    Day first = 0;
    std::string label;  // short, for an axis
    std::string title;  // in full
    Reading reading;
  };

  std::string_view step;  // "day", "week", "month" or "year"
  std::vector<Bucket> buckets;
};

// What to report when no begin or no end is given: up to the end of today, and 30 days of it.
Range CompleteRange(std::optional<std::int64_t> since_ms, std::optional<std::int64_t> until_ms,
                    std::int64_t now_ms);

// The local days that a range begins and ends in.
Day FirstDay(const Range& range);
Day LastDay(const Range& range);

// All days of the range, those without reading too.
Series SeriesOf(const Summary& summary);

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_SERIES_H_
