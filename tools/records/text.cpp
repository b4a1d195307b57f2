#include "tools/records/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "tools/base/text.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::records {

namespace {

bool IsObeyed(char32_t code) {
  const bool is_control = code < 0x20 || (code >= 0x7F && code <= 0x9F);
  const bool turns_writing = code == 0x061C || code == 0x200E || code == 0x200F ||
                             (code >= 0x202A && code <= 0x202E) ||
                             (code >= 0x2066 && code <= 0x2069);
  const bool breaks_line = code == 0x2028 || code == 0x2029;
  return is_control || turns_writing || breaks_line;
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    const base::Character first = base::FirstCharacter(text);
    if (first.size == 0 || (first.size == 1 && IsObeyed(first.code))) {
      printable += fmt::format("\\x{:02x}", static_cast<std::uint8_t>(text[0]));
    } else if (IsObeyed(first.code)) {
      printable += fmt::format("\\u{:04x}", static_cast<std::uint32_t>(first.code));
    } else {
      printable += text.substr(0, first.size);
    }
    text.remove_prefix(first.size == 0 ? 1 : first.size);
  }
  return printable;
}

std::string PrintableJson(const Json& json) { return Printable(Dump(json)); }

std::string SafeJson(const Json& json, int indent) {
  // What is left to escape after Dump() stands in strings, where JSON has an escape for it.
  const std::string dumped = Dump(json, indent);
  std::string safe;
  for (std::string_view rest = dumped; !rest.empty();) {
    const base::Character first = base::FirstCharacter(rest);
    const std::size_t size = std::max<std::size_t>(1, first.size);
    if (first.code >= 0x7F && IsObeyed(first.code)) {
      safe += fmt::format("\\u{:04x}", static_cast<std::uint32_t>(first.code));
    } else {
      safe += rest.substr(0, size);
    }
    rest.remove_prefix(size);
  }
  return safe;
}

std::string FieldsLine(const RecordType& type, const Json& values) {
  std::string line;
  std::string_view name_key;  // of the value before
  const Json named = NamedFields(type, values);
  for (const auto& [key, value] : named.items()) {
    if (key == name_key) {
      line += fmt::format("({})", Printable(value.get<std::string>()));
      continue;
    }
    line += fmt::format(" {}={}", key, PrintableJson(value));
    const auto field =
        std::find_if(type.fields.begin(), type.fields.end(),
                     [&field_name = key](const FieldType& row) { return row.name == field_name; });
    name_key = field == type.fields.end() ? std::string_view() : field->name_key;
  }
  return line;
}

std::string LocalTime(std::int64_t ms) {
  const std::int64_t rest = (ms % 1000 + 1000) % 1000;
  const std::int64_t seconds = ms / 1000 - (ms % 1000 < 0 ? 1 : 0);
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  // A record may carry any time at all, also one whose year is not to be counted.
  if (time != seconds || !localtime_r(&time, &local))
    return fmt::format("@{}.{:03}", seconds, rest);
  std::array<char, 64> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%F %T", &local);
  return fmt::format("{}.{:03}", std::string_view(text.data(), size), rest);
}

}  // namespace velmora::usage_stat::records
