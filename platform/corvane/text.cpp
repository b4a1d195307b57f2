#include "corvane/text.h"

#include <algorithm>
#include <charconv>

namespace corvane {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The length of the well-formed UTF-8 character at the start of `text`, or 0.
std::size_t CharacterLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xC2 && lead < 0xE0   ? 2
                             : lead >= 0xE0 && lead < 0xF0 ? 3
                             : lead >= 0xF0 && lead < 0xF5 ? 4
                                                           : 0;
  if (length == 0 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const bool overlong = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
  const bool surrogate = lead == 0xED && byte(1) >= 0xA0;
  const bool beyond_unicode = lead == 0xF4 && byte(1) >= 0x90;
  return overlong || surrogate || beyond_unicode ? 0 : length;
}

// The check digit after nine digits of a short ISBN; 10 is written as X.
int ShortCheckDigit(std::string_view digits) {
  int sum = 0;
  for (int i = 0; i < 9; ++i) sum += (10 - i) * (digits[static_cast<std::size_t>(i)] - '0');
  return (11 - sum % 11) % 11;
}

// The check digit after twelve digits of a long ISBN.
int LongCheckDigit(std::string_view digits) {
  int sum = 0;
  for (std::size_t i = 0; i < 12; ++i) sum += (i % 2 == 0 ? 1 : 3) * (digits[i] - '0');
  return (10 - sum % 10) % 10;
}

char DigitOf(int value) { return static_cast<char>('0' + value); }

std::string LongIsbn(std::string_view text) {
  const bool right = text.size() == 13 && std::all_of(text.begin(), text.end(), IsDigit) &&
                     (text.starts_with("978") || text.starts_with("979")) &&
                     text[12] == DigitOf(LongCheckDigit(text));
  return right ? std::string(text) : std::string();
}

std::string LongFormOfShortIsbn(std::string_view text) {
  if (text.size() != 10 || !std::all_of(text.begin(), text.end() - 1, IsDigit)) return {};
  const int check = ShortCheckDigit(text);
  if (text[9] != (check == 10 ? 'x' : DigitOf(check))) return {};
  std::string isbn = "978" + std::string(text.substr(0, 9));
  return isbn + DigitOf(LongCheckDigit(isbn));
}

}  // namespace

std::string CleanText(std::string_view text) {
  std::string clean;
  bool blank_before = false;
  while (!text.empty() && clean.size() < kMaxText) {
    const std::size_t length = CharacterLength(text);
    const auto lead = static_cast<std::uint8_t>(text[0]);
    const std::string_view character = length == 0 ? kReplacement : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
    if (lead <= 0x20 || lead == 0x7F) {
      blank_before = !clean.empty();
      continue;
    }
    if (clean.size() + (blank_before ? 1 : 0) + character.size() > kMaxText) break;
    clean.append(blank_before ? " " : "").append(character);
    blank_before = false;
  }
  return clean;
}

std::string ToLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

bool EndsWithIgnoringCase(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         ToLower(text.substr(text.size() - suffix.size())) == ToLower(suffix);
}

std::string ParseIsbn(std::string_view text, bool marked) {
  std::string lower = ToLower(text.substr(0, kMaxText));
  for (const std::string_view mark : {"urn:", "isbn", ":"}) {
    if (lower.starts_with(mark)) {
      lower.erase(0, mark.size());
      marked = marked || mark == "isbn";
    }
  }
  std::erase_if(lower, [](char c) { return c == '-' || c == ' '; });
  std::string isbn = LongIsbn(lower);
  return isbn.empty() && marked ? LongFormOfShortIsbn(lower) : isbn;
}

int ParseYear(std::string_view date) {
  const bool four_digits = date.size() >= 4 && std::all_of(date.begin(), date.begin() + 4, IsDigit);
  if (!four_digits || (date.size() > 4 && IsDigit(date[4]))) return 0;
  int year = 0;
  std::from_chars(date.data(), date.data() + 4, year);
  return year;
}

std::int16_t ParseSeriesNumber(std::string_view text) {
  std::int16_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

}  // namespace corvane
