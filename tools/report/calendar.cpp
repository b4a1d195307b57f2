#include "tools/report/calendar.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>

#include "tools/base/text.h"

namespace velmora::usage_stat::report {

namespace {

namespace chrono = std::chrono;

constexpr std::int64_t kMsPerSecond = 1000;
constexpr std::int64_t kSecondsPerHour = 3600;
// The first and last second that lie in the years 1 to 9999 in every time zone.
constexpr std::int64_t kFirstSecond = -62135510400;
constexpr std::int64_t kLastSecond = 253402214399;

constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::int64_t SecondOf(std::int64_t ms) {
  return ms / kMsPerSecond - (ms % kMsPerSecond < 0 ? 1 : 0);
}

std::tm LocalTime(std::int64_t second) {
  static_assert(sizeof(std::time_t) == 8, "times must outlive 2038");
  const std::time_t time = second;
  std::tm local{};
  localtime_r(&time, &local);
  return local;
}

Day DayOf(const std::tm& local) {
  const chrono::year_month_day date{chrono::year{local.tm_year + 1900},
                                    chrono::month{static_cast<unsigned>(local.tm_mon + 1)},
                                    chrono::day{static_cast<unsigned>(local.tm_mday)}};
  return static_cast<Day>(chrono::sys_days{date}.time_since_epoch().count());
}

chrono::sys_days SysDays(Day day) { return chrono::sys_days{chrono::days{day}}; }

chrono::year_month_day DateOf(Day day) { return {SysDays(day)}; }

Day DayOf(chrono::year_month_day date) {
  return static_cast<Day>(chrono::sys_days{date}.time_since_epoch().count());
}

const char* MonthName(chrono::year_month_day date) {
  return kMonths[static_cast<unsigned>(date.month()) - 1];
}

}  // namespace

LocalClock::LocalClock() { tzset(); }

LocalHour LocalClock::At(std::int64_t ms) {
  if (ms >= current_.begin_ms && ms < current_.end_ms) return current_;
  const std::int64_t second = SecondOf(ms);
  const std::tm local = LocalTime(second);
  current_.day = DayOf(local);
  current_.weekday = (local.tm_wday + 6) % 7;
  current_.hour = local.tm_hour;
  current_.begin_ms = ms;
  // Clocks change at full hours by their own count, so the hour holds at least until the next one.
  const int passed = local.tm_min * 60 + std::min(local.tm_sec, 59);
  current_.end_ms = (second + kSecondsPerHour - passed) * kMsPerSecond;
  return current_;
}

std::int64_t BeginOf(Day day) {
  const chrono::year_month_day date = DateOf(day);
  std::tm local{};
  local.tm_year = static_cast<int>(date.year()) - 1900;
  local.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  local.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
  local.tm_isdst = -1;
  return std::int64_t{std::mktime(&local)} * kMsPerSecond;
}

bool IsOnCalendar(std::int64_t ms) {
  const std::int64_t second = SecondOf(ms);
  return second >= kFirstSecond && second <= kLastSecond;
}

Range CompleteRange(std::optional<std::int64_t> since_ms, std::optional<std::int64_t> until_ms,
                    std::int64_t now_ms) {
  constexpr Day kDays = 30;
  Range range;
  range.until_ms = until_ms.value_or(BeginOf(LocalClock().At(now_ms).day + 1));
  if (since_ms) {
    range.since_ms = *since_ms;
  } else if (IsOnCalendar(range.until_ms)) {
    range.since_ms = BeginOf(LastDay(range) + 1 - kDays);
  }
  return range;
}

Day FirstDay(const Range& range) { return LocalClock().At(range.since_ms).day; }

Day LastDay(const Range& range) { return LocalClock().At(range.until_ms - 1).day; }

int WeekdayOf(Day day) {
  return static_cast<int>(chrono::weekday{SysDays(day)}.iso_encoding()) - 1;
}

Day FirstOfMonth(Day day) {
  const chrono::year_month_day date = DateOf(day);
  return DayOf(chrono::year_month_day{date.year(), date.month(), chrono::day{1}});
}

Day FirstOfYear(Day day) {
  return DayOf(chrono::year_month_day{DateOf(day).year(), chrono::January, chrono::day{1}});
}

std::string IsoDate(Day day) {
  const chrono::year_month_day date = DateOf(day);
  return fmt::format("{:04}-{:02}-{:02}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
}

std::optional<Day> ParseIsoDate(const std::string& text) {
  if (text.size() != std::size("YYYY-MM-DD") - 1) return std::nullopt;
  const auto year = base::ParseWhole<int>(text.substr(0, 4));
  const auto month = base::ParseWhole<unsigned>(text.substr(5, 2));
  const auto day = base::ParseWhole<unsigned>(text.substr(8));
  if (!year || !month || !day) return std::nullopt;
  const chrono::year_month_day date{chrono::year{*year}, chrono::month{*month}, chrono::day{*day}};
  if (!date.ok() || IsoDate(DayOf(date)) != text) return std::nullopt;
  return DayOf(date);
}

std::string LongDate(Day day) {
  return fmt::format("{} {}", ShortDate(day), static_cast<int>(DateOf(day).year()));
}

std::string ShortDate(Day day) {
  const chrono::year_month_day date = DateOf(day);
  return fmt::format("{} {}", static_cast<unsigned>(date.day()), MonthName(date));
}

std::string MonthAndYear(Day day) {
  const chrono::year_month_day date = DateOf(day);
  return fmt::format("{} {}", MonthName(date), static_cast<int>(date.year()));
}

std::string LocalDateTime(std::int64_t ms) {
  tzset();
  const std::tm local = LocalTime(SecondOf(ms));
  const auto offset = static_cast<int>(local.tm_gmtoff / 60);
  const int minutes = std::abs(offset);
  return fmt::format("{}, {:02}:{:02} {} (UTC{}{:02}:{:02})", LongDate(DayOf(local)), local.tm_hour,
                     local.tm_min, local.tm_zone, offset < 0 ? '-' : '+', minutes / 60,
                     minutes % 60);
}

}  // namespace velmora::usage_stat::report
