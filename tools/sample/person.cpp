#include "tools/sample/person.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <ostream>
#include <streambuf>
#include <utility>

#include "include/usage_stat.h"
#include "src/events/events.h"
#include "src/measurements/device_models.h"
#include "src/measurements/measurements.h"

namespace velmora::usage_stat::sample {

namespace {

constexpr std::int64_t kSecondMs = 1000;
constexpr std::int64_t kMinuteMs = 60 * kSecondMs;
constexpr std::int64_t kHourMs = 60 * kMinuteMs;

constexpr const char* kLaunched[] = {
    "bookshelf.app", "bookshelf.app", "explorer.app", "browser.app",  "Dictionary.app", "notes.app",
    "sudoku.app",    "bookstore.app", "chess.app",    "calendar.app", "settings.app"};

constexpr const char* kWords[] = {
    "arboretum", "lantern", "isthmus", "quay",    "sextant", "fallow",   "gable",
    "hawser",    "inkling", "jetty",   "kiln",    "larder",  "meander",  "nadir",
    "osier",     "pewter",  "quarry",  "rampart", "sedge",   "tarn",     "umber",
    "vellum",    "wherry",  "yarrow",  "zither",  "almanac", "barnacle", "culvert",
    "dovecote",  "estuary", "fathom",  "gimlet",  "hummock", "ingot",    "joinery"};

constexpr const char* kFonts[] = {"DejaVu Serif", "DejaVu Serif", "Liberation Sans", "Noto Serif",
                                  "Linux Libertine"};

constexpr const char* kVersions[] = {"6.4.1120", "6.5.1288", "6.6.1402", "6.7.1655",
                                     "6.8.1790", "6.8.1834", "6.9.2011", "6.10.2140"};
constexpr int kDaysBetweenVersions = 45;

constexpr const char* kOf[] = {"Salt",  "Alder", "Quiet",  "Winter", "Nine",  "Copper",
                               "Glass", "Long",  "Silver", "Hollow", "Paper", "Blue",
                               "Stone", "Late",  "Green",  "Far",    "Small", "Bright"};
constexpr const char* kThings[] = {"Lantern", "Walk",   "Engines", "Orchard", "Bridges", "Harbour",
                                   "Letters", "Meadow", "Windows", "Road",    "Islands", "Garden",
                                   "Clocks",  "River",  "Stories", "Hours",   "House",   "Summer"};
constexpr const char* kFirstNames[] = {"Ines", "M.", "Tola", "Pia", "O.", "Jon", "Edda", "R. K."};
constexpr const char* kLastNames[] = {"Varro",  "Aldren", "Okonjo",  "Lindqvarn", "Severova",
                                      "Hallam", "Brandt", "Castelo", "Dumitrel",  "Fenn"};

// Appends what an event writes to a text, without the cost of a string stream for each record.
class TextBuffer : public std::streambuf {
 public:
  explicit TextBuffer(std::string* text) : text_(text) {}

 protected:
  std::streamsize xsputn(const char* bytes, std::streamsize size) override {
    text_->append(bytes, static_cast<std::size_t>(size));
    return size;
  }
  int_type overflow(int_type byte) override {
    text_->push_back(traits_type::to_char_type(byte));
    return byte;
  }

 private:
  std::string* text_;
};

std::string FileName(const Book& book) { return book.path.substr(book.path.rfind('/') + 1); }

// "the-salt-lantern"; letters that are not English stay as they are.
std::string Slug(const std::string& title) {
  std::string slug;
  for (const char c : title) {
    const bool is_upper = c >= 'A' && c <= 'Z';
    const bool is_kept = is_upper || (c >= 'a' && c <= 'z') || static_cast<signed char>(c) < 0;
    if (is_kept) {
      slug += is_upper ? static_cast<char>(c - 'A' + 'a') : c;
    } else if (!slug.empty() && slug.back() != '-') {
      slug += '-';
    }
  }
  return slug;
}

std::vector<Book> MakeLibrary() {
  std::vector<Book> books = {
      {"", "Quiet Engines: A History of Small Machines", "T. Okonjo-Reyes", "en", 0, 528},
      {"", "Гавань", "О. Северцева", "ru", 0, 344},
      {"", "Nine Bridges & Other Stories", "J. Hallam", "en", 0, 190},
  };
  Dice dice(7);
  for (const char* thing : kThings) {
    for (const char* of : kOf) {
      const char* first = kFirstNames[dice.Between(0, std::size(kFirstNames) - 1)];
      const char* last = kLastNames[dice.Between(0, std::size(kLastNames) - 1)];
      books.push_back({"", std::string("The ") + of + " " + thing, std::string(first) + " " + last,
                       dice.Chance(80) ? "en" : "de", 0, dice.Around(320, 220)});
    }
  }
  for (Book& book : books) {
    const int kind = dice.Between(1, 10);
    book.path = "/mnt/ext1/books/" + Slug(book.title) +
                (kind < 8    ? ".epub"
                 : kind < 10 ? ".fb2.zip"
                             : ".pdf");
    book.id = Stat_GetBookId(book.path.c_str());
  }
  return books;
}

}  // namespace

std::uint64_t Dice::Next() {
  state_ += 0x9E3779B97F4A7C15U;
  std::uint64_t z = state_;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
  return z ^ (z >> 31);
}

int Dice::Between(int least, int most) {
  const auto span = static_cast<std::uint64_t>(most) - static_cast<std::uint64_t>(least) + 1;
  return least + static_cast<int>((Next() >> 16) % span);
}

const std::vector<Book>& Library() {
  static const std::vector<Book> books = MakeLibrary();
  return books;
}

Person::Person(std::uint64_t seed, int number, int days, Take take)
    : take_(std::move(take)), dice_(seed * 1000003 + static_cast<std::uint64_t>(number)) {
  dice_.Next();
  // Half of the devices are in use from the first day on; some people stop before the last one.
  first_day_ = number == 0 || dice_.Chance(50) ? 0 : dice_.Between(0, days * 4 / 5);
  last_day_ = number != 0 && dice_.Chance(35) ? first_day_ + dice_.Between(2, 150) : days;
  weekday_percent_ = number == 0 ? 88 : dice_.Around(76, 60);
  weekend_percent_ = std::clamp(weekday_percent_ + dice_.Around(5, 30), 5, 98);
  commutes_ = number == 0 || dice_.Chance(40);
  evening_hour_ = dice_.Around(20, 2);
  minutes_ = dice_.Around(84, 70);
  seconds_a_page_ = dice_.Around(38, 20);
  lookups_ = dice_.Chance(40) ? dice_.Between(1, 40) : 0;
  faithful_percent_ = dice_.Between(60, 97);
  dark_covers_ = dice_.Chance(70);
  font_ = kFonts[dice_.Between(0, std::size(kFonts) - 1)];
  margins_ = dice_.Chance(60) ? 0x04040606 : 0x0A0A0C0C;
  model_code_ =
      kDeviceModels[static_cast<std::size_t>(dice_.Around(22, 9)) % kDeviceModels.size()].code;
  update_lag_ = dice_.Chance(15) ? 1000 : dice_.Between(0, 60);
}

void Person::Live(int day, int weekday, std::int64_t midnight_ms, std::int64_t until_ms) {
  until_ms_ = until_ms;
  if (day < first_day_) return;
  if (day == first_day_) {
    At(midnight_ms + dice_.Between(10, 19) * kHourMs);
    Begin();
  }
  const bool is_weekend = weekday >= 5;
  // Who has lost interest picks the device up once in a while.
  const int percent = day > last_day_ ? 2 : is_weekend ? weekend_percent_ : weekday_percent_;
  if (!dice_.Chance(percent)) return;

  if (commutes_ && !is_weekend && dice_.Chance(75)) {
    At(midnight_ms + 6 * kHourMs + dice_.Between(20, 100) * kMinuteMs);
    TurnOn(day);
    Read(dice_.Between(15, 35));
    Send(TurnOffEvent());
  }
  if (is_weekend && dice_.Chance(55)) {
    At(midnight_ms + dice_.Between(9, 16) * kHourMs + dice_.Between(0, 59) * kMinuteMs);
    TurnOn(day);
    Launch(dice_.Chance(25) ? "chess.app" : "explorer.app");
    Read(dice_.Around(minutes_ * 3 / 2, minutes_));
    Send(TurnOffEvent());
  }
  At(midnight_ms + evening_hour_ * kHourMs + dice_.Between(0, 100) * kMinuteMs);
  TurnOn(day);
  for (int i = dice_.Between(0, 3); i > 0; --i) {
    Launch(kLaunched[dice_.Between(0, std::size(kLaunched) - 1)]);
  }
  if (dice_.Chance(12)) ChangeSettings();
  if (dice_.Chance(85)) Read(std::max(3, dice_.Around(minutes_, minutes_ * 2 / 3)));
  if (dice_.Chance(4)) {
    KeyboardSettingsEvent keys;
    Send(keys);
  }
  Send(TurnOffEvent());
}

// Time goes on, never back.
void Person::At(std::int64_t ms) { at_ms_ = std::max(at_ms_, ms); }

void Person::Send(Event* event) {
  if (at_ms_ >= until_ms_) return;
  event->timestamp_ = at_ms_;
  buffer_.clear();
  TextBuffer text(&buffer_);
  std::ostream out(&text);
  event->WriteToStream(out);
  take_(*event, buffer_);
  at_ms_ += dice_.Between(40, 400);
}

void Person::Begin() {
  DeviceInfoMeasurement device;
  for (auto& byte : device.event_.device_id_) byte = static_cast<char>(dice_.Between(0, 127));
  device.event_.model_code_ = model_code_;
  device.event_.partner_name_ = dice_.Chance(70) ? "" : "tellhaus";
  Send(device);
  LanguageMeasurement language;
  language.event_.language_ = std::string(dice_.Chance(70) ? "en" : "de");
  Send(language);
  ChangeSettings();
  for (int i = dice_.Between(4, 12); i > 0; --i) ChooseBook();
  AnnounceBooks(0);
}

// Describes the books of the shelf from the given one on, all but a few that are mere files.
void Person::AnnounceBooks(std::size_t first) {
  NewBooksEventEx batch;
  batch.application_ = 1;
  for (std::size_t i = first; i < shelf_.size(); ++i) {
    const Book& book = *shelf_[i].book;
    if (i % 9 == 8) continue;
    NewBookRecord& record = batch.records_.emplace_back();
    record.book_id_ = book.id;
    record.language_ = book.language;
    record.first_list_ = {book.author};
    record.file_name_ = FileName(book);
    record.s1_ = book.title;
  }
  batch.count_ = static_cast<std::int32_t>(batch.records_.size());
  Send(batch);
}

// Well-known books are chosen more often.
void Person::ChooseBook() {
  const auto most = static_cast<int>(Library().size()) - 1;
  const int rank =
      std::min(dice_.Between(0, most), std::min(dice_.Between(0, most), dice_.Between(0, most)));
  shelf_.push_back({&Library()[static_cast<std::size_t>(rank)], 1});
}

void Person::TurnOn(int day) {
  Send(TurnOnEvent());
  const int newest =
      std::min<int>((day - update_lag_) / kDaysBetweenVersions, std::size(kVersions) - 1);
  if (version_ < 0 || newest > version_) {
    version_ = std::max({0, newest, version_});
    VersionMeasurement version;
    version.event_.version_ = kVersions[version_];
    Send(version);
  }
  if (dice_.Chance(20)) {
    OrientationEvent orientation;
    orientation.orientation_ = dice_.Chance(85) ? 0 : dice_.Between(1, 3);
    Send(orientation);
  }
}

void Person::Launch(const char* name) {
  if (dice_.Chance(8)) {
    StartOutsideApplicationEvent event;
    event.path_ = "/mnt/ext1/applications/clock.app";
    Send(event);
  }
  StartApplicationEvent event;
  event.process_id_ = static_cast<std::int16_t>(dice_.Between(900, 1900));
  event.application_ = static_cast<std::int16_t>(Stat_GetApplicationId(name));
  Send(event);
  at_ms_ += dice_.Between(5, 240) * kSecondMs;
}

void Person::ChangeSettings() {
  LibrarySettingsEvent library;
  library.library_mode_ = static_cast<char>(dice_.Between(0, 1));
  library.library_sort_by_ = static_cast<char>(dice_.Between(0, 3));
  library.library_view_ =
      static_cast<char>(dark_covers_ ? STAT_LIBRARY_VIEW_COVERS : STAT_LIBRARY_VIEW_LIST);
  Send(library);
  if (dice_.Chance(50)) {
    Explorer3SettingsEvent explorer;
    explorer.explorer3_sort_by_ = static_cast<char>(dice_.Between(0, 2));
    Send(explorer);
  }
  const Book* book = shelf_.empty() ? nullptr : shelf_[current_].book;
  SetFontParamsEvent font;
  font.a_ = book ? book->id : 0;
  font.font_ = font_;
  font.line_break_ = STAT_LINE_BREAK_HYPHENS;
  font.update_mode_ = static_cast<char>(dice_.Between(0, 2));
  font.packed_margins_ = margins_;
  Send(font);
  SetReadingModeEvent mode;
  mode.a_ = font.a_;
  mode.scale_type_ = static_cast<char>(dice_.Chance(80) ? STAT_SCALE_TYPE_FIT_WIDTH : 0);
  mode.crop_type_ = static_cast<char>(dice_.Between(0, 1));
  Send(mode);
}

// A sitting of about so many minutes, most often with the book of last time.
void Person::Read(int minutes) {
  if (shelf_.empty()) ChooseBook();
  if (!dice_.Chance(faithful_percent_)) {
    current_ = static_cast<std::size_t>(dice_.Between(0, static_cast<int>(shelf_.size()) - 1));
  }
  if (shelf_[current_].page >= shelf_[current_].book->pages) {  // finished
    ChooseBook();
    current_ = shelf_.size() - 1;
    AnnounceBooks(current_);
  }
  Reading& reading = shelf_[current_];
  const Book& book = *reading.book;
  StartOpenBookEvent start;
  start.book_id_ = book.id;
  start.application_ = 37;
  Send(start);
  OpenBookEvent open;
  open.book_id_ = book.id;
  open.language_ = book.language;
  open.file_name_ = FileName(book);
  Send(open);
  const auto go_to = [&](int page) {
    GoToPageEventNew jump;
    jump.a_ = book.id;
    jump.c_ = reading.page;
    jump.d_ = page;
    jump.e_ = book.pages;
    Send(jump);
  };
  if (dice_.Chance(6)) {  // a look at something else, and back
    go_to(dice_.Between(1, book.pages));
    at_ms_ += dice_.Between(5, 60) * kSecondMs;
    go_to(reading.page);
  }
  const std::int64_t end = at_ms_ + minutes * kMinuteMs;
  while (at_ms_ < end && at_ms_ < until_ms_ && reading.page < book.pages) {
    at_ms_ += std::max(4, dice_.Around(seconds_a_page_, seconds_a_page_ * 3 / 4)) * kSecondMs;
    if (dice_.Between(1, 200) == 1) at_ms_ += dice_.Between(11, 25) * kMinuteMs;  // the kettle
    ChangePageEvent turn;
    turn.a_ = book.id;
    turn.c_ = reading.page;
    turn.d_ = ++reading.page;
    turn.e_ = book.pages;
    Send(turn);
    if (dice_.Between(1, 1000) <= lookups_) {
      UseDictionaryEvent dictionary;
      dictionary.a_ = book.id;
      dictionary.b_ = kWords[dice_.Between(0, std::size(kWords) - 1)];
      Send(dictionary);
    }
    if (dice_.Between(1, 400) == 1) {
      AddNoteEvent note;
      note.a_ = book.id;
      note.b_ = static_cast<std::int16_t>(reading.page);
      Send(note);
    }
  }
}

}  // namespace velmora::usage_stat::sample
