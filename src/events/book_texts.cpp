#include "src/events/book_texts.h"

#include <cstring>

namespace velmora::usage_stat {

std::string TextOrEmpty(const char* text) { return text ? text : std::string(); }

std::string LanguageCode(const char* text) {
  constexpr std::size_t kCodeLength = 2;
  return text ? std::string(text, strnlen(text, kCodeLength)) : std::string();
}

void AppendTexts(const char* const* list, std::vector<std::string>* texts) {
  if (!list) return;
  std::size_t count = 0;
  while (list[count]) ++count;
  texts->reserve(texts->size() + count);
  texts->insert(texts->end(), list, list + count);
}

}  // namespace velmora::usage_stat
