#include "tools/report/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tools/report/assets.h"
#include "tools/report/figures.h"
#include "tools/report/html.h"

namespace velmora::usage_stat::report {

namespace {

// "Library settings" for LibrarySettingsEvent.
std::string WordsOf(std::string_view event) {
  std::string words;
  const std::string_view stem = event.substr(0, event.rfind("Event"));
  for (const char c : stem) {
    const bool is_upper = c >= 'A' && c <= 'Z';
    if (is_upper && !words.empty()) words += ' ';
    words += is_upper && !words.empty() ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return words;
}

// ---- Reading and books ----

std::string TimeFigure(const Summary& summary, const std::string& id, const char* what,
                       const Unit& unit, std::int64_t Reading::*measure, Figures* figures) {
  std::map<Day, std::int64_t> days;
  for (const auto& [day, reading] : summary.days) days[day] = reading.*measure;
  return figures->Time(id, what, unit, summary.range, days);
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
                    FormatNumber(book.reading.turns), FormatNumber(book.openings)});
  }
  if (const auto others = summary.all_books - static_cast<std::int64_t>(summary.books.size());
      others > 0) {
    rows.push_back({Plural(others, "other book"), FormatDuration(summary.other_books.time_ms),
                    FormatNumber(summary.other_books.turns), ""});
  }
  const std::string table = Table(
      kTitle, {{"Book"}, {"Reading time", true}, {"Page turns", true}, {"Openings", true}}, rows);
  if (bars.empty()) {
    return Card(kTitle, "Books were opened, but no page was turned soon after.", table, true);
  }
  const std::string note = fmt::format("{} opened or read.", Plural(summary.all_books, "book"));
  return figures->Ranking("books", kTitle, note,
                          fmt::format("{} Most read: {}, {}.", note, bars.front().label,
                                      FormatDuration(bars.front().value)),
                          kTime, bars, table, true);
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
                 fmt::format("<code>{}</code>, {}", EscapeHtml(group.event),
                             Plural(group.records, "record")),
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
  return Card(title, "", Table(title, columns, rows));
}

std::string RangeText(const Range& range) {
  const Day first = FirstDay(range);
  const Day last = LastDay(range);
  return first == last ? LongDate(first) : fmt::format("{} – {}", LongDate(first), LongDate(last));
}

std::string Notices(const Summary& summary) {
  std::string html;
  if (summary.records == 0) {
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
      TimeFigure(summary, "time-by-day", "Reading time", kTime, &Reading::time_ms, &figures) +
      TimeFigure(summary, "turns-by-day", "Page turns", kTurns, &Reading::turns, &figures) +
      WeekFigure(summary, "time-by-hour", "Reading time", kTime, &Reading::time_ms, &figures) +
      WeekFigure(summary, "turns-by-hour", "Page turns", kTurns, &Reading::turns, &figures);
  slots["books"] = BooksFigure(summary, &figures);
  slots["device"] =
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
