// What the readers of the book formats find out about a book.

#ifndef PLATFORM_CORVANE_BOOK_H_
#define PLATFORM_CORVANE_BOOK_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "corvane/device_files.h"

namespace corvane {

// Texts are valid UTF-8 of bounded length; an empty one stands for a fact that the book omits.
struct Book {
  std::string language;
  std::string title;
  std::vector<std::string> people;  // the authors first, then those who helped
  std::string publisher;
  int year = 0;  // of publication
  std::string series;
  std::int16_t series_number = 0;
  std::string isbn;  // 13 digits
};

// As many people as a record has room for; the readers stop there.
inline constexpr std::size_t kMaxPeople = 11;

// Each reads one format from an open file. A file that is damaged, hostile or of another format
// gives no book and sets `*problem` to a static text that says why. Memory and time are bounded
// whatever the file holds.
std::optional<Book> ReadEpub(UniqueFd file, const char** problem);
std::optional<Book> ReadZippedEpub(UniqueFd file, const char** problem);
std::optional<Book> ReadFb2(UniqueFd file, const char** problem);
std::optional<Book> ReadZippedFb2(UniqueFd file, const char** problem);

}  // namespace corvane

#endif  // PLATFORM_CORVANE_BOOK_H_
