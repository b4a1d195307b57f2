#include "tools/report/record_counter.h"

#include <algorithm>
#include <array>
#include <istream>
#include <limits>
#include <streambuf>
#include <string_view>

#include "src/events/events.h"
#include "src/stat_event/event_factory.h"
#include "src/stat_event/fields.h"
#include "tools/records/record.h"
#include "tools/report/calendar.h"

namespace velmora::usage_stat::report {

namespace {

using records::Json;

// How many page events wait for earlier ones.
constexpr std::size_t kMostHeld = std::size_t{1} << 17U;

// Names of more books than these are not kept.
constexpr std::size_t kMostNames = 20000;

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

std::string ApplicationName(std::int64_t id) {
  std::string name = records::ValueName(Kind::kApplication, id);
  return name.empty() ? "application " + std::to_string(id) : name;
}

std::string SettingText(Kind kind, const Json& value) {
  if (value.is_number_integer()) {
    const auto number = value.get<std::int64_t>();
    std::string name = records::ValueName(kind, number);
    return name.empty() ? std::to_string(number) : name;
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

// The entry of `key`, which is made when there is none. Most keys are the largest so far.
template <class Map>
typename Map::mapped_type& Newest(Map* map, const typename Map::key_type& key) {
  if (!map->empty() && map->rbegin()->first == key) return map->rbegin()->second;
  return (*map)[key];
}

}  // namespace

// Reads the payload of one record after another with the library's classes, in place.
class RecordCounter::Payload : private std::streambuf {
 public:
  Payload() : in_(this) {}

  // Whether `datagram` is a record of this class, to the last byte. `event` may be used again when
  // it holds no texts.
  template <class EventClass>
  bool Read(const std::string& datagram, EventClass* event) {
    constexpr std::size_t kEnvelope = 2 + 8;
    if (datagram.size() < kEnvelope) return false;
    char* begin = const_cast<char*>(datagram.data());  // a get area is never written to
    setg(begin, begin + kEnvelope, begin + datagram.size());
    in_.clear();
    return ReadFields(in_, event) == 0 && gptr() == egptr();
  }

  // Of classes without texts, made once.
  ChangePageEvent turn;
  ChangePageEventEx long_turn;
  GoToPageEventNew jump;

 private:
  std::istream in_;
};

RecordCounter::RecordCounter(Range range, SummaryOptions options, bool hold_all)
    : range_(range),
      options_(options),
      hold_all_(hold_all),
      payload_(std::make_unique<Payload>()),
      counted_ms_(std::numeric_limits<std::int64_t>::min()) {
  summary_.range = range;
}

RecordCounter::~RecordCounter() = default;

void RecordCounter::Add(const store::RecordRow& row) {
  if (row.timestamp_ms < range_.since_ms) return AddBefore(row);
  holds_range_ = true;
  switch (row.type) {
    case EventFactory::kOpenBook:
    case EventFactory::kChangePage:
    case EventFactory::kGoToPage:
    case EventFactory::kGoToPageNew:
      Hold(ReadActivity(row));
      break;
    case EventFactory::kNewBooks:
      LearnNewBooks(row);
      break;
    default:
      break;
  }
  if (!range_.Holds(row.timestamp_ms)) return;
  ++summary_.records;
  CountEvent(row.event);
  switch (row.type) {
    case EventFactory::kStartApplication:
    case EventFactory::kStartOutsideApplication:
      AddLaunch(row);
      break;
    case EventFactory::kUseDictionary:
      AddLookup(row);
      break;
    case EventFactory::kNewJournalFile:
    case EventFactory::kOpenJournalFile:
    case EventFactory::kSendArchive:
    case EventFactory::kDeleteArchive:
      ++summary_.own;
      break;
    default:
      if (TellsSettings(row.type)) AddSettings(row);
  }
}

// Of what came before the range only the last session may reach into it: what came before its
// opening is let go.
void RecordCounter::AddBefore(const store::RecordRow& row) {
  switch (row.type) {
    case EventFactory::kNewBooks:
      LearnNewBooks(row);
      break;
    case EventFactory::kOpenBook: {
      const Activity opening = ReadActivity(row);
      if (opened_before_ms_ && opening.at_ms < *opened_before_ms_) break;
      opened_before_ms_ = opening.at_ms;
      if (!holds_range_) {
        std::erase_if(held_, [&](const Activity& each) { return each.at_ms < opening.at_ms; });
      }
      Hold(opening);
      break;
    }
    case EventFactory::kChangePage:
    case EventFactory::kGoToPage:
    case EventFactory::kGoToPageNew:
      if (!opened_before_ms_ || row.timestamp_ms < *opened_before_ms_) break;
      Hold({row.timestamp_ms, 0, 0, 0, 0, Activity::Kind::kTurn});
      break;
    default:
      break;
  }
}

// What can't be read stays an event of its kind that tells no more: anybody can write to a file.
RecordCounter::Activity RecordCounter::ReadActivity(const store::RecordRow& row) {
  using Kind = Activity::Kind;
  Payload& payload = *payload_;
  const std::int64_t at_ms = row.timestamp_ms;
  if (row.type == EventFactory::kChangePage) {
    ChangePageEvent& turn = payload.turn;
    if (payload.Read(row.raw, &turn)) {
      return {at_ms, turn.a_, turn.c_, turn.d_, turn.e_, Kind::kTurn};
    }
    ChangePageEventEx& longer = payload.long_turn;
    if (payload.Read(row.raw, &longer)) {
      return {at_ms, longer.a_, longer.c_, longer.d_, longer.e_, Kind::kTurn};
    }
    return {at_ms, 0, 0, 0, 0, Kind::kTurn};
  }
  if (row.type == EventFactory::kOpenBook) {
    OpenBookEvent opening;
    if (!payload.Read(row.raw, &opening)) return {at_ms, 0, 0, 0, 0, Kind::kOpening};
    LearnNames(opening.book_id_, "", std::move(opening.file_name_));
    return {at_ms, opening.book_id_, 0, 0, 0, Kind::kOpening};
  }
  GoToPageEventNew& jump = payload.jump;
  if (row.type == EventFactory::kGoToPageNew && payload.Read(row.raw, &jump)) {
    return {at_ms, jump.a_, jump.c_, jump.d_, jump.e_, Kind::kJump};
  }
  return {at_ms, 0, 0, 0, 0, Kind::kJump};
}

// Most records are of the class of the one before.
void RecordCounter::CountEvent(const std::string& event) {
  if (event != event_) {
    if (of_event_ > 0) events_.Add(event_, of_event_);
    event_ = event;
    of_event_ = 0;
  }
  ++of_event_;
}

void RecordCounter::LearnNewBooks(const store::RecordRow& row) {
  NewBooksEventEx batch;
  if (!payload_->Read(row.raw, &batch)) return;
  for (NewBookRecord& book : batch.records_) {
    LearnNames(book.book_id_, std::move(book.s1_), std::move(book.file_name_));
  }
}

// Later names win.
void RecordCounter::LearnNames(std::int32_t book_id, std::string title, std::string file_name) {
  if (names_.size() >= kMostNames && !names_.contains(book_id)) return;
  BookNames& names = names_[book_id];
  if (!title.empty()) names.title = Shortened(std::move(title));
  if (!file_name.empty()) names.file_name = Shortened(std::move(file_name));
}

void RecordCounter::AddLaunch(const store::RecordRow& row) {
  ++summary_.launches;
  ++Newest(&summary_.launches_by_day, clock_.At(row.timestamp_ms).day);
  if (row.type == EventFactory::kStartApplication) {
    StartApplicationEvent launch;
    payload_->Read(row.raw, &launch);
    applications_.Add(ApplicationName(launch.application_));
  } else {
    StartOutsideApplicationEvent launch;
    payload_->Read(row.raw, &launch);
    applications_.Add(Shortened(FileName(launch.path_)));
  }
}

void RecordCounter::AddLookup(const store::RecordRow& row) {
  UseDictionaryEvent lookup;
  if (!payload_->Read(row.raw, &lookup)) return;
  ++summary_.lookups;
  if (lookup.a_ != 0) ++BookOf(lookup.a_).lookups;
  if (options_.with_words) words_.Add(Shortened(std::move(lookup.b_)));
}

void RecordCounter::AddSettings(const store::RecordRow& row) {
  Settings& settings = settings_[row.event];
  const bool is_latest = settings.records == 0 || row.timestamp_ms >= settings.latest_ms;
  if (is_latest) settings.latest_ms = row.timestamp_ms;
  ++settings.records;
  const auto read = records::Read(row.raw);
  if (!read) return;
  const Json values = read->type->values_of(*read->event);
  for (std::size_t i = 0; i < values.size(); ++i) {
    const records::FieldType& type = read->type->fields[read->type->slots[i].first];
    if (type.kind == Kind::kOwn || type.kind == Kind::kBookId) continue;
    const std::string& name = type.name;
    const std::string text = SettingText(type.kind, values[i]);
    auto field = std::find_if(settings.fields.begin(), settings.fields.end(),
                              [&name](const auto& known) { return known.first == name; });
    if (field == settings.fields.end()) {
      field = settings.fields.insert(field, {name, SettingValues{}});
    }
    field->second.values.Add(text);
    if (is_latest) field->second.latest = text;
  }
}

// ---- Reading, in order of time ----

BookReading& RecordCounter::BookOf(std::int32_t id) {
  if (!book_ || book_->first != id) book_ = &*books_.try_emplace(id).first;
  return book_->second;
}

void RecordCounter::Hold(const Activity& activity) {
  if (activity.at_ms < counted_ms_) is_out_of_order_ = true;
  held_.push_back(activity);
  if (held_.size() >= kMostHeld && !hold_all_) CountHeld(kMostHeld / 2);
}

// Counts the earliest of what is held.
void RecordCounter::CountHeld(std::size_t count) {
  const auto earlier = [](const Activity& a, const Activity& b) { return a.at_ms < b.at_ms; };
  if (!std::is_sorted(held_.begin(), held_.end(), earlier)) {
    std::stable_sort(held_.begin(), held_.end(), earlier);
  }
  const auto end = held_.begin() + static_cast<std::ptrdiff_t>(count);
  for (auto activity = held_.begin(); activity != end; ++activity) CountActivity(*activity);
  if (count > 0) counted_ms_ = held_[count - 1].at_ms;
  held_.erase(held_.begin(), end);
}

// Every stretch of reading counts in the days and hours that it lies in, cut to the range, so that
// the reports of two neighbouring ranges add up to that of both.
void RecordCounter::CountActivity(const Activity& activity) {
  const auto credit = [&](const LocalHour& hour, Reading* book, const Reading& reading) {
    const auto weekday = static_cast<std::size_t>(hour.weekday);
    summary_.reading += reading;
    Newest(&summary_.days, hour.day) += reading;
    summary_.week[weekday][static_cast<std::size_t>(hour.hour)] += reading;
    if (book) *book += reading;
  };
  const bool in_range = range_.Holds(activity.at_ms);
  if (activity.kind == Activity::Kind::kOpening) {
    tracker_.Open(activity.at_ms, activity.book_id);
    if (in_range) {
      ++summary_.openings;
      ++BookOf(activity.book_id).openings;
    }
    return;
  }
  BookReading* book = nullptr;
  if (const auto span = tracker_.TurnPage(activity.at_ms)) {
    const std::int64_t end = std::min(span->end_ms, range_.until_ms);
    std::int64_t at = std::max(span->begin_ms, range_.since_ms);
    if (at >= end && !in_range) return;
    book = &BookOf(span->book_id);
    if (span->session != counted_session_) ++summary_.sessions;
    counted_session_ = span->session;
    while (at < end) {
      const LocalHour hour = clock_.At(at);
      const std::int64_t until = std::min(end, hour.end_ms);
      credit(hour, &book->reading, {until - at, 0, 0});
      at = until;
    }
  }
  if (!in_range) return;
  const LocalHour hour = clock_.At(activity.at_ms);
  const bool is_turn = activity.kind == Activity::Kind::kTurn;
  credit(hour, book ? &book->reading : nullptr, {0, 1, book && is_turn ? 1 : 0});
  if (book) {
    ++Newest(&book->turns_by_day, hour.day);
  } else {
    ++summary_.turns_outside;
  }
  if (is_turn && activity.book_id != 0) FollowBook(activity);
}

// Where in a book its reader is. Jumps don't tell: they are looks at something too.
void RecordCounter::FollowBook(const Activity& turn) {
  BookReading& book = BookOf(turn.book_id);
  if (turn.pages > 0) book.pages = turn.pages;
  const bool is_first = book.furthest == 0;
  book.furthest = std::max(book.furthest, turn.to_page);
  if (is_first && turn.pages > 0 && turn.from_page <= 1 + turn.pages / 20) {
    book.begun_ms = turn.at_ms;
  }
  if (book.finished_ms == 0 && turn.pages > 0 && turn.to_page >= turn.pages) {
    book.finished_ms = turn.at_ms;
    book.finished_after_ms = book.reading.time_ms;
  }
}

Summary RecordCounter::Finish() {
  CountHeld(held_.size());
  CountEvent("");
  Summary summary = std::move(summary_);
  for (auto& [id, book] : books_) {
    book.id = id;
    if (const auto names = names_.find(id); names != names_.end()) {
      book.title = names->second.title;
      book.file_name = names->second.file_name;
    }
  }
  summary.books = MostReadFirst(books_);
  summary.all_books = static_cast<std::int64_t>(summary.books.size());
  for (std::size_t i = kMostBooks; i < summary.books.size(); ++i) {
    summary.other_books += summary.books[i].reading;
  }
  summary.books.resize(std::min(summary.books.size(), kMostBooks));

  summary.applications = applications_.Sorted();
  summary.events = events_.Sorted();
  summary.words = words_.Sorted();
  for (const auto& [event, settings] : settings_) {
    SettingsGroup group{event, settings.records, {}};
    for (const auto& [field, seen] : settings.fields) {
      group.settings.push_back({field, seen.latest, seen.values.Sorted(), seen.values.uncounted()});
    }
    summary.settings.push_back(std::move(group));
  }
  return summary;
}

}  // namespace velmora::usage_stat::report
