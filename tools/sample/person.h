// People who do not exist, and what the applications of their devices would send.

#ifndef TOOLS_SAMPLE_PERSON_H_
#define TOOLS_SAMPLE_PERSON_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "src/stat_event/event.h"

namespace velmora::usage_stat::sample {

// A small generator whose numbers are the same on every machine and with every library.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : state_(seed) {}

  std::uint64_t Next();
  int Between(int least, int most);
  bool Chance(int percent) { return Between(1, 100) <= percent; }
  // Most often about the middle.
  int Around(int middle, int spread) {
    return middle + (Between(-spread, spread) + Between(-spread, spread)) / 2;
  }

 private:
  std::uint64_t state_;
};

struct Book {
  std::string path;
  std::string title;
  std::string author;
  std::string language;
  std::int32_t id = 0;
  int pages = 0;
};

// The books that people read, the best known first.
const std::vector<Book>& Library();

// One person with a device. Habits, books and device follow from `seed` and `number` alone, and so
// does every record.
class Person {
 public:
  // Receives each record as the bytes of its datagram, in order of time.
  using Take = std::function<void(const Event& event, std::string_view datagram)>;

  // The device is taken into use between the first day and four fifths of `days`.
  Person(std::uint64_t seed, int number, int days, Take take);

  // Lives the day with the given number, from 0 on, which begins at `midnight_ms`. Nothing is sent
  // that lies at or after `until_ms`. Weekdays count from Monday, 0.
  void Live(int day, int weekday, std::int64_t midnight_ms, std::int64_t until_ms);

 private:
  void Begin();
  void TurnOn(int day);
  void Launch(const char* name);
  void ChangeSettings();
  void ChooseBook();
  void AnnounceBooks(std::size_t first);
  void Read(int minutes);
  void At(std::int64_t ms);
  void Send(Event* event);
  template <class EventClass>
  void Send(EventClass event) {
    Send(static_cast<Event*>(&event));
  }

  struct Reading {
    const Book* book = nullptr;
    int page = 1;
  };

  Take take_;
  Dice dice_;
  std::string buffer_;
  std::int64_t at_ms_ = 0;
  std::int64_t until_ms_ = 0;

  // Habits.
  int first_day_ = 0;
  int last_day_ = 0;  // of regular use
  int weekday_percent_ = 0;
  int weekend_percent_ = 0;
  bool commutes_ = false;
  int evening_hour_ = 0;
  int minutes_ = 0;
  int seconds_a_page_ = 0;
  int lookups_ = 0;  // in 1000 pages
  int faithful_percent_ = 0;
  bool dark_covers_ = false;
  const char* font_ = "";
  int margins_ = 0;

  std::int16_t model_code_ = 0;
  int update_lag_ = 0;
  int version_ = -1;

  std::vector<Reading> shelf_;
  std::size_t current_ = 0;
};

}  // namespace velmora::usage_stat::sample

#endif  // TOOLS_SAMPLE_PERSON_H_
