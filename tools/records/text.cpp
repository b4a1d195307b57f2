#include "tools/records/text.h"

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>

namespace velmora::usage_stat::records {

namespace {

// JSON escapes the control characters of ASCII except DEL, and none of those beyond it, which some
// terminals obey as well.
std::string WithoutControls(const std::string& json) {
  std::string text;
  for (std::size_t i = 0; i < json.size(); ++i) {
    const auto byte = static_cast<std::uint8_t>(json[i]);
    const auto next = static_cast<std::uint8_t>(i + 1 < json.size() ? json[i + 1] : '\0');
    const bool is_delete = byte == 0x7f;
    const bool is_c1 = byte == 0xc2 && next >= 0x80 && next <= 0x9f;
    if (!is_delete && !is_c1) {
      text += json[i];
      continue;
    }
    char escape[sizeof("\\u0000")];
    (void)std::snprintf(escape, sizeof(escape), "\\u%04x", is_c1 ? next : byte);
    text += escape;
    if (is_c1) ++i;
  }
  return text;
}

}  // namespace

std::string FormatTime(long long timestamp_ms) {
  const long long ms = ((timestamp_ms % 1000) + 1000) % 1000;
  const long long seconds = (timestamp_ms - ms) / 1000;
  std::tm local{};
  const auto time = static_cast<std::time_t>(seconds);
  if (timestamp_ms < std::numeric_limits<long long>::min() + 1000 || !localtime_r(&time, &local)) {
    return std::to_string(timestamp_ms);
  }
  char text[64];
  const std::size_t size = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
  char fraction[8];
  (void)std::snprintf(fraction, sizeof(fraction), ".%03d", static_cast<int>(ms));
  return std::string(text, size) + fraction;
}

std::string ToText(std::string_view event, long long timestamp_ms, const Json& fields) {
  std::string text = FormatTime(timestamp_ms) + " " + std::string(event);
  for (const auto& [name, value] : fields.items()) {
    text += " " + name + "=" + WithoutControls(Dump(value));
  }
  return text;
}

}  // namespace velmora::usage_stat::records
