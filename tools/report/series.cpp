#include "tools/report/series.h"

namespace velmora::usage_stat::report {

namespace {

// A way to gather days.
struct Step {
  std::string_view name;
  Day longest;  // a range of more days takes the next step
  Day (*first_of)(Day day);
  std::string (*label)(Day first);
  std::string (*title)(Day first);
};

Day Same(Day day) { return day; }
Day FirstOfWeek(Day day) { return day - WeekdayOf(day); }
std::string Week(Day first) { return "week of " + LongDate(first); }
std::string Year(Day first) { return IsoDate(first).substr(0, 4); }

constexpr Step kSteps[] = {
    {"day", 92, Same, ShortDate, LongDate},
    {"week", 2 * 366, FirstOfWeek, ShortDate, Week},
    {"month", 8 * 366, FirstOfMonth, MonthAndYear, MonthAndYear},
    {"year", 200 * 366, FirstOfYear, Year, Year},
};

const Step& StepFor(Day days) {
  const Step* step = kSteps;
  while (days > step->longest) ++step;
  return *step;
}

}  // namespace

Range CompleteRange(std::optional<std::int64_t> since_ms, std::optional<std::int64_t> until_ms,
                    std::int64_t now_ms) {
  constexpr Day kDays = 30;
  Range range;
  range.until_ms = until_ms.value_or(BeginOf(LocalClock().At(now_ms).day + 1));
  if (since_ms) {
    range.since_ms = *since_ms;
  } else if (IsOnCalendar(range.until_ms)) {
    range.since_ms = BeginOf(LastDay(range) + 1 - kDays);
  }
  return range;
}

Day FirstDay(const Range& range) { return LocalClock().At(range.since_ms).day; }

Day LastDay(const Range& range) { return LocalClock().At(range.until_ms - 1).day; }

Series SeriesOf(const Summary& summary) {
  const Day first = FirstDay(summary.range);
  const Day last = LastDay(summary.range);
  const Step& step = StepFor(last - first + 1);
  Series series{step.name, {}};
  for (Day day = first; day <= last; ++day) {
    const Day begin = step.first_of(day);
    if (series.buckets.empty() || series.buckets.back().first != begin) {
      series.buckets.push_back({begin, step.label(begin), step.title(begin), {}});
    }
    if (const auto read = summary.days.find(day); read != summary.days.end()) {
      series.buckets.back().reading += read->second;
    }
  }
  return series;
}

}  // namespace velmora::usage_stat::report
