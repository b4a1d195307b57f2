#include "tools/report/sample/sample.h"

#include <array>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <variant>

#include "include/usage_stat.h"
#include "src/events/events.h"
#include "tools/records/record.h"
#include "tools/report/calendar.h"

namespace velmora::usage_stat::report {

namespace {

constexpr std::int64_t kSecondMs = 1000;
constexpr std::int64_t kMinuteMs = 60 * kSecondMs;
constexpr std::int64_t kHourMs = 60 * kMinuteMs;

struct Book {
  const char* path;
  const char* title;
  const char* author;
  int pages;
};

constexpr Book kBooks[] = {
    {"/mnt/ext1/books/the-salt-lantern.epub", "The Salt Lantern", "Ines Varro", 412},
    {"/mnt/ext1/books/alder-walk.fb2", "The Alder Walk", "M. Aldren", 236},
    {"/mnt/ext1/books/quiet-engines.epub", "Quiet Engines: A History of Small Machines",
     "T. Okonjo-Reyes", 528},
    {"/mnt/ext1/books/winter-orchard.epub", "Winter Orchard", "Pia Lindqvarn", 301},
    {"/mnt/ext1/books/harbour.fb2.zip", "Гавань", "О. Северцева", 344},
    {"/mnt/ext1/books/user-manual.pdf", "", "", 88},
    {"/mnt/ext1/books/nine-bridges.epub", "Nine Bridges & Other Stories", "J. Hallam", 190},
};

constexpr const char* kLaunched[] = {"bookshelf.app", "bookshelf.app",  "explorer.app",
                                     "browser.app",   "Dictionary.app", "notes.app",
                                     "sudoku.app",    "bookstore.app"};

class Sampler {
 public:
  Sampler(std::int64_t until_ms, const std::function<void(store::RecordRow)>& take)
      : until_ms_(until_ms), take_(take) {}

  void Run(int days) {
    at_ms_ = until_ms_ - std::int64_t{days} * 24 * kHourMs;
    NewBooks();
    for (int day = 0; day < days; ++day) {
      const std::int64_t midnight =
          Midnight(until_ms_ - std::int64_t{days - 1 - day} * 24 * kHourMs);
      const bool is_weekend = WeekdayOf(clock_.At(midnight).day) >= 5;
      if (Chance(12)) continue;  // a day without the device
      At(midnight + 6 * kHourMs + Between(20, 70) * kMinuteMs);
      TurnOn();
      if (!is_weekend && Chance(75)) Read(Between(15, 35));
      if (is_weekend && Chance(70)) {
        At(midnight + Between(13, 16) * kHourMs + Between(0, 59) * kMinuteMs);
        Launch(Between(0, 3) == 0 ? "chess.app" : "explorer.app");
        Read(Between(30, 110));
      }
      At(midnight + 20 * kHourMs + Between(10, 100) * kMinuteMs);
      for (int i = Between(0, 3); i > 0; --i)
        Launch(kLaunched[Between(0, std::size(kLaunched) - 1)]);
      if (Chance(30)) Settings();
      if (Chance(85)) Read(Between(20, is_weekend ? 100 : 70));
      TurnOff();
    }
  }

 private:
  int Between(int least, int most) {
    return least + static_cast<int>(random_() % static_cast<unsigned>(most - least + 1));
  }
  bool Chance(int percent) { return Between(1, 100) <= percent; }

  std::int64_t Midnight(std::int64_t ms) {
    const LocalHour hour = clock_.At(ms);
    return hour.end_ms - (hour.hour + 1) * kHourMs;
  }

  // Time goes on, never back.
  void At(std::int64_t ms) { at_ms_ = std::max(at_ms_, ms); }

  void Send(Event* event) {
    if (at_ms_ >= until_ms_) return;
    event->timestamp_ = at_ms_;
    std::ostringstream out;
    event->WriteToStream(out);
    store::RecordRow row;
    row.raw = std::move(out).str();
    const auto decoded = records::Decode(row.raw);
    const auto& record = std::get<records::Record>(decoded);
    row.received_ms = at_ms_;
    row.sender = {1200, 1000};
    row.type = record.type;
    row.event = record.event;
    row.timestamp_ms = record.timestamp;
    row.fields = records::Dump(record.fields);
    take_(std::move(row));
    at_ms_ += Between(40, 400);
  }

  template <class EventClass>
  void Send(EventClass event) {
    Send(static_cast<Event*>(&event));
  }

  void TurnOn() {
    Send(TurnOnEvent());
    OrientationEvent orientation;
    orientation.orientation_ = Chance(90) ? 0 : 1;
    Send(orientation);
  }
  void TurnOff() { Send(TurnOffEvent()); }

  void NewBooks() {
    NewBooksEventEx batch;
    batch.application_ = 1;
    for (const Book& book : kBooks) {
      if (*book.title == '\0') continue;
      NewBookRecord& record = batch.records_.emplace_back();
      record.book_id_ = Stat_GetBookId(book.path);
      record.language_ = "en";
      record.first_list_ = {book.author};
      record.file_name_ = FileName(book);
      record.s1_ = book.title;
    }
    batch.count_ = static_cast<std::int32_t>(batch.records_.size());
    Send(batch);
  }

  void Launch(const char* name) {
    if (Chance(12)) {
      StartOutsideApplicationEvent event;
      event.path_ = "/mnt/ext1/applications/clock.app";
      Send(event);
    }
    StartApplicationEvent event;
    event.process_id_ = 1300;
    event.application_ = static_cast<std::int16_t>(Stat_GetApplicationId(name));
    Send(event);
    at_ms_ += Between(5, 240) * kSecondMs;
  }

  void Settings() {
    LibrarySettingsEvent library;
    library.library_mode_ = static_cast<char>(Between(0, 1));
    library.library_sort_by_ = static_cast<char>(Between(0, 3));
    library.library_view_ = static_cast<char>(Chance(70) ? STAT_LIBRARY_VIEW_COVERS : 0);
    Send(library);
    SetFontParamsEvent font;
    font.font_ = Chance(65) ? "DejaVu Serif" : "Liberation Sans";
    font.line_break_ = STAT_LINE_BREAK_HYPHENS;
    font.update_mode_ = static_cast<char>(Between(0, 2));
    font.packed_margins_ = 0x04040606;
    Send(font);
    SetReadingModeEvent mode;
    mode.scale_type_ = static_cast<char>(Chance(80) ? STAT_SCALE_TYPE_FIT_WIDTH : 0);
    mode.crop_type_ = static_cast<char>(Between(0, 1));
    Send(mode);
  }

  static std::string FileName(const Book& book) {
    const std::string path = book.path;
    return path.substr(path.rfind('/') + 1);
  }

  // A sitting of about so many minutes, most often with the book of last time.
  void Read(int minutes) {
    if (Chance(30)) book_ = static_cast<std::size_t>(Between(0, std::size(kBooks) - 1));
    const Book& book = kBooks[book_];
    const std::int32_t id = Stat_GetBookId(book.path);
    StartOpenBookEvent start;
    start.book_id_ = id;
    start.application_ = 37;
    Send(start);
    OpenBookEvent open;
    open.book_id_ = id;
    open.language_ = "en";
    open.file_name_ = FileName(book);
    Send(open);
    if (Chance(10)) Send(GoToPageEventNew());
    const std::int64_t end = at_ms_ + minutes * kMinuteMs;
    while (at_ms_ < end) {
      at_ms_ += Between(18, 75) * kSecondMs;
      if (Chance(1)) at_ms_ += Between(11, 25) * kMinuteMs;  // the kettle
      ChangePageEvent turn;
      turn.a_ = id;
      page_ = page_ % book.pages + 1;
      turn.c_ = page_;
      turn.d_ = page_ + 1;
      turn.e_ = book.pages;
      Send(turn);
      if (Chance(2)) {
        UseDictionaryEvent dictionary;
        dictionary.a_ = id;
        dictionary.b_ = "arboretum";
        Send(dictionary);
      }
      if (Chance(1)) Send(AddNoteEvent());
    }
  }

  std::int64_t until_ms_;
  const std::function<void(store::RecordRow)>& take_;
  std::mt19937 random_{20260509};  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same each time
  LocalClock clock_;
  std::int64_t at_ms_ = 0;
  std::size_t book_ = 0;
  std::int32_t page_ = 0;
};

}  // namespace

void SampleRecords(int days, std::int64_t until_ms,
                   const std::function<void(store::RecordRow)>& take) {
  Sampler(until_ms, take).Run(days);
}

}  // namespace velmora::usage_stat::report
