#include "src/events/book_events.h"

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

OpenBookEvent::OpenBookEvent(std::int32_t book_id, const char* language, const char* c, bool d,
                             std::int16_t e, std::int32_t f, std::int16_t g, std::int32_t h,
                             const std::string& file_name, const char* i, const char* j,
                             const char* k, const char* l)
    : Event(EventFactory::kOpenBook),
      book_id_(book_id),
      language_(LanguageCode(language)),
      c_(TextOrEmpty(c)),
      d_(d),
      e_(e),
      f_(f),
      g_(g),
      h_(h),
      file_name_(file_name),
      i_(TextOrEmpty(i)),
      j_(TextOrEmpty(j)),
      k_(TextOrEmpty(k)),
      l_(TextOrEmpty(l)) {}

void OpenBookEvent::AppendFirstList(const char* const* texts) { AppendTexts(texts, &first_list_); }

void OpenBookEvent::AppendSecondList(const char* const* texts) {
  AppendTexts(texts, &second_list_);
}

}  // namespace velmora::usage_stat
