#include "src/events/book_texts.h"

namespace velmora::usage_stat {

std::string TextOrEmpty(const char* text) { return text ? text : std::string(); }

std::string LanguageCode(const char* text) {
  constexpr std::size_t kCodeLength = 2;
  std::string code = TextOrEmpty(text);
  if (code.size() > kCodeLength) code.resize(kCodeLength);
  return code;
}

void AppendTexts(const char* const* list, std::vector<std::string>* texts) {
  if (!list) return;
  for (; *list; ++list) texts->emplace_back(*list);
}

}  // namespace velmora::usage_stat
