// A record as one line for people.

#ifndef TOOLS_RECORDS_TEXT_H_
#define TOOLS_RECORDS_TEXT_H_

#include <string>
#include <string_view>

#include "tools/records/record.h"

namespace velmora::usage_stat::records {

// Local time with milliseconds, such as "2026-03-01 18:04:05.678"; the bare number when the year is
// beyond what the calendar of this machine knows.
std::string FormatTime(long long timestamp_ms);

// Time, name and fields, such as `2026-03-01 18:04:05.678 OrientationEvent orientation=1`. Texts
// stand in quotes, and nothing in them can move the cursor of a terminal.
std::string ToText(std::string_view event, long long timestamp_ms, const Json& fields);

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_TEXT_H_
