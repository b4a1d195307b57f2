// The rules that every description of a book follows, whether it is opened or newly found.

#ifndef EVENTS_BOOK_TEXTS_H_
#define EVENTS_BOOK_TEXTS_H_

#include <string>
#include <vector>

namespace velmora::usage_stat {

// A copy of `text`; empty for null.
std::string TextOrEmpty(const char* text);

// A copy of `text` cut to its first 2 characters; empty for null.
std::string LanguageCode(const char* text);

// Appends a copy of every text of `list`, up to its first null element. Null counts as empty.
void AppendTexts(const char* const* list, std::vector<std::string>* texts);

}  // namespace velmora::usage_stat

#endif  // EVENTS_BOOK_TEXTS_H_
