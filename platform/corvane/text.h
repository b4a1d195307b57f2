// Texts that books carry, made fit for a record.

#ifndef PLATFORM_CORVANE_TEXT_H_
#define PLATFORM_CORVANE_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace corvane {

// No single text of a book's description is longer, in bytes.
inline constexpr std::size_t kMaxText = 1000;

// `text` as valid UTF-8 in one line of at most kMaxText bytes: runs of blanks and control
// characters become one space, what is no UTF-8 becomes U+FFFD, and the ends are trimmed.
std::string CleanText(std::string_view text);
bool IsUtf8(std::string_view text);
// Whether at least half of its characters are; blanks do not count.
bool IsMostlyUtf8(std::string_view text);

// ASCII only, whatever the locale.
std::string ToLower(std::string_view text);
bool EndsWithIgnoringCase(std::string_view text, std::string_view suffix);

// The first ISBN in `text` as 13 digits, or "" when there is none whose check digit is right. An
// ISBN of ten digits is turned into its longer form, so that one book has one ISBN. Numbers are
// looked for anywhere when `marked` is true or `text` says "ISBN" itself; any other identifier
// counts only if all of it is a long ISBN.
std::string ParseIsbn(std::string_view text, bool marked);

// The year at the start of a date such as 2023-03-06, or 0. Years of three digits count as none:
// they come from software that writes 0101-01-01 for a date that it doesn't know.
int ParseYear(std::string_view date);

// The whole part of a number such as "3" or "3.0", or 0 when it does not fit.
std::int16_t ParseSeriesNumber(std::string_view text);

}  // namespace corvane

#endif  // PLATFORM_CORVANE_TEXT_H_
