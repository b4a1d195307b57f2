// Charts, each in a card with a table behind it that holds the same numbers.

#ifndef TOOLS_REPORT_FIGURES_H_
#define TOOLS_REPORT_FIGURES_H_

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tools/report/html.h"
#include "tools/report/summary.h"

namespace velmora::usage_stat::report {

// What a number is and how it is told.
struct Unit {
  const char* name;    // as the script knows it
  const char* colour;  // of the style sheet
  std::string (*format)(std::int64_t);
};

constexpr Unit kTime{"time", "time", FormatDuration};
constexpr Unit kTurns{"count", "turns", FormatNumber};
constexpr Unit kCounts{"count", "count", FormatNumber};
constexpr Unit kPercent{"percent", "count", FormatPercent};

struct Bar {
  std::string label;  // short, for an axis
  std::string title;  // in full
  std::int64_t value = 0;
};

constexpr std::array<const char*, 7> kWeekdays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

// One of several measures that share an axis.
struct Stack {
  std::string name;
  std::vector<std::int64_t> values;
};

// The days of a range, gathered to no more bars than a chart can show.
struct Series {
  std::string_view step;  // "day", "week", "month" or "year"
  std::vector<Bar> bars;
};

// All days of the range, those without a value too.
Series SeriesOf(const Range& range, const std::map<Day, std::int64_t>& days);

// Makes cards with charts and collects what the page's script draws. Ids are unique in a page; a
// measure that is 0 all over makes a card that says so.
class Figures {
 public:
  // One measure over time, wide.
  std::string Time(const std::string& id, const std::string& what, const Unit& unit,
                   const Range& range, const std::map<Day, std::int64_t>& days,
                   const std::string& note = "");

  // Bars beside each other, in their order, wide; `bars` must not be empty.
  std::string Columns(const std::string& id, const std::string& title, const std::string& note,
                      const Unit& unit, const std::vector<Bar>& bars, const std::string& table);

  // The same with a few measures on top of each other; of `bars` the texts count.
  std::string Stacks(const std::string& id, const std::string& title, const std::string& note,
                     const Unit& unit, const std::vector<Bar>& bars,
                     const std::vector<Stack>& stacks, const std::string& table);

  // One measure by weekday, from Monday, and hour.
  std::string Week(const std::string& id, const std::string& what, const Unit& unit,
                   const std::array<std::array<std::int64_t, 24>, 7>& hours);

  // Bars below each other, as many as fit a chart; `bars` must not be empty. `description` is read
  // out in the chart's place.
  std::string Ranking(const std::string& id, const std::string& title, const std::string& note,
                      const std::string& description, const Unit& unit,
                      const std::vector<Bar>& bars, const std::string& table, bool is_wide);

  // Counts below each other, and what they leave of `total` as others.
  std::string Counts(const std::string& id, const std::string& title, const char* head,
                     const std::vector<Count>& counts, std::int64_t total,
                     const std::string& note = "");

  nlohmann::ordered_json Data() const { return {{"charts", charts_}}; }

 private:
  std::string Add(const std::string& id, const std::string& title, std::string_view note,
                  const std::string& description, nlohmann::ordered_json chart,
                  const std::string& table, bool is_wide);

  nlohmann::ordered_json charts_ = nlohmann::ordered_json::object();
};

std::string EmptyCard(std::string_view title, bool is_wide = false);

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_FIGURES_H_
