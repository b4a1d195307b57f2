// Local days and hours of moments in milliseconds since the Unix epoch, and ranges of them.

#ifndef TOOLS_REPORT_CALENDAR_H_
#define TOOLS_REPORT_CALENDAR_H_

#include <cstdint>
#include <optional>
#include <string>

namespace velmora::usage_stat::report {

// A day by its number: days between 1 January 1970 and it, on the calendar.
using Day = std::int32_t;

// Moments from `since_ms` up to, but not including, `until_ms`.
struct Range {
  std::int64_t since_ms = 0;
  std::int64_t until_ms = 0;

  bool Holds(std::int64_t ms) const { return ms >= since_ms && ms < until_ms; }
};

// The local hour, or what is left of it, that a moment lies in.
struct LocalHour {
  Day day = 0;
  int weekday = 0;  // 0: Monday
  int hour = 0;     // 0 to 23
  std::int64_t begin_ms = 0;
  std::int64_t end_ms = 0;
};

// Reads the clock on the wall. The time zone is that of the process; changes to and from summer
// time are followed.
class LocalClock {
 public:
  LocalClock();

  // Moments must lie in the years 1 to 9999. Cheap for moments in order of time.
  LocalHour At(std::int64_t ms);

 private:
  LocalHour current_;
};

// The first moment of a local day.
std::int64_t BeginOf(Day day);

// Whether At() can tell the hour of `ms`.
bool IsOnCalendar(std::int64_t ms);

// What to report when no begin or no end is given: up to the end of today, and 30 days of it.
Range CompleteRange(std::optional<std::int64_t> since_ms, std::optional<std::int64_t> until_ms,
                    std::int64_t now_ms);

// The local days that a range begins and ends in.
Day FirstDay(const Range& range);
Day LastDay(const Range& range);

int WeekdayOf(Day day);  // 0: Monday
Day FirstOfMonth(Day day);
Day FirstOfYear(Day day);

std::string IsoDate(Day day);                              // 2026-05-09
std::optional<Day> ParseIsoDate(const std::string& text);  // nothing for what is no such date
std::string LongDate(Day day);                             // 9 May 2026
std::string ShortDate(Day day);                            // 9 May
std::string MonthAndYear(Day day);                         // May 2026

// 9 May 2026, 14:05 CEST (UTC+02:00)
std::string LocalDateTime(std::int64_t ms);

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_CALENDAR_H_
