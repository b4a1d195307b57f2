// Moments in the forms in which people write them.

#ifndef TOOLS_INSPECTOR_MOMENT_H_
#define TOOLS_INSPECTOR_MOMENT_H_

#include <cstdint>
#include <optional>
#include <string>

namespace velmora::usage_stat::inspector {

// What --since and --until take, for help texts.
constexpr const char* kMomentForms =
    "now, today, yesterday, tomorrow, '2 hours ago', -1h30m, YYYY-MM-DD[ HH:MM[:SS]], HH:MM[:SS], "
    "@SECONDS; seconds may have a fraction";

// The moment that `text` names, in milliseconds since the Unix epoch; nothing when it names none.
// Dates and times are local unless UTC, Z or an offset such as +02:00 follows. A date alone means
// its beginning, a time alone today. Spans are counted in years, months, weeks, days, hours,
// minutes and seconds, all but the months also by their first letters; a day of a span has 24
// hours.
std::optional<std::int64_t> ParseMoment(const std::string& text, std::int64_t now_ms);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_MOMENT_H_
