// The rule by which reading time is told, and the days and hours that it falls in.

#include "tools/report/sessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "src/events/events.h"
#include "tools/report/calendar.h"
#include "tools/report/record_counter.h"

namespace velmora::usage_stat::report {
namespace {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kNoon = std::int64_t{20000} * kDay + 12 * kHour;  // 4 October 2024, UTC

class ReportTime : public testing::Test {
 protected:
  ReportTime() { setenv("TZ", "UTC", 1); }
};

store::RecordRow RowOf(Event&& event, std::int64_t at_ms) {
  event.timestamp_ = at_ms;
  std::ostringstream out;
  EXPECT_EQ(event.WriteToStream(out), 0);
  store::RecordRow row;
  row.type = event.type_;
  row.event = "event";
  row.timestamp_ms = at_ms;
  row.raw = std::move(out).str();
  return row;
}

store::RecordRow Opening(std::int64_t at_ms, int book) {
  OpenBookEvent event;
  event.book_id_ = book;
  event.language_ = "en";
  return RowOf(std::move(event), at_ms);
}

store::RecordRow Turn(std::int64_t at_ms, int book, int to_page, int pages) {
  ChangePageEvent event;
  event.a_ = book;
  event.c_ = to_page - 1;
  event.d_ = to_page;
  event.e_ = pages;
  return RowOf(std::move(event), at_ms);
}

// A script of minutes after noon: "o1@0 p@5" opens book 1 at noon and turns a page at 12:05. "s"
// begins to open a book, "n" adds a note, "g" and "j" jump to a page.
void Play(const std::string& script, RecordCounter* counter) {
  std::istringstream in(script);
  for (std::string step; in >> step;) {
    const std::size_t at = step.find('@');
    const auto at_ms =
        kNoon + static_cast<std::int64_t>(std::stod(step.substr(at + 1)) * double{kMinute});
    switch (step[0]) {
      case 'o':
        counter->Add(Opening(at_ms, std::stoi(step.substr(1))));
        break;
      case 'p':
        counter->Add(RowOf(ChangePageEvent(), at_ms));
        break;
      case 'g':
        counter->Add(RowOf(GoToPageEvent(), at_ms));
        break;
      case 'j':
        counter->Add(RowOf(GoToPageEventNew(), at_ms));
        break;
      case 's':
        counter->Add(RowOf(StartOpenBookEvent(), at_ms));
        break;
      default:
        counter->Add(RowOf(AddNoteEvent(), at_ms));
    }
  }
}

TEST_F(ReportTime, SessionsRunFromAnOpeningToTheLastPageEvent) {
  struct Case {
    const char* what;
    const char* script;
    double minutes;
    std::int64_t turns, outside, sessions;
    double first_book;  // minutes of book 1
  };
  const Case cases[] = {
      {"nothing", "", 0, 0, 0, 0, 0},
      {"an opening alone is no reading", "o1@0", 0, 0, 0, 0, 0},
      {"all page events count", "o1@0 p@2 g@4 j@7", 7, 3, 0, 1, 7},
      {"other events do not", "o1@0 p@2 n@7", 2, 1, 0, 1, 2},
      {"the next opening ends it", "o1@0 p@2 o2@5 p@6", 3, 2, 0, 2, 2},
      {"so does one of the same book", "o1@0 p@2 o1@5 p@6", 3, 2, 0, 2, 3},
      {"the start of an opening does not", "o1@0 p@2 s@3 p@6", 6, 2, 0, 1, 6},
      {"ten minutes are no pause", "o1@0 p@10 p@20", 20, 2, 0, 1, 20},
      {"a moment more is one", "o1@0 p@2 p@12.001", 2, 2, 1, 1, 2},
      {"notes don't fill a pause", "o1@0 p@2 n@8 p@14", 2, 2, 1, 1, 2},
      {"after it nothing counts", "o1@0 p@2 p@20 p@21 p@22", 2, 4, 3, 1, 2},
      {"until a book is opened", "o1@0 p@2 p@20 o2@21 p@22", 3, 3, 1, 2, 2},
      {"a pause after the opening too", "o1@0 p@11 p@12", 0, 2, 2, 0, 0},
      {"pages without a book", "p@0 p@1", 0, 2, 2, 0, 0},
      {"times decide, not the order received", "p@7 p@2 o1@0", 7, 2, 0, 1, 7},
      {"at one moment the order received", "o1@0 p@0 o2@0 p@3", 3, 2, 0, 2, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RecordCounter counter({kNoon - kDay, kNoon + kDay}, {});
    Play(c.script, &counter);
    const Summary summary = counter.Finish();
    EXPECT_EQ(double(summary.reading.time_ms) / double{kMinute}, c.minutes);
    EXPECT_EQ(summary.reading.turns, c.turns);
    EXPECT_EQ(summary.turns_outside, c.outside);
    EXPECT_EQ(summary.sessions, c.sessions);
    double first_book = 0;
    for (const BookReading& book : summary.books) {
      if (book.id == 1) first_book = double(book.reading.time_ms) / double{kMinute};
    }
    EXPECT_EQ(first_book, c.first_book);
  }
}

TEST_F(ReportTime, RangesCutSessionsAndAddUp) {
  const auto read = [](std::int64_t since_minute, std::int64_t until_minute) {
    RecordCounter counter({kNoon + since_minute * kMinute, kNoon + until_minute * kMinute}, {});
    Play("o1@0 p@4 p@12 p@20 o2@30 p@33", &counter);
    return counter.Finish().reading;
  };
  EXPECT_EQ(read(-60, 60), (Reading{23 * kMinute, 4, 4}));
  EXPECT_EQ(read(6, 14), (Reading{8 * kMinute, 1, 1}));
  EXPECT_EQ(read(5, 6), (Reading{1 * kMinute, 0, 0}));  // inside a page
  EXPECT_EQ(read(21, 29), (Reading{0, 0, 0}));
  Reading sum;
  for (std::int64_t minute = -5; minute < 40; minute += 5) sum += read(minute, minute + 5);
  EXPECT_EQ(sum, (Reading{23 * kMinute, 4, 4}));
}

TEST_F(ReportTime, BooksAreFollowedByWhatTurnsSayOfThem) {
  struct Case {
    const char* what;
    std::vector<store::RecordRow> rows;
    std::int32_t furthest;
    std::int64_t begun, finished, after;  // in minutes after noon
  };
  GoToPageEventNew to_the_end;
  to_the_end.a_ = 1;
  to_the_end.d_ = to_the_end.e_ = 100;
  const auto at = [](std::int64_t minute) { return kNoon + minute * kMinute; };
  const Case cases[] = {
      {"from the first page to the last",
       {Opening(at(0), 1), Turn(at(5), 1, 2, 100), Turn(at(9), 1, 60, 100),
        Turn(at(12), 1, 100, 100)},
       100,
       5,
       12,
       12},
      {"the later finish is a look back",
       {Turn(at(1), 1, 100, 100), Turn(at(2), 1, 100, 100)},
       100,
       0,
       1,
       0},
      {"begun before the range", {Turn(at(1), 1, 51, 100), Turn(at(2), 1, 2, 100)}, 51, 0, 0, 0},
      {"jumps don't tell",
       {Turn(at(1), 1, 3, 100), RowOf(std::move(to_the_end), at(2))},
       3,
       1,
       0,
       0},
      {"pages without a number of pages", {Turn(at(1), 1, 7, 0)}, 7, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RecordCounter counter({kNoon - kDay, kNoon + kDay}, {});
    for (const auto& row : c.rows) counter.Add(row);
    const Summary summary = counter.Finish();
    ASSERT_EQ(summary.books.size(), 1U);
    const BookReading& book = summary.books[0];
    const auto minutes = [](std::int64_t ms) { return ms == 0 ? 0 : (ms - kNoon) / kMinute; };
    EXPECT_EQ(book.furthest, c.furthest);
    EXPECT_EQ(minutes(book.begun_ms), c.begun);
    EXPECT_EQ(minutes(book.finished_ms), c.finished);
    EXPECT_EQ(book.finished_after_ms, c.after * kMinute);
  }
}

TEST_F(ReportTime, OrderIsKeptInBoundedMemoryOrItsLossIsTold) {
  constexpr int kMany = 300000;  // more than are held
  for (const bool is_late : {false, true}) {
    RecordCounter counter({kNoon, kNoon + kDay}, {});
    RecordCounter patient({kNoon, kNoon + kDay}, {}, true);
    for (RecordCounter* one : {&counter, &patient}) {
      one->Add(Opening(kNoon, 1));
      const store::RecordRow turn = RowOf(ChangePageEvent(), kNoon);
      for (int i = 0; i < kMany; ++i) {
        store::RecordRow row = turn;
        row.timestamp_ms += (i ^ 1) * 100;  // each two the wrong way round
        one->Add(row);
      }
      if (is_late) one->Add(Opening(kNoon + 10 * kMinute, 2));
    }
    EXPECT_EQ(counter.is_out_of_order(), is_late);
    const Summary summary = patient.Finish();
    EXPECT_EQ(summary.books.size(), is_late ? 2U : 1U);
    const Summary bounded = counter.Finish();
    EXPECT_EQ(bounded.reading == summary.reading, !is_late);
  }
}

TEST_F(ReportTime, TimestampsOfAnySizeDoNoHarm) {
  SessionTracker tracker;
  tracker.Open(std::numeric_limits<std::int64_t>::min(), 1);
  EXPECT_FALSE(tracker.TurnPage(std::numeric_limits<std::int64_t>::max()));

  RecordCounter counter({kNoon, kNoon + kDay}, {}, true);
  counter.Add(Opening(std::numeric_limits<std::int64_t>::min(), 1));
  counter.Add(RowOf(ChangePageEvent(), std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(counter.Finish().records, 0);
  EXPECT_FALSE(IsOnCalendar(std::numeric_limits<std::int64_t>::max()));
}

// Moments around changes of the clock and of the day, in places where they are odd.
TEST(ReportClock, TellsLocalHours) {
  struct Case {
    const char* zone;
    std::int64_t second;
    const char* date;
    int weekday, hour;
    std::int64_t left_s;  // until the hour ends
  };
  const Case cases[] = {
      {"UTC", 0, "1970-01-01", 3, 0, 3600},
      {"UTC", -1, "1969-12-31", 2, 23, 1},
      {"UTC", 4102444800, "2100-01-01", 4, 0, 3600},                      // beyond 32 bits
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1774745999, "2026-03-29", 6, 1, 1},  // before 02:00 is 03:00
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1774746000, "2026-03-29", 6, 3, 3600},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1792890000, "2026-10-25", 6, 2, 3600},  // 02:00 twice
      {"<+0545>-5:45", 1774746000, "2026-03-29", 6, 6, 900},
      {"<-11>11", 1774746000, "2026-03-28", 5, 14, 3600},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.zone) + " " + std::to_string(c.second));
    setenv("TZ", c.zone, 1);
    const LocalHour hour = LocalClock().At(c.second * kSecond);
    EXPECT_EQ(IsoDate(hour.day), c.date);
    EXPECT_EQ(hour.weekday, c.weekday);
    EXPECT_EQ(WeekdayOf(hour.day), c.weekday);
    EXPECT_EQ(hour.hour, c.hour);
    EXPECT_EQ(hour.end_ms - c.second * kSecond, c.left_s * kSecond);
  }
}

TEST(ReportClock, CompletesRangesByWholeDays) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  constexpr std::int64_t kApril = std::int64_t{1775340000} * kSecond;  // 5 April 2026, 00:00 CEST
  const Range range = CompleteRange({}, {}, kApril - 1);
  EXPECT_EQ(range.until_ms, kApril);
  EXPECT_EQ(range.since_ms, kApril - 30 * kDay + kHour);  // the clock was changed in between
  EXPECT_EQ(CompleteRange(5, 7, kApril).since_ms, 5);
  EXPECT_EQ(CompleteRange(5, 7, kApril).until_ms, 7);
}

TEST(ReportClock, SpreadsReadingOverHoursAndDays) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  RecordCounter counter({kNoon - kDay, kNoon + kDay}, {});
  Play("o1@595 p@603 p@607", &counter);  // from 23:55 to 00:07 on a Friday
  const Summary summary = counter.Finish();
  ASSERT_EQ(summary.days.size(), 2U);
  EXPECT_EQ(summary.days.begin()->second, (Reading{5 * kMinute, 0, 0}));
  EXPECT_EQ(summary.days.rbegin()->second, (Reading{7 * kMinute, 2, 2}));
  EXPECT_EQ(summary.week[4][23], (Reading{5 * kMinute, 0, 0}));
  EXPECT_EQ(summary.week[5][0], (Reading{7 * kMinute, 2, 2}));
}

}  // namespace
}  // namespace velmora::usage_stat::report
