#include "tools/report/page.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/report/assets.h"
#include "tools/report/series.h"

namespace velmora::usage_stat::report {

namespace {

using Json = nlohmann::ordered_json;
using Texts = std::map<std::string_view, std::string>;

constexpr std::size_t kMostBars = 12;
constexpr std::size_t kMostRows = 200;
constexpr std::array<const char*, 7> kWeekdays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

std::string Plural(std::int64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", FormatNumber(count), noun, count == 1 ? "" : "s");
}

// `kTemplate` with each {{slot}} filled. What is filled in is not searched for slots.
std::string FillTemplate(std::string_view text, const Texts& slots) {
  std::string page;
  while (true) {
    const std::size_t begin = text.find("{{");
    const std::size_t end = text.find("}}", begin);
    if (end == std::string_view::npos) return page.append(text);
    page.append(text.substr(0, begin));
    page.append(slots.at(text.substr(begin + 2, end - begin - 2)));
    text.remove_prefix(end + 2);
  }
}

// JSON that can stand in a script element whatever its texts hold.
std::string EmbedJson(const Json& json) {
  const std::string text = json.dump(-1, ' ', true, Json::error_handler_t::replace);
  std::string embedded;
  embedded.reserve(text.size());
  for (const char c : text) {
    if (c == '<') {
      embedded += "\\u003c";
    } else {
      embedded += c;
    }
  }
  return embedded;
}

// How a content security policy names an inline script or style.
std::string SourceHash(std::string_view source) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  EVP_Digest(source.data(), source.size(), digest.data(), &size, EVP_sha256(), nullptr);
  std::array<unsigned char, 4 * (EVP_MAX_MD_SIZE + 2) / 3 + 1> base64{};
  const int length = EVP_EncodeBlock(base64.data(), digest.data(), static_cast<int>(size));
  return fmt::format("'sha256-{}'", std::string(base64.begin(), base64.begin() + length));
}

// Nothing may be fetched, and nothing may run but the page's own scripts.
std::string ContentSecurityPolicy() {
  return fmt::format(
      "default-src 'none'; base-uri 'none'; form-action 'none'; img-src data:; style-src {}; "
      "script-src {} {}",
      SourceHash(assets::kStyle), SourceHash(assets::kLibrary), SourceHash(assets::kScript));
}

// A name from a record, kept from changing the direction of the text around it.
std::string Name(std::string_view text) { return "<bdi>" + EscapeHtml(text) + "</bdi>"; }

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

// ---- Tables ----

struct Column {
  std::string_view head;
  bool is_number = false;
};

using Row = std::vector<std::string>;  // cells in HTML, the first one heads its row

std::string Table(std::string_view caption, const std::vector<Column>& columns,
                  const std::vector<Row>& rows) {
  const auto class_of = [](const Column& column) {
    return column.is_number ? " class=\"number\"" : "";
  };
  std::string html = fmt::format(
      "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"{}\"><table><thead><tr>",
      EscapeHtml(caption));
  for (const Column& column : columns) {
    html += fmt::format("<th scope=\"col\"{}>{}</th>", class_of(column), column.head);
  }
  html += "</tr></thead>\n<tbody>\n";
  for (const Row& row : rows) {
    html += "<tr>";
    for (std::size_t i = 0; i < row.size(); ++i) {
      html += i == 0 ? fmt::format("<th scope=\"row\">{}</th>", row[i])
                     : fmt::format("<td{}>{}</td>", class_of(columns[i]), row[i]);
    }
    html += "</tr>\n";
  }
  return html + "</tbody></table></div>\n";
}

std::string Card(std::string_view title, std::string_view note, std::string_view body,
                 bool is_wide = false) {
  return fmt::format("<div class=\"card{}\">\n<h3>{}</h3>\n{}{}</div>\n", is_wide ? " wide" : "",
                     title, note.empty() ? "" : fmt::format("<p class=\"note\">{}</p>\n", note),
                     body);
}

// ---- Figures ----

// A measure and how it is told.
struct Unit {
  const char* name;    // as the script knows it
  const char* colour;  // of the style sheet
  std::int64_t Reading::*member;
  std::string (*format)(std::int64_t);
};

constexpr Unit kTime{"time", "time", &Reading::time_ms, FormatDuration};
constexpr Unit kTurns{"count", "turns", &Reading::turns, FormatNumber};
constexpr Unit kCounts{"count", "count", nullptr, FormatNumber};

// Collects the page's charts. Each has a table behind it with the same numbers.
class Figures {
 public:
  // `description` is read out in the chart's place.
  std::string Add(const std::string& id, const std::string& title, std::string_view note,
                  const std::string& description, Json chart, const std::string& table,
                  bool is_wide = false) {
    charts_[id] = std::move(chart);
    return Card(title, note,
                fmt::format("<div class=\"chart\"><canvas data-chart=\"{}\" role=\"img\" "
                            "aria-label=\"{}\"></canvas></div>\n"
                            "<details><summary>Table: {}</summary>\n{}</details>\n",
                            id, EscapeHtml(description), title, table),
                is_wide);
  }

  Json Data() const { return {{"charts", charts_}}; }

 private:
  Json charts_ = Json::object();
};

std::string EmptyCard(std::string_view title, bool is_wide = false) {
  return Card(title, "Nothing in this range.", "", is_wide);
}

std::string DaysFigure(const Summary& summary, const std::string& id, const char* what,
                       const Unit& unit, Figures* figures) {
  const Series series = SeriesOf(summary);
  const std::string title = fmt::format("{} per {}", what, series.step);
  if (summary.reading.*unit.member == 0) return EmptyCard(title, true);

  Json chart = {{"kind", "columns"}, {"unit", unit.name},       {"colour", unit.colour},
                {"labels", {}},      {"titles", Json::array()}, {"values", Json::array()}};
  chart["labels"] = Json::array();
  const Series::Bucket* most = &series.buckets.front();
  for (const Series::Bucket& bucket : series.buckets) {
    chart["labels"].push_back(bucket.label);
    chart["titles"].push_back(bucket.title);
    chart["values"].push_back(bucket.reading.*unit.member);
    if (bucket.reading.*unit.member > most->reading.*unit.member) most = &bucket;
  }
  std::vector<Row> rows;
  for (const auto& [day, reading] : summary.days) {
    if (reading.*unit.member == 0) continue;
    rows.push_back(
        {fmt::format("{} {}", kWeekdays[static_cast<std::size_t>(WeekdayOf(day))], LongDate(day)),
         unit.format(reading.*unit.member)});
  }
  const std::string peak =
      fmt::format("Most: {}, {}.", most->title, unit.format(most->reading.*unit.member));
  return figures->Add(id, title, peak,
                      fmt::format("Bar chart. {} The table below has every day.", peak),
                      std::move(chart), Table(title, {{"Day"}, {what, true}}, rows), true);
}

std::string WeekFigure(const Summary& summary, const std::string& id, const char* what,
                       const Unit& unit, Figures* figures) {
  const std::string title = fmt::format("{} per hour of the week", what);
  if (summary.reading.*unit.member == 0) return EmptyCard(title);

  Json values = Json::array();
  std::vector<Row> rows(24);
  std::size_t most_day = 0;
  std::size_t most_hour = 0;
  for (std::size_t hour = 0; hour < 24; ++hour) rows[hour] = {fmt::format("{:02}:00", hour)};
  for (std::size_t day = 0; day < 7; ++day) {
    Json hours = Json::array();
    for (std::size_t hour = 0; hour < 24; ++hour) {
      const std::int64_t value = summary.week[day][hour].*unit.member;
      if (value > summary.week[most_day][most_hour].*unit.member) {
        most_day = day;
        most_hour = hour;
      }
      hours.push_back(value);
      rows[hour].push_back(value == 0 ? "–" : unit.format(value));
    }
    values.push_back(std::move(hours));
  }
  std::vector<Column> columns = {{"Hour"}};
  for (const char* weekday : kWeekdays) columns.push_back({weekday, true});
  const std::string peak =
      fmt::format("Most: {} {:02}:00 to {:02}:00, {}.", kWeekdays[most_day], most_hour,
                  most_hour + 1, unit.format(summary.week[most_day][most_hour].*unit.member));
  const std::string scale = fmt::format(
      " <span class=\"scale\" aria-hidden=\"true\">Less <span class=\"ramp {}\"></span> "
      "More</span>",
      unit.colour);
  return figures->Add(
      id, title, peak + scale, fmt::format("Heat map of weekdays and hours. {}", peak),
      {{"kind", "hours"}, {"unit", unit.name}, {"colour", unit.colour}, {"values", values}},
      Table(title, columns, rows));
}

Json RowsChart(const Unit& unit) {
  return {{"kind", "rows"},
          {"unit", unit.name},
          {"colour", unit.colour},
          {"labels", Json::array()},
          {"values", Json::array()}};
}

std::string NameOf(const BookReading& book) {
  if (!book.title.empty()) return book.title;
  if (!book.file_name.empty()) return book.file_name;
  return fmt::format("Book {}", book.id);
}

std::string BooksFigure(const Summary& summary, Figures* figures) {
  constexpr const char* kTitle = "Books by reading time";
  if (summary.books.empty()) return EmptyCard(kTitle, true);

  Json chart = RowsChart(kTime);
  std::vector<Row> rows;
  for (const BookReading& book : summary.books) {
    const std::string name = NameOf(book);
    if (chart["values"].size() < kMostBars && book.reading.time_ms > 0) {
      chart["labels"].push_back(name);
      chart["values"].push_back(book.reading.time_ms);
    }
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
  if (chart["values"].empty()) {
    return Card(kTitle, "Books were opened, but no page was turned soon after.", table, true);
  }
  const std::string note = fmt::format("{} opened or read.", Plural(summary.all_books, "book"));
  const std::string description =
      fmt::format("Bar chart. {} Most read: {}, {}.", note, NameOf(summary.books.front()),
                  FormatDuration(summary.books.front().reading.time_ms));
  return figures->Add("books", kTitle, note, description, std::move(chart), table, true);
}

std::string CountsFigure(const std::string& id, const std::string& title, const char* head,
                         const std::vector<Count>& counts, std::int64_t total, Figures* figures) {
  if (counts.empty()) return EmptyCard(title);

  Json chart = RowsChart(kCounts);
  std::vector<Row> rows;
  std::int64_t others = total;
  for (const Count& count : counts) {
    if (rows.size() == kMostRows) break;
    if (chart["values"].size() < kMostBars) {
      chart["labels"].push_back(count.name);
      chart["values"].push_back(count.count);
    }
    rows.push_back({Name(count.name), FormatNumber(count.count)});
    others -= count.count;
  }
  if (others > 0) rows.push_back({"Others", FormatNumber(others)});
  const std::string description =
      fmt::format("Bar chart. {} in all. Most: {}, {}.", FormatNumber(total), counts.front().name,
                  FormatNumber(counts.front().count));
  return figures->Add(id, title, FormatNumber(total) + " in all.", description, std::move(chart),
                      Table(title, {{head}, {"Count", true}}, rows));
}

// ---- Sections ----

std::string Tile(std::string_view label, const std::string& value, const std::string& note,
                 bool is_alert = false) {
  return fmt::format(
      "<div><dt>{}</dt><dd class=\"value{}\">{}</dd><dd class=\"note\">{}</dd></div>\n", label,
      is_alert ? " alert" : "", value, note);
}

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

std::string EscapeHtml(std::string_view text) {
  std::string html;
  html.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      case '\'':
        html += "&#39;";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
          html += "\uFFFD";
        } else {
          html += c;
        }
    }
  }
  return html;
}

std::string FormatNumber(std::int64_t number) {
  std::string text = std::to_string(number);
  const std::size_t sign = number < 0 ? 1 : 0;
  for (std::size_t end = text.size(); end > sign + 3; end -= 3) text.insert(end - 3, 1, ',');
  return text;
}

std::string FormatDuration(std::int64_t ms) {
  constexpr std::int64_t kMinuteMs = 60000;
  const std::int64_t seconds = (ms + 500) / 1000;
  if (seconds < 60) return fmt::format("{} s", seconds);
  const std::int64_t minutes = (ms + kMinuteMs / 2) / kMinuteMs;
  if (minutes < 60) return fmt::format("{} min", minutes);
  return fmt::format("{} h {:02} min", FormatNumber(minutes / 60), minutes % 60);
}

std::string RenderPage(const Summary& summary) {
  Figures figures;
  Texts slots;
  slots["policy"] = ContentSecurityPolicy();
  slots["range"] = RangeText(summary.range);
  slots["generated"] = LocalDateTime(summary.generated_ms);
  slots["records"] = Plural(summary.records, "record");
  slots["notices"] = Notices(summary);
  slots["tiles"] = Tiles(summary);
  slots["reading"] = DaysFigure(summary, "time-by-day", "Reading time", kTime, &figures) +
                     DaysFigure(summary, "turns-by-day", "Page turns", kTurns, &figures) +
                     WeekFigure(summary, "time-by-hour", "Reading time", kTime, &figures) +
                     WeekFigure(summary, "turns-by-hour", "Page turns", kTurns, &figures);
  slots["books"] = BooksFigure(summary, &figures);
  slots["device"] =
      CountsFigure("applications", "Application launches", "Application", summary.applications,
                   summary.launches, &figures) +
      CountsFigure("events", "Records by kind", "Event", summary.events, summary.records, &figures);
  slots["settings"] = SettingsCards(summary);
  slots["errors"] = ErrorsCard("Undecodable datagrams", "Kind", summary.undecodable, true) +
                    ErrorsCard("Refused datagrams", "Reason", summary.refused, false);
  slots["outside"] =
      fmt::format("Of {} in this range, {} were such.", Plural(summary.reading.turns, "page turn"),
                  FormatNumber(summary.turns_outside));
  slots["licence"] = EscapeHtml(assets::kLicence);
  slots["data"] = EmbedJson(figures.Data());
  slots["style"] = assets::kStyle;
  slots["library"] = assets::kLibrary;
  slots["script"] = assets::kScript;
  return FillTemplate(assets::kPage, slots);
}

}  // namespace velmora::usage_stat::report
