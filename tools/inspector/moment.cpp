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
  constexpr Unit kUnits[] = {
      {" s sec secs second seconds ", 1}, {" m min mins minute minutes ", 60},
      {" h hour hours ", 3600},           {" d day days ", 86400},
      {" w week weeks ", 604800},         {" month months ", 2629800},  // a twelfth of a year
      {" y year years ", 31557600}};
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

// Takes a time zone from the end of `text`: the seconds that it is ahead of UTC, if there is one.
std::optional<std::int64_t> TakeZone(std::string_view* text) {
  for (const std::string_view utc : {" UTC", "UTC", "Z"}) {
    if (!text->ends_with(utc)) continue;
    text->remove_suffix(utc.size());
    return 0;
  }
  const std::size_t sign = text->find_last_of("+-");
  if (sign == std::string_view::npos) return std::nullopt;
  std::tm offset{};
  const std::string digits(text->substr(sign + 1));
  // The last part of a date follows a hyphen too, but has no colon.
  const char* end = strptime(digits.c_str(), "%H:%M", &offset);
  if (!end || *end) return std::nullopt;
  const std::int64_t seconds = offset.tm_hour * 3600 + offset.tm_min * 60;
  const bool is_behind = (*text)[sign] == '-';
  text->remove_suffix(text->size() - sign);
  return is_behind ? -seconds : seconds;
}

// Takes a fraction of a second, point included, from the end of `text`: its milliseconds, 0 when
// there is none.
std::int64_t TakeFraction(std::string_view* text) {
  const std::size_t point = std::min(text->find('.'), text->size());
  const std::string_view digits = text->substr(point).substr(point < text->size() ? 1 : 0);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) return 0;
  text->remove_suffix(text->size() - point);
  std::int64_t ms = 0;
  for (std::size_t i = 0; i < 3; ++i) ms = ms * 10 + (i < digits.size() ? digits[i] - '0' : 0);
  return ms;
}

std::optional<std::int64_t> ParseDate(std::string_view text, std::int64_t now_ms) {
  const auto zone = TakeZone(&text);
  const std::size_t size = text.size();
  const std::int64_t fraction_ms = TakeFraction(&text);
  const std::string without_fraction(text);
  for (const std::string_view format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%H:%M:%S",
                                        "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M", "%Y-%m-%d", "%H:%M"}) {
    const bool has_seconds = format.ends_with("%S");
    if (!has_seconds && text.size() != size) continue;
    std::tm date = LocalDate(now_ms);
    const char* end = strptime(without_fraction.c_str(), format.data(), &date);
    if (!end || *end) continue;
    const int day = date.tm_mday;
    const std::time_t time = zone ? timegm(&date) : std::mktime(&date);
    if (date.tm_mday != day) return std::nullopt;  // such as 30 February
    return (std::int64_t{time} - zone.value_or(0)) * kSecondMs + fraction_ms;
  }
  return std::nullopt;
}

// Seconds since the epoch.
std::optional<std::int64_t> ParseSeconds(std::string_view text) {
  const std::int64_t fraction_ms = TakeFraction(&text);
  const auto seconds = TakeNumber(&text);
  if (!seconds || !text.empty() || *seconds > kFarthestMs / kSecondMs ||
      *seconds < -kFarthestMs / kSecondMs) {
    return std::nullopt;
  }
  return *seconds * kSecondMs + fraction_ms;
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
  if (text.starts_with('@')) return ParseSeconds(std::string_view(text).substr(1));
  if (const auto span = ParseRelative(text)) return now_ms + *span;
  return ParseDate(text, now_ms);
}

}  // namespace velmora::usage_stat::inspector
