#include "tools/report/figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace velmora::usage_stat::report {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMostBars = 12;
constexpr std::size_t kMostRows = 200;

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

Json Chart(const char* kind, const Unit& unit) {
  return {{"kind", kind},
          {"unit", unit.name},
          {"colour", unit.colour},
          {"labels", Json::array()},
          {"values", Json::array()}};
}

}  // namespace

Series SeriesOf(const Range& range, const std::map<Day, std::int64_t>& days) {
  const Day first = FirstDay(range);
  const Day last = LastDay(range);
  const Step& step = StepFor(last - first + 1);
  Series series{step.name, {}};
  Day begin = 0;
  for (Day day = first; day <= last; ++day) {
    if (series.bars.empty() || begin != step.first_of(day)) {
      begin = step.first_of(day);
      series.bars.push_back({step.label(begin), step.title(begin), 0});
    }
    if (const auto found = days.find(day); found != days.end()) {
      series.bars.back().value += found->second;
    }
  }
  return series;
}

std::string EmptyCard(std::string_view title, bool is_wide) {
  return Card(title, "Nothing in this range.", "", is_wide);
}

std::string Figures::Add(const std::string& id, const std::string& title, std::string_view note,
                         const std::string& description, Json chart, const std::string& table,
                         bool is_wide) {
  charts_[id] = std::move(chart);
  return Card(title, note,
              fmt::format("<div class=\"chart\"><canvas data-chart=\"{}\" role=\"img\" "
                          "aria-label=\"{}\"></canvas></div>\n"
                          "<details open><summary>Table: {}</summary>\n{}</details>\n",
                          id, EscapeHtml(description), title, table),
              is_wide);
}

std::string Figures::Time(const std::string& id, const std::string& what, const Unit& unit,
                          const Range& range, const std::map<Day, std::int64_t>& days,
                          const std::string& note) {
  const Series series = SeriesOf(range, days);
  const std::string title = fmt::format("{} per {}", what, series.step);
  std::vector<Row> rows;
  for (const auto& [day, value] : days) {
    if (value == 0) continue;
    rows.push_back(
        {fmt::format("{} {}", kWeekdays[static_cast<std::size_t>(WeekdayOf(day))], LongDate(day)),
         unit.format(value)});
  }
  if (rows.empty()) return EmptyCard(title, true);

  return Columns(id, title, note, unit, series.bars, Table(title, {{"Day"}, {what, true}}, rows));
}

std::string Figures::Columns(const std::string& id, const std::string& title,
                             const std::string& note, const Unit& unit,
                             const std::vector<Bar>& bars, const std::string& table) {
  Json chart = Chart("columns", unit);
  chart["titles"] = Json::array();
  const Bar* most = &bars.front();
  for (const Bar& bar : bars) {
    chart["labels"].push_back(bar.label);
    chart["titles"].push_back(bar.title);
    chart["values"].push_back(bar.value);
    if (bar.value > most->value) most = &bar;
  }
  const std::string peak = fmt::format("Most: {}, {}.", most->title, unit.format(most->value));
  return Add(id, title, note.empty() ? peak : peak + " " + note,
             fmt::format("Bar chart. {} The table below has every number.", peak), std::move(chart),
             table, true);
}

std::string Figures::Stacks(const std::string& id, const std::string& title,
                            const std::string& note, const Unit& unit, const std::vector<Bar>& bars,
                            const std::vector<Stack>& stacks, const std::string& table) {
  Json chart = Chart("stacks", unit);
  chart["titles"] = Json::array();
  chart["names"] = Json::array();
  for (const Bar& bar : bars) {
    chart["labels"].push_back(bar.label);
    chart["titles"].push_back(bar.title);
  }
  std::string names;
  for (const Stack& stack : stacks) {
    chart["names"].push_back(stack.name);
    chart["values"].push_back(stack.values);
    names += (names.empty() ? "" : ", ") + stack.name;
  }
  return Add(id, title, note, fmt::format("Stacked bar chart of {}. {}", names, note),
             std::move(chart), table, true);
}

std::string Figures::Week(const std::string& id, const std::string& what, const Unit& unit,
                          const std::array<std::array<std::int64_t, 24>, 7>& hours) {
  const std::string title = fmt::format("{} per hour of the week", what);
  Json values = Json::array();
  std::vector<Row> rows(24);
  std::size_t most_day = 0;
  std::size_t most_hour = 0;
  for (std::size_t hour = 0; hour < 24; ++hour) rows[hour] = {fmt::format("{:02}:00", hour)};
  for (std::size_t day = 0; day < 7; ++day) {
    for (std::size_t hour = 0; hour < 24; ++hour) {
      const std::int64_t value = hours[day][hour];
      if (value > hours[most_day][most_hour]) {
        most_day = day;
        most_hour = hour;
      }
      rows[hour].push_back(value == 0 ? "–" : unit.format(value));
    }
    values.push_back(hours[day]);
  }
  if (hours[most_day][most_hour] == 0) return EmptyCard(title);
  std::vector<Column> columns = {{"Hour"}};
  for (const char* weekday : kWeekdays) columns.push_back({weekday, true});
  const std::string peak =
      fmt::format("Most: {} {:02}:00 to {:02}:00, {}.", kWeekdays[most_day], most_hour,
                  most_hour + 1, unit.format(hours[most_day][most_hour]));
  const std::string scale = fmt::format(
      " <span class=\"scale\" aria-hidden=\"true\">Less <span class=\"ramp {}\"></span> "
      "More</span>",
      unit.colour);
  return Add(id, title, peak + scale, fmt::format("Heat map of weekdays and hours. {}", peak),
             {{"kind", "hours"}, {"unit", unit.name}, {"colour", unit.colour}, {"values", values}},
             Table(title, columns, rows), false);
}

std::string Figures::Ranking(const std::string& id, const std::string& title,
                             const std::string& note, const std::string& description,
                             const Unit& unit, const std::vector<Bar>& bars,
                             const std::string& table, bool is_wide) {
  Json chart = Chart("rows", unit);
  for (std::size_t i = 0; i < std::min(bars.size(), kMostBars); ++i) {
    chart["labels"].push_back(bars[i].label);
    chart["values"].push_back(bars[i].value);
  }
  return Add(id, title, note, "Bar chart. " + description, std::move(chart), table, is_wide);
}

std::string Figures::Counts(const std::string& id, const std::string& title, const char* head,
                            const std::vector<Count>& counts, std::int64_t total,
                            const std::string& note) {
  if (counts.empty()) return EmptyCard(title);
  std::vector<Bar> bars;
  std::vector<Row> rows;
  std::int64_t others = total;
  for (const Count& count : counts) {
    if (rows.size() == kMostRows) break;
    bars.push_back({count.name, "", count.count});
    rows.push_back({Name(count.name), FormatNumber(count.count)});
    others -= count.count;
  }
  if (others > 0) rows.push_back({"Others", FormatNumber(others)});
  const std::string in_all = FormatNumber(total) + " in all.";
  return Ranking(id, title, note.empty() ? in_all : in_all + " " + note,
                 fmt::format("{} Most: {}, {}.", in_all, counts.front().name,
                             FormatNumber(counts.front().count)),
                 kCounts, bars, Table(title, {{head}, {"Count", true}}, rows), false);
}

}  // namespace velmora::usage_stat::report
