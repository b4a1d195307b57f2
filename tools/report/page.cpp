#include "tools/report/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/report/assets.h"
#include "tools/report/figures.h"
#include "tools/report/html.h"

namespace velmora::usage_stat::report {

namespace {

// "Library settings" for LibrarySettingsEvent, "Set font params, extended" for
// SetFontParamsEventEx.
std::string WordsOf(std::string_view event) {
  const std::size_t end = std::min(event.rfind("Event"), event.size());
  std::string words;
  for (const char c : event.substr(0, end)) {
    const bool is_upper = c >= 'A' && c <= 'Z';
    if (is_upper && !words.empty()) words += ' ';
    words += is_upper && !words.empty() ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return event.ends_with("EventEx") ? words + ", extended" : words;
}

// ---- Reading and books ----

std::string TimeFigure(const Summary& summary, const std::string& id, const char* what,
                       const Unit& unit, std::int64_t Reading::*measure, const char* rule,
                       Figures* figures) {
  std::map<Day, std::int64_t> days;
  for (const auto& [day, reading] : summary.days) days[day] = reading.*measure;
  return figures->Time(id, what, unit, summary.range, days, rule);
}

std::string WeekFigure(const Summary& summary, const std::string& id, const char* what,
                       const Unit& unit, std::int64_t Reading::*measure, Figures* figures) {
  std::array<std::array<std::int64_t, 24>, 7> hours{};
  for (std::size_t day = 0; day < 7; ++day) {
    for (std::size_t hour = 0; hour < 24; ++hour) {
      hours[day][hour] = summary.week[day][hour].*measure;
    }
  }
  return figures->Week(id, what, unit, hours);
}

std::string NameOf(const BookReading& book) {
  if (!book.title.empty()) return book.title;
  if (!book.file_name.empty()) return book.file_name;
  return fmt::format("Book {}", book.id);
}

// Pages an hour; 0 where too little was read to tell.
std::int64_t PaceOf(std::int64_t turns, std::int64_t time_ms) {
  constexpr std::int64_t kHourMs = 3600000;
  constexpr std::int64_t kLeastMs = std::int64_t{5} * 60000;
  return time_ms < kLeastMs ? 0 : (turns * kHourMs + time_ms / 2) / time_ms;
}

std::string PaceText(const Reading& reading) {
  const std::int64_t pace = PaceOf(reading.paced, reading.time_ms);
  return pace == 0 ? "–" : FormatNumber(pace);
}

std::string PaceFigure(const Summary& summary, Figures* figures) {
  std::map<Day, std::int64_t> times;
  std::map<Day, std::int64_t> turns;
  for (const auto& [day, reading] : summary.days) {
    times[day] = reading.time_ms;
    turns[day] = reading.paced;
  }
  const Series time = SeriesOf(summary.range, times);
  Series pace = SeriesOf(summary.range, turns);
  const std::string title = fmt::format("Pages per hour, by {}", pace.step);
  std::vector<Row> rows;
  for (std::size_t i = 0; i < pace.bars.size(); ++i) {
    Bar& bar = pace.bars[i];
    bar.value = PaceOf(bar.value, time.bars[i].value);
    if (bar.value > 0) rows.push_back({bar.title, FormatNumber(bar.value)});
  }
  if (rows.empty()) return EmptyCard(title, true);
  return figures->Columns("pace", title,
                          "Page turns inside sessions by their reading time, where that is five "
                          "minutes at least; jumps don't count.",
                          kTurns, pace.bars,
                          Table(title, {{"When"}, {"Pages per hour", true}}, rows));
}

std::string BooksFigure(const Summary& summary, Figures* figures) {
  constexpr const char* kTitle = "Books by reading time";
  if (summary.books.empty()) return EmptyCard(kTitle, true);

  std::vector<Bar> bars;
  std::vector<Row> rows;
  for (const BookReading& book : summary.books) {
    const std::string name = NameOf(book);
    if (book.reading.time_ms > 0) bars.push_back({name, "", book.reading.time_ms});
    std::string cell = Name(name);
    if (!book.file_name.empty() && book.file_name != name) {
      cell += "<span class=\"file\">" + Name(book.file_name) + "</span>";
    }
    rows.push_back({std::move(cell), FormatDuration(book.reading.time_ms),
                    FormatNumber(book.reading.turns), PaceText(book.reading),
                    FormatNumber(book.openings), FormatNumber(book.lookups)});
  }
  if (const auto others = summary.all_books - static_cast<std::int64_t>(summary.books.size());
      others > 0) {
    rows.push_back({Plural(others, "other book"), FormatDuration(summary.other_books.time_ms),
                    FormatNumber(summary.other_books.turns), PaceText(summary.other_books), "",
                    ""});
  }
  const std::string table = Table(kTitle,
                                  {{"Book"},
                                   {"Reading time", true},
                                   {"Page turns", true},
                                   {"Pages per hour", true},
                                   {"Openings", true},
                                   {"Words looked up", true}},
                                  rows);
  if (bars.empty()) {
    const std::int64_t turns = summary.reading.turns - summary.turns_outside;
    return Card(kTitle,
                turns == 0 ? std::string("Books were opened, but no page was turned soon after.")
                           : fmt::format("{} at the moment of opening: no reading time.",
                                         Plural(turns, "page turn")),
                table, true);
  }
  const std::string note =
      fmt::format("{} opened or read. Reading time counts for the book that was opened last.",
                  Plural(summary.all_books, "book"));
  return figures->Ranking("books", kTitle, note,
                          fmt::format("{} Most read: {}, {}.", note, bars.front().label,
                                      FormatDuration(bars.front().value)),
                          kTime, bars, table, true);
}

// Page turns of the most read books over the range, beside each other.
std::string BooksOverTimeFigure(const Summary& summary, Figures* figures) {
  constexpr std::size_t kMostStacks = 5;
  std::vector<Stack> stacks;
  std::vector<Column> columns = {{"When"}};
  std::vector<std::string> heads;
  heads.reserve(kMostStacks);
  Series series;
  for (const BookReading& book : summary.books) {
    if (stacks.size() == kMostStacks) break;
    if (book.turns_by_day.empty()) continue;
    series = SeriesOf(summary.range, book.turns_by_day);
    Stack& stack = stacks.emplace_back(Stack{NameOf(book), {}});
    for (const Bar& bar : series.bars) stack.values.push_back(bar.value);
    columns.push_back({heads.emplace_back(Name(stack.name)), true});
  }
  const std::string title = fmt::format("Page turns of books, by {}", series.step);
  if (stacks.empty()) return EmptyCard("Page turns of books", true);
  std::vector<Row> rows;
  for (std::size_t i = 0; i < series.bars.size(); ++i) {
    Row row = {series.bars[i].title};
    bool is_empty = true;
    for (const Stack& stack : stacks) {
      is_empty = is_empty && stack.values[i] == 0;
      row.push_back(stack.values[i] == 0 ? "–" : FormatNumber(stack.values[i]));
    }
    if (!is_empty) rows.push_back(std::move(row));
  }
  return figures->Stacks("books-over-time", title,
                         fmt::format("The {} most read, page turns inside sessions.",
                                     Plural(static_cast<std::int64_t>(stacks.size()), "book")),
                         kCounts, series.bars, stacks, Table(title, columns, rows));
}

std::string ProgressCard(const Summary& summary) {
  constexpr const char* kTitle = "How far books were read";
  LocalClock clock;
  const auto date = [&](std::int64_t ms) { return ms == 0 ? "–" : LongDate(clock.At(ms).day); };
  std::vector<Row> rows;
  for (const BookReading& book : summary.books) {
    if (book.furthest == 0 || book.pages <= 0) continue;
    const bool is_told = book.begun_ms != 0 && book.finished_ms != 0;
    const std::int64_t days =
        is_told ? clock.At(book.finished_ms).day - clock.At(book.begun_ms).day + 1 : 0;
    rows.push_back(
        {Name(NameOf(book)),
         fmt::format("{} of {}", FormatNumber(book.furthest), FormatNumber(book.pages)),
         fmt::format("{} %",
                     std::min<std::int64_t>(100, std::int64_t{100} * book.furthest / book.pages)),
         date(book.begun_ms), date(book.finished_ms),
         is_told ? FormatDuration(book.finished_after_ms) + " in " + Plural(days, "day") : "–"});
  }
  if (rows.empty()) return EmptyCard(kTitle, true);
  return Card(kTitle,
              "The furthest page that was turned to in this range, of what the latest page turn "
              "gives as the number of pages. A book was begun when its first turn here was within "
              "its first twentieth, and finished when its last page was turned to; the time from "
              "one to the other is told where both are here. Jumps don’t count.",
              Table(kTitle,
                    {{"Book"},
                     {"Furthest page", true},
                     {"Read", true},
                     {"Begun", true},
                     {"Finished", true},
                     {"Time to finish", true}},
                    rows),
              true);
}

// ---- Sections ----

std::string Tiles(const Summary& summary) {
  std::int64_t days_read = 0;
  for (const auto& [day, reading] : summary.days) days_read += reading.time_ms > 0 ? 1 : 0;
  const std::int64_t all_days = LastDay(summary.range) - FirstDay(summary.range) + 1;
  const std::int64_t sessions = summary.sessions;
  const std::int64_t time = summary.reading.time_ms;
  const std::int64_t undecodable = [&] {
    std::int64_t sum = 0;
    for (const SenderError& error : summary.undecodable) sum += error.count;
    return sum;
  }();
  return Tile("Reading time", FormatDuration(time),
              days_read > 0 ? FormatDuration(time / days_read) + " on a reading day"
                            : "no reading") +
         Tile("Page turns", FormatNumber(summary.reading.turns),
              fmt::format("{} in sessions",
                          FormatNumber(summary.reading.turns - summary.turns_outside))) +
         Tile("Sessions", FormatNumber(sessions),
              sessions > 0 ? FormatDuration(time / sessions) + " on average" : "none") +
         Tile("Books", FormatNumber(summary.all_books), Plural(summary.openings, "opening")) +
         Tile("Reading days", FormatNumber(days_read),
              fmt::format("of {}", Plural(all_days, "day"))) +
         Tile("Launches", FormatNumber(summary.launches),
              Plural(static_cast<std::int64_t>(summary.applications.size()), "application")) +
         Tile("Records", FormatNumber(summary.records),
              Plural(static_cast<std::int64_t>(summary.events.size()), "kind")) +
         Tile("Sender errors", FormatNumber(summary.errors),
              summary.errors == 0
                  ? "none"
                  : fmt::format("{} undecodable, {} refused", FormatNumber(undecodable),
                                FormatNumber(summary.errors - undecodable)),
              summary.errors > 0);
}

std::string SettingsCards(const Summary& summary) {
  if (summary.settings.empty()) return EmptyCard("Settings", true);
  constexpr std::size_t kMostValues = 4;
  std::string html;
  for (const SettingsGroup& group : summary.settings) {
    std::vector<Row> rows;
    for (const Setting& setting : group.settings) {
      std::string field = setting.field;
      std::replace(field.begin(), field.end(), '_', ' ');
      std::string seen;
      std::int64_t others = setting.other_values;
      for (std::size_t i = 0; i < setting.values.size(); ++i) {
        const Count& value = setting.values[i];
        if (i >= kMostValues) {
          others += value.count;
          continue;
        }
        if (!seen.empty()) seen += ", ";
        seen += fmt::format("{}&nbsp;({})", Name(value.name.empty() ? "empty" : value.name),
                            FormatNumber(value.count));
      }
      if (others > 0) seen += fmt::format(", others&nbsp;({})", FormatNumber(others));
      rows.push_back({Name(field), Name(setting.latest.empty() ? "empty" : setting.latest), seen});
    }
    const std::string title = EscapeHtml(WordsOf(group.event));
    html += Card(title,
                 fmt::format("<code>{}</code>, {}; behind each value, how many carry it.",
                             EscapeHtml(group.event), Plural(group.records, "record")),
                 Table(title, {{"Setting"}, {"Latest"}, {"Seen"}}, rows));
  }
  return html;
}

std::string ErrorsCard(const char* title, const char* head, const std::vector<SenderError>& errors,
                       bool has_examples) {
  if (errors.empty()) return Card(title, "None in this range.", "");
  std::vector<Column> columns = {{head}, {"Count", true}, {"Sent by user"}};
  if (has_examples) columns.push_back({"Latest"});
  std::vector<Row> rows;
  for (const SenderError& error : errors) {
    rows.push_back({Name(error.kind), FormatNumber(error.count), error.senders});
    if (has_examples) rows.back().push_back(Name(error.example));
  }
  return Card(title,
              has_examples ? "By the time they were received."
                           : "Counted for each run of the collector that meets the range.",
              Table(title, columns, rows));
}

std::string RangeText(const Range& range) {
  const Day first = FirstDay(range);
  const Day last = LastDay(range);
  return first == last ? LongDate(first) : fmt::format("{} – {}", LongDate(first), LongDate(last));
}

std::string Notices(const Summary& summary) {
  std::string html;
  // What the collector tells of itself is there from the beginning.
  const bool is_empty = summary.records == summary.own;
  if (is_empty && summary.all_records <= std::max(summary.own, std::int64_t{1})) {
    html +=
        "<p class=\"notice\" role=\"status\">The database holds no records yet. Applications send "
        "them once <code>usage-stat-collector</code> runs; <code>usage-stat doctor</code> says "
        "what is in the way. <code>usage-stat-sample</code> makes a database to try this on.</p>\n";
  } else if (is_empty) {
    html += fmt::format(
        "<p class=\"notice\" role=\"status\">There are no records in this range. The database "
        "holds {}; choose another range with <code>--since</code> and <code>--until</code>.</p>\n",
        Plural(summary.all_records, "record"));
  }
  for (const std::string& problem : summary.problems) {
    html += fmt::format("<p class=\"notice\" role=\"status\">Not counted: {}</p>\n",
                        EscapeHtml(problem));
  }
  return html;
}

}  // namespace

std::string RenderPage(const Summary& summary) {
  Figures figures;
  Slots slots;
  slots["notices"] = Notices(summary);
  slots["tiles"] = Tiles(summary);
  slots["reading"] =
      TimeFigure(summary, "time-by-day", "Reading time", kTime, &Reading::time_ms,
                 "From the opening of a book to its last page event; see below.", &figures) +
      TimeFigure(summary, "turns-by-day", "Page turns", kTurns, &Reading::turns,
                 "Turns and jumps, inside sessions and outside.", &figures) +
      PaceFigure(summary, &figures) +
      WeekFigure(summary, "time-by-hour", "Reading time", kTime, &Reading::time_ms, &figures) +
      WeekFigure(summary, "turns-by-hour", "Page turns", kTurns, &Reading::turns, &figures);
  slots["books"] = BooksFigure(summary, &figures) + BooksOverTimeFigure(summary, &figures) +
                   ProgressCard(summary);
  if (!summary.words.empty()) {
    slots["books"] +=
        figures.Counts("words", "Words looked up", "Word", summary.words, summary.lookups);
  }
  slots["device"] =
      figures.Time("launches-by-day", "Launches", kCounts, summary.range, summary.launches_by_day,
                   "Every start of an application.") +
      figures.Counts("applications", "Application launches", "Application", summary.applications,
                     summary.launches) +
      figures.Counts("events", "Records by kind", "Event", summary.events, summary.records);
  slots["settings"] = SettingsCards(summary);
  slots["errors"] = ErrorsCard("Undecodable datagrams", "Kind", summary.undecodable, true) +
                    ErrorsCard("Refused datagrams", "Reason", summary.refused, false);
  slots["outside"] =
      fmt::format("Of {} in this range, {} were such.", Plural(summary.reading.turns, "page turn"),
                  FormatNumber(summary.turns_outside));
  const std::string about =
      fmt::format("Made on {} from {}. Days and hours are local.",
                  LocalDateTime(summary.generated_ms), Plural(summary.records, "record"));
  return RenderShell({{"title", "Usage report"},
                      {"range", RangeText(summary.range)},
                      {"about", about},
                      {"main", FillTemplate(assets::kDevice, slots)}},
                     figures.Data());
}

}  // namespace velmora::usage_stat::report
