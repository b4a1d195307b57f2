// The fleet's page: what of a summary may be told, as cards of the device report's kind.

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "fleet/lake/fleet_summary.h"
#include "tools/report/figures.h"
#include "tools/report/html.h"

namespace velmora::usage_stat::fleet {

namespace {

using namespace report;

constexpr const char* kFew = "few";               // fewer than kLeastDevices
constexpr const char* kNearlyAll = "nearly all";  // fewer than kLeastDevices are not

constexpr std::string_view kMain = R"html({{notices}}<section aria-label="Key numbers">
<dl class="tiles">
{{tiles}}</dl>
</section>
<section aria-labelledby="active">
<h2 id="active">Devices in use</h2>
<div class="grid">
{{active}}</div>
</section>
<section aria-labelledby="reading">
<h2 id="reading">Reading</h2>
<div class="grid">
{{reading}}</div>
</section>
<section aria-labelledby="use">
<h2 id="use">Applications and settings</h2>
<div class="grid">
{{use}}</div>
</section>
<section aria-labelledby="devices">
<h2 id="devices">Models and versions</h2>
<div class="grid">
{{devices}}</div>
</section>
<section aria-labelledby="ingestion">
<h2 id="ingestion">Losses and ingestion</h2>
<div class="grid">
{{ingestion}}</div>
</section>
<section aria-labelledby="measured" class="prose">
<h2 id="measured">How this was measured</h2>
<p><strong>Days and weeks</strong> are those of UTC, weeks begin on Monday: no record tells a time zone. Times are corrected by the clock steps that devices report; records whose clock can't be right count in no figure about time.</p>
<p><strong>Active</strong> is a device of which at least one record tells the day. Only devices whose users agreed to send anything are here.</p>
<p><strong>Reading time.</strong> As on a device: from the opening of a book to the last page event before the next opening or before a pause of more than ten minutes, in the order of the records' numbers. Devices whose users let times leave by the hour only have none. Of each other device that read in a week the sum is taken; a quarter of them read less than the lower quartile, half less than the median. Means are not told: a few devices that never sleep would decide them.</p>
<p><strong>Retention.</strong> Devices by the week of their first record in this range, and the share of them that was active so many weeks later.</p>
<p><strong>Settings, versions, models.</strong> What the latest record of each device says, up to the end of the range.</p>
<p><strong>Few.</strong> Nothing is told about fewer than {{least}} devices. What is smaller shares one row, “other”, with the next larger one where it could be worked out by subtraction; “few” and “nearly all” stand for shares that fewer than {{least}} devices have, or have not, and a dash for one that could be worked out from the others. Two reports of almost the same range, or of almost the same devices, can still be subtracted from each other: make reports of whole weeks, at fixed times, and hand out no others.</p>
</section>
)html";

std::string DateOf(Day day) { return fmt::format("week of {}", LongDate(day)); }

std::string PercentOf(std::int64_t part, std::int64_t whole) {
  return FormatPercent(whole > 0 ? (100 * part + whole / 2) / whole : 0);
}

std::string HiddenCard(const std::string& title, bool is_wide = false) {
  return Card(title, fmt::format("Nothing about {} devices or more.", kLeastDevices), "", is_wide);
}

// Active devices for each day or week that has enough of them.
std::string ActiveFigure(const std::string& id, const std::string& title, Days days, Day step,
                         const std::map<Day, std::int64_t>& active, Figures* figures) {
  std::vector<Bar> bars;
  std::vector<Row> rows;
  const Day first = step == 7 ? days.first - WeekdayOf(days.first) : days.first;
  std::size_t hidden = 0;
  for (Day day = first; day <= days.last; day += step) {
    const std::string name = step == 7 ? DateOf(day) : LongDate(day);
    const auto found = active.find(day);
    const std::int64_t count = found == active.end() ? 0 : found->second;
    const bool is_told = count >= kLeastDevices;
    hidden += is_told ? 0 : 1;
    bars.push_back({ShortDate(day), name, is_told ? count : 0});
    rows.push_back({name, is_told ? FormatNumber(count) : kFew});
  }
  if (hidden == bars.size()) return HiddenCard(title, true);
  return figures->Columns(id, title, "", kCounts, bars,
                          Table(title, {{step == 7 ? "Week" : "Day"}, {"Devices", true}}, rows));
}

// How many devices are of a kind, where the number of all is told as well.
std::string CountOf(std::int64_t devices, std::int64_t all) {
  return TellShare(devices, all) == Share::kTold ? FormatNumber(devices) : kNearlyAll;
}

std::string ReadersOf(const FleetSummary& summary, Day week) {
  return CountOf(summary.reading.at(week).devices, summary.active_by_week.at(week));
}

std::string ReadingFigure(const std::string& id, const std::string& title,
                          const FleetSummary& summary, bool is_time, Figures* figures) {
  const Unit& unit = is_time ? kTime : kTurns;
  std::vector<Bar> bars;
  std::vector<Row> rows;
  for (const auto& [week, reading] : summary.reading) {
    if ((is_time ? reading.timed_devices : reading.devices) < kLeastDevices) continue;
    const Quartiles& quartiles = is_time ? reading.time_ms : reading.turns;
    // A quartile is some device's number: no closer than it is told.
    const std::int64_t median =
        is_time ? (quartiles.median + 30000) / 60000 * 60000 : quartiles.median;
    bars.push_back({ShortDate(week), DateOf(week), median});
    rows.push_back(
        {DateOf(week), unit.format(quartiles.lower), unit.format(quartiles.median),
         unit.format(quartiles.upper),
         is_time ? CountOf(reading.timed_devices, reading.devices) : ReadersOf(summary, week)});
  }
  if (bars.empty()) return HiddenCard(title, true);
  const char* note = is_time ? "Median of the devices that read in the week and tell exact times."
                             : "Median of the devices that read in the week.";
  return figures->Columns(id, title, note, unit, bars,
                          Table(title,
                                {{"Week"},
                                 {"Lower quartile", true},
                                 {"Median", true},
                                 {"Upper quartile", true},
                                 {"Devices", true}},
                                rows));
}

std::string ShareText(Share share, std::int64_t devices, std::int64_t all) {
  switch (share) {
    case Share::kTold:
      return PercentOf(devices, all);
    case Share::kFew:
      return kFew;
    case Share::kNearlyAll:
      return kNearlyAll;
    case Share::kNothing:
      break;
  }
  return "–";
}

// What is told of each cohort: its size, and how many of it were active so many weeks later. The
// active devices of a week are the sum of its cells over all cohorts, and all devices that of the
// sizes; both are told elsewhere. So where what is hidden of such a sum would be one cell, or about
// too few devices, another one is hidden with it.
std::map<Day, std::vector<Share>> TellCohorts(const FleetSummary& summary) {
  std::map<Day, std::vector<Share>> told;
  std::set<Day> weeks;
  std::int64_t rest = summary.devices;  // of no cohort yet
  for (const auto& [week, active] : summary.cohorts) {
    for (const std::int64_t count : active) told[week].push_back(TellShare(count, active[0]));
    told[week][0] = active[0] >= kLeastDevices ? Share::kTold : Share::kNothing;
    rest -= active[0];
    for (std::size_t i = 0; i < active.size(); ++i) weeks.insert(week + 7 * static_cast<Day>(i));
  }
  struct Cell {
    Day week;  // of the cohort
    std::size_t later;
  };
  const auto count_of = [&](const Cell& cell) { return summary.cohorts.at(cell.week)[cell.later]; };
  // Hides one more of `cells` when that has to be. A size goes with all of its cohort, and last.
  const auto protect = [&](const std::vector<Cell>& cells, std::int64_t hidden_devices) {
    std::size_t hidden = hidden_devices > 0 ? 1 : 0;
    const Cell* least = nullptr;
    const auto rank = [&](const Cell& cell) { return std::pair(cell.later == 0, count_of(cell)); };
    for (const Cell& cell : cells) {
      if (told[cell.week][cell.later] != Share::kTold) {
        ++hidden;
        hidden_devices += count_of(cell);
      } else if (!least || rank(cell) < rank(*least)) {
        least = &cell;
      }
    }
    if (hidden == 0 || (hidden > 1 && hidden_devices >= kLeastDevices) || !least) return false;
    told[least->week][least->later] = Share::kNothing;
    return true;
  };
  for (bool is_changed = true; is_changed;) {
    is_changed = false;
    std::vector<Cell> sizes;
    for (auto& [week, row] : told) {
      if (row[0] != Share::kTold) std::ranges::fill(row, Share::kNothing);
      sizes.push_back({week, 0});
    }
    is_changed |= protect(sizes, rest);
    for (const Day week : weeks) {
      std::vector<Cell> cells;
      for (const auto& [first, row] : told) {
        const auto later = static_cast<std::size_t>(week - first) / 7;
        if (first <= week && later < row.size()) cells.push_back({first, later});
      }
      is_changed |= protect(cells, 0);
    }
  }
  return told;
}

std::string RetentionCard(const FleetSummary& summary) {
  constexpr const char* kTitle = "Retention by week of first use";
  constexpr std::size_t kMostWeeks = 12;
  std::vector<Column> columns = {{"First used"}, {"Devices", true}};
  std::vector<std::string> heads;
  std::size_t weeks = 0;
  std::vector<Row> rows;
  for (const auto& [week, shares] : TellCohorts(summary)) {
    if (shares[0] != Share::kTold) continue;
    const std::vector<std::int64_t>& active = summary.cohorts.at(week);
    Row row = {DateOf(week), FormatNumber(active[0])};
    for (std::size_t i = 1; i < std::min(active.size(), kMostWeeks + 1); ++i) {
      row.push_back(ShareText(shares[i], active[i], active[0]));
    }
    weeks = std::max(weeks, row.size() - 2);
    rows.push_back(std::move(row));
  }
  if (rows.empty()) return HiddenCard(kTitle, true);
  heads.reserve(weeks);
  for (std::size_t i = 1; i <= weeks; ++i) heads.push_back(fmt::format("+{}", i));
  for (const std::string& head : heads) columns.push_back({head, true});
  for (Row& row : rows) row.resize(weeks + 2);
  return Card(kTitle, "Share of the devices that were active so many weeks later.",
              Table(kTitle, columns, rows), true);
}

// Parts of a whole, each device in one of them.
std::string PartsFigure(const std::string& id, const std::string& title, const char* head,
                        const std::vector<Cell>& all, Figures* figures) {
  const std::vector<Cell> cells = TellParts(all);
  if (cells.empty()) return HiddenCard(title);
  std::int64_t sum = 0;
  for (const Cell& cell : cells) sum += cell.devices;
  std::vector<Bar> bars;
  std::vector<Row> rows;
  for (const Cell& cell : cells) {
    const std::string name = cell.name.empty() ? "none" : cell.name;
    bars.push_back({name, "", cell.devices});
    rows.push_back({Name(name), FormatNumber(cell.devices), PercentOf(cell.devices, sum)});
  }
  const std::string note = fmt::format("{} told it.", Plural(sum, "device"));
  return figures->Ranking(
      id, title, note,
      fmt::format("{} Most: {}, {}.", note, bars.front().label, FormatNumber(bars.front().value)),
      kCounts, bars, Table(title, {{head}, {"Devices", true}, {"Share", true}}, rows), false);
}

std::string ApplicationsFigure(const FleetSummary& summary, Figures* figures) {
  constexpr const char* kTitle = "Applications by share of active devices";
  std::vector<Bar> bars;
  std::vector<Row> rows;
  bool has_nearly_all = false;
  for (const auto& application : summary.applications) {
    const Share share = TellShare(application.devices, summary.devices);
    if (share != Share::kTold && share != Share::kNearlyAll) continue;
    const bool is_told = share == Share::kTold;
    has_nearly_all |= !is_told;
    bars.push_back(
        {application.name, "",
         is_told ? (100 * application.devices + summary.devices / 2) / summary.devices : 100});
    rows.push_back({Name(application.name), ShareText(share, application.devices, summary.devices),
                    FormatNumber(application.launches)});
  }
  if (rows.empty()) return HiddenCard(kTitle);
  const std::string note = fmt::format("Launched by {} or more.{}", Plural(kLeastDevices, "device"),
                                       has_nearly_all ? " 100 % stands for nearly all." : "");
  return figures->Ranking(
      "applications", kTitle, note,
      fmt::format("{} Most: {}, {} %.", note, bars.front().label, bars.front().value), kPercent,
      bars, Table(kTitle, {{"Application"}, {"Devices", true}, {"Launches", true}}, rows), false);
}

std::string SettingsCards(const FleetSummary& summary) {
  std::string html;
  std::vector<Row> rows;
  for (const auto& setting : summary.settings) {
    const std::vector<Cell> cells = TellParts(setting.values);
    if (cells.empty()) continue;
    std::int64_t sum = 0;
    for (const Cell& cell : cells) sum += cell.devices;
    std::string values;
    for (const Cell& cell : cells) {
      if (!values.empty()) values += ", ";
      values += fmt::format("{}&nbsp;({})", Name(cell.name), PercentOf(cell.devices, sum));
    }
    rows.push_back({EscapeHtml(setting.title), values, FormatNumber(sum)});
  }
  constexpr const char* kTitle = "Settings by share of devices";
  if (rows.empty()) return HiddenCard(kTitle);
  return Card(kTitle, "The latest of each device.",
              Table(kTitle, {{"Setting"}, {"Values"}, {"Devices", true}}, rows));
}

std::string LossesCard(const FleetSummary& summary) {
  constexpr const char* kTitle = "Records that did not arrive";
  std::vector<Row> rows;
  std::int64_t others = 0;
  for (const auto& loss : summary.losses) {
    if (loss.devices >= kLeastDevices) {
      rows.push_back(
          {EscapeHtml(loss.reason), FormatNumber(loss.records), FormatNumber(loss.devices)});
    } else {
      others += loss.records;
    }
  }
  if (rows.empty() && others == 0) return Card(kTitle, "None in this range.", "");
  if (rows.empty()) return HiddenCard(kTitle);
  return Card(kTitle,
              fmt::format("By the reason that the device gives.{}",
                          others > 0 ? " Other reasons are about few devices." : ""),
              Table(kTitle, {{"Reason"}, {"Records", true}, {"Devices", true}}, rows));
}

std::string IngestionCard(const FleetSummary& summary) {
  constexpr const char* kTitle = "Ingestion";
  if (summary.ingestion.empty()) return Card(kTitle, "Nothing in this range.", "");
  if (summary.devices < kLeastDevices) return HiddenCard(kTitle);
  std::vector<Row> rows;
  for (const auto& one : summary.ingestion) {
    // So few batches are of as few devices.
    const bool is_told = one.batches >= kLeastDevices;
    rows.push_back({EscapeHtml(one.outcome), is_told ? FormatNumber(one.batches) : kFew,
                    is_told ? FormatNumber(one.records) : "–"});
  }
  return Card(kTitle, "What became of records and batches, by day of arrival.",
              Table(kTitle, {{"Outcome"}, {"Batches", true}, {"Records", true}}, rows));
}

std::string Tiles(const FleetSummary& summary) {
  const bool is_told = summary.devices >= kLeastDevices;
  // The last whole week of which there is enough to tell.
  const auto last_week = [&](std::int64_t ReadingWeek::*devices) {
    return std::find_if(summary.reading.rbegin(), summary.reading.rend(), [&](const auto& week) {
      return week.second.*devices >= kLeastDevices && week.first + 6 <= summary.days.last;
    });
  };
  const auto read = last_week(&ReadingWeek::devices);
  const auto timed = last_week(&ReadingWeek::timed_devices);
  const bool has_read = read != summary.reading.rend();
  const bool has_timed = timed != summary.reading.rend();
  constexpr const char* kTooFew = "too few devices";
  std::int64_t batches = 0;
  for (const auto& one : summary.ingestion) batches += one.batches;
  std::int64_t lost = 0;
  for (const auto& loss : summary.losses) {
    if (loss.devices >= kLeastDevices) lost += loss.records;
  }
  return Tile("Active devices", is_told ? FormatNumber(summary.devices) : kFew, "in the range") +
         Tile("Reading time a week", has_timed ? FormatDuration(timed->second.time_ms.median) : "–",
              has_timed ? "median, " + DateOf(timed->first) : kTooFew) +
         Tile("Page turns a week", has_read ? FormatNumber(read->second.turns.median) : "–",
              has_read ? "median, " + DateOf(read->first) : kTooFew) +
         Tile("Reading devices", has_read ? ReadersOf(summary, read->first) : "–",
              has_read ? DateOf(read->first) : kTooFew) +
         Tile("Days", FormatNumber(summary.days.last - summary.days.first + 1), "in the range") +
         Tile("Batches", is_told ? FormatNumber(batches) : kFew, "arrived") +
         Tile("Records", is_told ? FormatNumber(summary.records) : kFew, "arrived") +
         Tile("Lost records", FormatNumber(lost), "by reasons below", lost > 0);
}

}  // namespace

std::string RenderFleetPage(const FleetSummary& summary) {
  Figures figures;
  Slots slots;
  slots["least"] = std::to_string(kLeastDevices);
  slots["notices"] =
      summary.devices >= kLeastDevices
          ? ""
          : fmt::format(
                "<p class=\"notice\" role=\"status\">Fewer than {} devices were active in "
                "this range: there is nothing to tell. Choose a longer one.</p>\n",
                kLeastDevices);
  slots["tiles"] = Tiles(summary);
  constexpr Day kMostDays = 92;
  slots["active"] = (summary.days.last - summary.days.first < kMostDays
                         ? ActiveFigure("active-by-day", "Active devices per day", summary.days, 1,
                                        summary.active_by_day, &figures)
                         : "") +
                    ActiveFigure("active-by-week", "Active devices per week", summary.days, 7,
                                 summary.active_by_week, &figures) +
                    RetentionCard(summary);
  slots["reading"] =
      ReadingFigure("time-by-week", "Reading time per week", summary, true, &figures) +
      ReadingFigure("turns-by-week", "Page turns per week", summary, false, &figures);
  slots["use"] = ApplicationsFigure(summary, &figures) + SettingsCards(summary);
  slots["devices"] = PartsFigure("models", "Models", "Model", summary.models, &figures) +
                     PartsFigure("versions", "Versions", "Version", summary.versions, &figures);
  slots["ingestion"] = LossesCard(summary) + IngestionCard(summary);
  const Range range{BeginOf(summary.days.first), BeginOf(summary.days.last + 1)};
  return RenderShell(
      {{"title", "Fleet report"},
       {"range", fmt::format("{} – {}", LongDate(FirstDay(range)), LongDate(LastDay(range)))},
       {"about",
        fmt::format("Made on {}. Days are those of UTC.", LocalDateTime(summary.generated_ms))},
       {"main", FillTemplate(kMain, slots)}},
      figures.Data());
}

}  // namespace velmora::usage_stat::fleet
