#include "tools/base/text.h"

#include <common_utilities/serialization_utils.h>
#include <utf8.h>

#include <cstdint>
#include <iterator>

namespace velmora::usage_stat::base {

std::string ToHex(std::string_view bytes) {
  return utilities::SerializationUtils::ToHex({bytes.begin(), bytes.end()});
}

std::optional<std::string> FromHex(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n\v\f\r";
  std::string digits;
  for (const char c : text) {
    if (kBlanks.find(c) == std::string_view::npos) digits += c;
  }
  if (digits.empty() || digits.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(digits.size() / 2);
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const auto byte = ParseWhole<std::uint8_t>(std::string_view(digits).substr(i, 2), 16);
    if (!byte) return std::nullopt;
    bytes += static_cast<char>(*byte);
  }
  return bytes;
}

Character FirstCharacter(std::string_view text) {
  constexpr std::size_t kLongest = 4;
  const std::string_view window = text.substr(0, kLongest);
  if (utf8::find_invalid(window.begin(), window.end()) == window.begin()) return {};
  auto next = window.begin();
  const char32_t code = utf8::unchecked::next(next);
  return {code, static_cast<std::size_t>(next - window.begin())};
}

bool IsUtf8(std::string_view text) { return utf8::is_valid(text.begin(), text.end()); }

std::string ToUtf8(std::string_view text) {
  std::string valid;
  valid.reserve(text.size());
  utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(valid));
  return valid;
}

std::string_view CutUtf8(std::string_view text, std::size_t most) {
  if (text.size() <= most) return text;
  const auto is_inside = [](char c) { return (static_cast<std::uint8_t>(c) & 0xC0U) == 0x80U; };
  while (most > 0 && is_inside(text[most])) --most;
  return text.substr(0, most);
}

}  // namespace velmora::usage_stat::base
