// What a report says: aggregates of a range of time, small however many records they come from, and
// how they are read from the database.

#ifndef TOOLS_REPORT_SUMMARY_H_
#define TOOLS_REPORT_SUMMARY_H_

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/report/calendar.h"
#include "tools/store/reader.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::report {

// How often something occurs.
struct Count {
  std::string name;
  std::int64_t count = 0;
};

struct Reading {
  std::int64_t time_ms = 0;
  std::int64_t turns = 0;  // page events: turns and jumps
  std::int64_t paced = 0;  // of these, turns inside a session: what a pace can be told from

  Reading& operator+=(const Reading& other) {
    time_ms += other.time_ms;
    turns += other.turns;
    paced += other.paced;
    return *this;
  }
  bool operator==(const Reading&) const = default;
};

struct BookReading {
  std::int32_t id = 0;
  Reading reading;
  std::int64_t openings = 0;
  std::int64_t lookups = 0;  // words looked up
  std::string title;         // empty when no record tells it
  std::string file_name;     // likewise

  // What page turns tell, as far as they name the book and its pages; 0 where they don't.
  std::int32_t pages = 0;     // how many it has
  std::int32_t furthest = 0;  // the furthest page that was turned to
  std::int64_t begun_ms = 0;  // the first turn, when it was within the first twentieth
  std::int64_t finished_ms = 0;
  std::int64_t finished_after_ms = 0;  // reading time from its beginning until then
  std::map<Day, std::int64_t> turns_by_day;
};

// A named field of a settings record.
struct Setting {
  std::string field;
  std::string latest;         // its value in the latest record
  std::vector<Count> values;  // how many records carry which value
  std::int64_t other_values = 0;
};

struct SettingsGroup {
  std::string event;
  std::int64_t records = 0;
  std::vector<Setting> settings;
};

struct SenderError {
  std::string kind;
  std::int64_t count = 0;
  std::string senders;  // user ids, joined with commas
  std::string example;  // reason of the latest one
};

struct Summary {
  Range range;
  std::int64_t generated_ms = 0;

  std::int64_t records = 0;      // in the range
  std::int64_t own = 0;          // of them, what the collector tells of itself
  std::int64_t all_records = 0;  // in the database, archives apart

  Reading reading;                 // all of it
  std::int64_t turns_outside = 0;  // of these turns, those outside any session
  std::int64_t sessions = 0;       // with at least one page event in the range
  std::int64_t openings = 0;
  std::map<Day, Reading> days;                    // those with any reading
  std::array<std::array<Reading, 24>, 7> week{};  // by weekday, from Monday, and hour

  std::vector<BookReading> books;  // most read first, kMostBooks at most
  std::int64_t all_books = 0;      // opened or read in the range
  Reading other_books;             // what `books` leaves out

  std::vector<Count> applications;
  std::int64_t launches = 0;
  std::map<Day, std::int64_t> launches_by_day;
  std::int64_t lookups = 0;
  std::vector<Count> words;  // looked up; empty unless asked for
  std::vector<SettingsGroup> settings;
  std::vector<Count> events;

  std::vector<SenderError> undecodable;
  std::vector<SenderError> refused;
  std::int64_t errors = 0;            // the sum of both
  std::vector<std::string> problems;  // archives that could not be read
};

// More books than these are told as a sum.
constexpr std::size_t kMostBooks = 100;

struct SummaryOptions {
  bool with_words = false;  // tell which words were looked up, not only how many
};

// Sums up what `history` holds of `range`, archives included. The range must lie on the calendar
// and be no longer than kLongestRangeMs; it is refused otherwise.
base::Status ReadSummary(store::History* history, Range range, SummaryOptions options,
                         Summary* summary);

// A hundred years: more days than that make no page to look at.
constexpr std::int64_t kLongestRangeMs = std::int64_t{36525} * 24 * 3600 * 1000;

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_SUMMARY_H_
