#include "tools/report/record_counter.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "src/stat_event/event_factory.h"
#include "tools/records/record.h"
#include "tools/report/calendar.h"
#include "tools/report/names.h"
#include "tools/report/sessions.h"

namespace velmora::usage_stat::report {

namespace {

using records::Json;

// Whatever is not there or of another type is taken for empty.
std::int64_t NumberIn(const Json& fields, const char* name) {
  const auto field = fields.find(name);
  return field != fields.end() && field->is_number_integer() ? field->get<std::int64_t>() : 0;
}

std::string TextIn(const Json& fields, const char* name) {
  const auto field = fields.find(name);
  return field != fields.end() && field->is_string() ? field->get<std::string>() : std::string();
}

std::int32_t BookIdIn(const Json& fields) {
  return static_cast<std::int32_t>(NumberIn(fields, "book_id"));
}

// Texts may be as long as a datagram; nobody reads that much of a name.
std::string Shortened(std::string text) {
  constexpr std::size_t kLongest = 200;
  if (text.size() <= kLongest) return text;
  std::size_t end = kLongest;
  while (end > 0 && (static_cast<std::uint8_t>(text[end]) & 0xC0) == 0x80) --end;  // a character
  text.resize(end);
  return text + "…";
}

std::string FileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool IsPageEvent(int type) {
  return type == EventFactory::kGoToPage || type == EventFactory::kGoToPageNew ||
         type == EventFactory::kChangePage;
}

bool TellsSettings(int type) {
  constexpr std::array kTypes = {EventFactory::kOrientation,
                                 EventFactory::kLanguageChange,
                                 EventFactory::kLibrarySettings,
                                 EventFactory::kMediaExplorerSettings,
                                 EventFactory::kExplorer3Settings,
                                 EventFactory::kApplicationExplorerSettings,
                                 EventFactory::kSetReadingMode,
                                 EventFactory::kSetFontParams,
                                 EventFactory::kMediaExplorer3Settings,
                                 EventFactory::kSetFontParamsEx};
  return std::find(kTypes.begin(), kTypes.end(), type) != kTypes.end();
}

// A field called by a letter has no meaning that is known here.
bool HasMeaning(const std::string& field) { return field.size() > 1; }

std::string SettingText(const std::string& field, const Json& value) {
  if (value.is_number_integer()) {
    const auto number = value.get<std::int64_t>();
    const std::string_view name = SettingValueName(field, number);
    return name.empty() ? std::to_string(number) : std::string(name);
  }
  return value.is_string() ? Shortened(value.get<std::string>()) : records::Dump(value);
}

std::vector<BookReading> MostReadFirst(const std::unordered_map<std::int32_t, BookReading>& books) {
  std::vector<BookReading> sorted;
  sorted.reserve(books.size());
  for (const auto& [id, book] : books) sorted.push_back(book);
  std::sort(sorted.begin(), sorted.end(), [](const BookReading& a, const BookReading& b) {
    if (a.reading.time_ms != b.reading.time_ms) return a.reading.time_ms > b.reading.time_ms;
    if (a.reading.turns != b.reading.turns) return a.reading.turns > b.reading.turns;
    return a.id < b.id;
  });
  return sorted;
}

}  // namespace

void RecordCounter::Add(const store::RecordRow& row) {
  if (row.type == EventFactory::kOpenBook) {
    activities_.push_back({row.timestamp_ms, BookIdIn(records::ParseFields(row.fields)), true});
  } else if (IsPageEvent(row.type)) {
    activities_.push_back({row.timestamp_ms, 0, false});
  }
  if (!range_.Holds(row.timestamp_ms)) return;
  ++records_;
  events_.Add(row.event);
  if (row.type == EventFactory::kStartApplication ||
      row.type == EventFactory::kStartOutsideApplication) {
    AddLaunch(row);
  } else if (TellsSettings(row.type)) {
    AddSettings(row);
  }
}

void RecordCounter::AddLaunch(const store::RecordRow& row) {
  ++launches_;
  const Json fields = records::ParseFields(row.fields);
  applications_.Add(row.type == EventFactory::kStartApplication
                        ? ApplicationName(NumberIn(fields, "application"))
                        : Shortened(FileName(TextIn(fields, "path"))));
}

void RecordCounter::AddSettings(const store::RecordRow& row) {
  Settings& settings = settings_[row.event];
  const bool is_latest = settings.records == 0 || row.timestamp_ms >= settings.latest_ms;
  if (is_latest) settings.latest_ms = row.timestamp_ms;
  ++settings.records;
  const Json fields = records::ParseFields(row.fields);
  for (const auto& [name, value] : fields.items()) {
    if (!HasMeaning(name)) continue;
    const std::string text = SettingText(name, value);
    auto field = std::find_if(settings.fields.begin(), settings.fields.end(),
                              [&name = name](const auto& known) { return known.first == name; });
    if (field == settings.fields.end()) {
      field = settings.fields.insert(field, {name, SettingValues{}});
    }
    field->second.values.Add(text);
    if (is_latest) field->second.latest = text;
  }
}

// Every stretch of reading counts in the days and hours that it lies in, cut to the range, so that
// the reports of two neighbouring ranges add up to that of both.
void RecordCounter::CountReading(Summary* summary) {
  std::stable_sort(activities_.begin(), activities_.end(),
                   [](const Activity& a, const Activity& b) { return a.at_ms < b.at_ms; });
  LocalClock clock;
  const auto credit = [&](const LocalHour& hour, Reading* book, const Reading& reading) {
    const auto weekday = static_cast<std::size_t>(hour.weekday);
    summary->reading += reading;
    summary->days[hour.day] += reading;
    summary->week[weekday][static_cast<std::size_t>(hour.hour)] += reading;
    if (book) *book += reading;
  };

  SessionTracker tracker;
  std::int64_t counted_session = 0;
  for (const Activity& activity : activities_) {
    const bool in_range = range_.Holds(activity.at_ms);
    if (activity.opening) {
      tracker.Open(activity.at_ms, activity.book_id);
      if (in_range) {
        ++summary->openings;
        ++books_[activity.book_id].openings;
      }
      continue;
    }
    Reading* book = nullptr;
    if (const auto span = tracker.TurnPage(activity.at_ms)) {
      const std::int64_t end = std::min(span->end_ms, range_.until_ms);
      std::int64_t at = std::max(span->begin_ms, range_.since_ms);
      if (at >= end && !in_range) continue;
      book = &books_[span->book_id].reading;
      if (span->session != counted_session) ++summary->sessions;
      counted_session = span->session;
      while (at < end) {
        const LocalHour hour = clock.At(at);
        const std::int64_t until = std::min(end, hour.end_ms);
        credit(hour, book, {until - at, 0});
        at = until;
      }
    }
    if (!in_range) continue;
    credit(clock.At(activity.at_ms), book, {0, 1});
    if (!book) ++summary->turns_outside;
  }
}

Summary RecordCounter::Finish() {
  Summary summary;
  summary.range = range_;
  summary.records = records_;
  CountReading(&summary);

  for (auto& [id, book] : books_) book.id = id;
  summary.books = MostReadFirst(books_);
  summary.all_books = static_cast<std::int64_t>(summary.books.size());
  for (std::size_t i = kMostBooks; i < summary.books.size(); ++i) {
    summary.other_books += summary.books[i].reading;
  }
  summary.books.resize(std::min(summary.books.size(), kMostBooks));

  summary.launches = launches_;
  summary.applications = applications_.Sorted();
  summary.events = events_.Sorted();
  for (const auto& [event, settings] : settings_) {
    SettingsGroup group{event, settings.records, {}};
    for (const auto& [field, seen] : settings.fields) {
      group.settings.push_back({field, seen.latest, seen.values.Sorted(), seen.values.uncounted()});
    }
    summary.settings.push_back(std::move(group));
  }
  return summary;
}

BookNames::BookNames(std::vector<BookReading>* books) {
  for (BookReading& book : *books) books_[book.id] = &book;
}

void BookNames::Add(const store::RecordRow& row) {
  const auto learn = [this](const Json& fields, const char* title) {
    const auto book = books_.find(BookIdIn(fields));
    if (book == books_.end()) return;
    if (std::string text = TextIn(fields, "file_name"); !text.empty()) {
      book->second->file_name = Shortened(std::move(text));
    }
    if (std::string text = title ? TextIn(fields, title) : ""; !text.empty()) {
      book->second->title = Shortened(std::move(text));
    }
  };
  const Json fields = records::ParseFields(row.fields);
  if (row.type == EventFactory::kOpenBook) {
    learn(fields, nullptr);
  } else if (const auto batch = fields.find("books"); batch != fields.end()) {
    for (const Json& description : *batch) learn(description, "s1");
  }
}

}  // namespace velmora::usage_stat::report
