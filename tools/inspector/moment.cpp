#include "tools/inspector/moment.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <string_view>

namespace velmora::usage_stat::inspector {

namespace {

constexpr std::int64_t kSecondMs = 1000;
// Beyond this, on either side of the epoch, lies nothing that people write.
constexpr std::int64_t kFarthestMs = 253'402'300'799'999;  // the end of the year 9999

void SkipBlanks(std::string_view* text) {
  text->remove_prefix(std::min(text->find_first_not_of(' '), text->size()));
}

// Takes a number from the front of `text`.
std::optional<std::int64_t> TakeNumber(std::string_view* text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
  if (error != std::errc()) return std::nullopt;
  text->remove_prefix(static_cast<std::size_t>(end - text->data()));
  return number;
}

std::optional<std::int64_t> UnitMs(std::string_view unit) {
  struct Unit {
    std::string_view names;  // between blanks
    std::int64_t seconds;
  };
  constexpr Unit kUnits[] = {{" s sec secs second seconds ", 1},
                             {" m min mins minute minutes ", 60},
                             {" h hour hours ", 3600},
                             {" d day days ", 86400},
                             {" w week weeks ", 7 * 86400}};
  const std::string wanted = ' ' + std::string(unit) + ' ';
  for (const Unit& row : kUnits) {
    if (row.names.find(wanted) != std::string_view::npos) return row.seconds * kSecondMs;
  }
  return std::nullopt;
}

// A span such as "1h30m" or "2 hours", without a sign.
std::optional<std::int64_t> ParseSpan(std::string_view text) {
  std::int64_t span = 0;
  do {
    SkipBlanks(&text);
    const auto number = TakeNumber(&text);
    SkipBlanks(&text);
    const std::size_t length =
        std::min(text.find_first_not_of("abcdefghijklmnopqrstuvwxyz"), text.size());
    const auto unit = UnitMs(text.substr(0, length));
    text.remove_prefix(length);
    std::int64_t part = 0;
    if (!number || !unit || *number < 0 || __builtin_mul_overflow(*number, *unit, &part) ||
        __builtin_add_overflow(span, part, &span) || span > kFarthestMs) {
      return std::nullopt;
    }
  } while (!text.empty());
  return span;
}

std::optional<std::int64_t> ParseRelative(std::string_view text) {
  constexpr std::string_view kAgo = " ago";
  if (text.ends_with(kAgo)) {
    text.remove_suffix(kAgo.size());
    const auto span = ParseSpan(text);
    return span ? std::optional(-*span) : std::nullopt;
  }
  if (text.size() < 2 || (text[0] != '-' && text[0] != '+')) return std::nullopt;
  const auto span = ParseSpan(text.substr(1));
  return span && text[0] == '-' ? -*span : span;
}

std::tm LocalDate(std::int64_t now_ms) {
  const auto now = static_cast<std::time_t>(now_ms / kSecondMs);
  std::tm date{};
  localtime_r(&now, &date);
  date.tm_hour = date.tm_min = date.tm_sec = 0;
  date.tm_isdst = -1;  // whether summer time holds follows from the date
  return date;
}

std::optional<std::int64_t> ParseDate(std::string text, std::int64_t now_ms) {
  bool is_utc = false;
  for (const std::string_view zone : {" UTC", "UTC", "Z"}) {
    if (!text.ends_with(zone)) continue;
    text.resize(text.size() - zone.size());
    is_utc = true;
    break;
  }
  for (const char* format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M",
                             "%Y-%m-%dT%H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
    std::tm date = LocalDate(now_ms);
    const char* end = strptime(text.c_str(), format, &date);
    if (!end || *end) continue;
    const int day = date.tm_mday;
    const std::time_t time = is_utc ? timegm(&date) : std::mktime(&date);
    if (date.tm_mday != day) return std::nullopt;  // such as 30 February
    return std::int64_t{time} * kSecondMs;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::int64_t> ParseMoment(const std::string& text, std::int64_t now_ms) {
  if (text == "now") return now_ms;
  constexpr std::string_view kDays[] = {"yesterday", "today", "tomorrow"};
  for (int i = 0; i < 3; ++i) {
    if (text != kDays[i]) continue;
    std::tm date = LocalDate(now_ms);
    date.tm_mday += i - 1;
    return std::int64_t{std::mktime(&date)} * kSecondMs;
  }
  if (text.starts_with('@')) {
    std::string_view rest(text);
    rest.remove_prefix(1);
    const auto seconds = TakeNumber(&rest);
    if (!seconds || !rest.empty() || *seconds > kFarthestMs / kSecondMs ||
        *seconds < -kFarthestMs / kSecondMs) {
      return std::nullopt;
    }
    return *seconds * kSecondMs;
  }
  if (const auto span = ParseRelative(text)) return now_ms + *span;
  return ParseDate(text, now_ms);
}

}  // namespace velmora::usage_stat::inspector
