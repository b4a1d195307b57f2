// Texts and numbers: hexadecimal digits, UTF-8, whole numbers.

#ifndef TOOLS_BASE_TEXT_H_
#define TOOLS_BASE_TEXT_H_

#include <charconv>
#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::usage_stat::base {

// Two lower-case digits for each byte.
std::string ToHex(std::string_view bytes);

// The way back. Nothing for what is empty, holds something else than digits and blanks, or has an
// odd number of digits.
std::optional<std::string> FromHex(std::string_view text);

// The number that `text` is as a whole: no blanks, no plus sign, nothing left over, and within the
// type's range.
template <std::integral Number>
std::optional<Number> ParseWhole(std::string_view text, int base = 10) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || stop != end || text.empty()) return std::nullopt;
  return number;
}

// "1 record", "2 records".
template <std::integral Number>
std::string Plural(Number count, std::string_view noun) {
  return std::to_string(count).append(" ").append(noun).append(count == 1 ? "" : "s");
}

// ---- UTF-8 ----

struct Character {
  char32_t code = 0;
  std::size_t size = 0;  // in bytes; 0 when the bytes are no UTF-8
};

// The character that `text`, which is not empty, begins with.
Character FirstCharacter(std::string_view text);

bool IsUtf8(std::string_view text);

// `text` with U+FFFD for what is no UTF-8.
std::string ToUtf8(std::string_view text);

// The longest front of `text` of at most `most` bytes that cuts no character.
std::string_view CutUtf8(std::string_view text, std::size_t most);

}  // namespace velmora::usage_stat::base

#endif  // TOOLS_BASE_TEXT_H_
