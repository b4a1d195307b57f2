#include "corvane/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

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

// Publishers set numbers with the dashes and blanks of their typesetting. `text` in lower case with
// the plain ones instead.
std::string WithPlainSeparators(std::string_view text) {
  constexpr std::array<std::pair<std::string_view, char>, 18> kPlain = {{
      {"\xC2\xA0", ' '},      // no-break space
      {"\xC2\xAD", '-'},      // soft hyphen
      {"\xE2\x80\x87", ' '},  // figure space
      {"\xE2\x80\x88", ' '},  // punctuation space
      {"\xE2\x80\x89", ' '},  // thin space
      {"\xE2\x80\x8A", ' '},  // hair space
      {"\xE2\x80\x8B", ' '},  // zero width space
      {"\xE2\x80\x90", '-'},  // hyphen
      {"\xE2\x80\x91", '-'},  // non-breaking hyphen
      {"\xE2\x80\x92", '-'},  // figure dash
      {"\xE2\x80\x93", '-'},  // en dash
      {"\xE2\x80\x94", '-'},  // em dash
      {"\xE2\x80\x95", '-'},  // horizontal bar
      {"\xE2\x80\xAF", ' '},  // narrow no-break space
      {"\xE2\x81\xA0", ' '},  // word joiner
      {"\xE2\x88\x92", '-'},  // minus
      {"\xEF\xB9\xA3", '-'},  // small hyphen
      {"\xEF\xBC\x8D", '-'},  // full-width hyphen
  }};
  std::string plain;
  while (!text.empty()) {
    const auto* const found = std::find_if(kPlain.begin(), kPlain.end(), [&](const auto& each) {
      return text.starts_with(each.first);
    });
    const bool special = found != kPlain.end();
    plain += special ? found->second : text.front();
    text.remove_prefix(special ? found->first.size() : 1);
  }
  return ToLower(plain);
}

bool IsSeparator(char c) { return c == '-' || c == ' '; }
bool IsAlphanumeric(char c) { return IsDigit(c) || (c >= 'a' && c <= 'z'); }

// The number of `digits` digits at the start of `text`, without separators; "" if there is none of
// that length. The last of ten may be an x.
std::string NumberAtStart(std::string_view text, std::size_t digits) {
  std::string number;
  std::size_t at = 0;
  for (; at < text.size() && number.size() < digits; ++at) {
    const bool is_part = IsDigit(text[at]) || (text[at] == 'x' && number.size() == 9);
    if (!is_part && !IsSeparator(text[at])) return {};
    if (is_part) number += text[at];
  }
  const bool ends = at == text.size() || !IsAlphanumeric(text[at]);
  return ends && number.size() == digits ? number : std::string();
}

constexpr std::string_view kIsbnLabel = "isbn";

// Takes a label such as "ISBN-13" off the start of `text`.
bool SkipLabel(std::string_view* text) {
  if (!text->starts_with(kIsbnLabel)) return false;
  text->remove_prefix(kIsbnLabel.size());
  std::string_view rest = text->substr(std::min(text->find_first_not_of("- _"), text->size()));
  const bool has_length = rest.starts_with("10") || rest.starts_with("13");
  if (has_length && (rest.size() == 2 || (!IsAlphanumeric(rest[2]) && rest[2] != '-'))) {
    *text = rest.substr(2);
  }
  return true;
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

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool IsMostlyUtf8(std::string_view text) {
  std::size_t read = 0;
  std::size_t broken = 0;
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    if (static_cast<std::uint8_t>(text[0]) > 0x20) ++(length == 0 ? broken : read);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return read >= broken;
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
  const std::string plain = WithPlainSeparators(text.substr(0, kMaxText));
  std::string_view rest = plain;
  if (!marked && rest.find(kIsbnLabel) == rest.npos) {
    if (rest.starts_with("urn:")) rest.remove_prefix(4);
    std::string number(rest);
    std::erase_if(number, IsSeparator);
    return LongIsbn(number);
  }
  bool in_word = false;
  while (!rest.empty()) {
    if (SkipLabel(&rest)) {
      in_word = false;
      continue;
    }
    if (IsDigit(rest.front()) && !in_word) {
      std::string isbn = LongIsbn(NumberAtStart(rest, 13));
      if (isbn.empty()) isbn = LongFormOfShortIsbn(NumberAtStart(rest, 10));
      if (!isbn.empty()) return isbn;
    }
    // Not behind a dash either: that would be the rest of a number whose check digit is wrong.
    in_word = IsAlphanumeric(rest.front()) || (in_word && rest.front() == '-');
    rest.remove_prefix(1);
  }
  return {};
}

int ParseYear(std::string_view date) {
  const bool four_digits = date.size() >= 4 && std::all_of(date.begin(), date.begin() + 4, IsDigit);
  if (!four_digits || (date.size() > 4 && IsDigit(date[4])) || date[0] == '0') return 0;
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
