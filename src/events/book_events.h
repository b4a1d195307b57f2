// Openings of books. A book is named by the id of its path, never by the path itself.

#ifndef EVENTS_BOOK_EVENTS_H_
#define EVENTS_BOOK_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

// ---- The rules that every description of a book follows, whether it is opened or newly found ----

// A copy of `text`; empty for null.
std::string TextOrEmpty(const char* text);

// A copy of `text` cut to its first 2 characters; empty for null.
std::string LanguageCode(const char* text);

// Appends a copy of every text of `list`, up to its first null element. Null counts as empty.
void AppendTexts(const char* const* list, std::vector<std::string>* texts);

// ---- Events ----

// A flag that travels as an Int16. Only exactly 1 reads as true: the collector has always taken any
// other number, 2 and -1 included, for false.
struct ExactlyOneInt16 {
  static constexpr const char* kPrimitive = Int16::kPrimitive;
  static constexpr Extent kExtent = Int16::kExtent;
  static int Write(bool value, std::ostream& out) { return Int16::Write(value ? 1 : 0, out); }
  static int Read(std::istream& in, bool* value) {
    std::int16_t number = 0;
    const int err = Int16::Read(in, &number);
    if (err == 0) *value = number == 1;
    return err;
  }
};

// An application begins to open a book.
class StartOpenBookEvent : public Event {
 public:
  StartOpenBookEvent() : Event(EventFactory::kStartOpenBook) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &StartOpenBookEvent::book_id_, kBook},
        Field{"application", UInt16{}, &StartOpenBookEvent::application_,
              Meaning{Kind::kApplication, Sensitivity::kInteraction,
                      "the application that opens the book"}},
        Field{"a", UChar{}, &StartOpenBookEvent::a_, kOwn},
        Field{"b", String{}, &StartOpenBookEvent::b_, kOwn},
    };
  }

  std::int32_t book_id_ = 0;
  std::uint16_t application_ = 0;
  std::uint8_t a_ = 0;
  std::string b_;
};

// A book is open.
class OpenBookEvent : public Event {
 public:
  OpenBookEvent() : Event(EventFactory::kOpenBook) {}
  // Null texts become empty; the language is cut to 2 characters; both lists start empty.
  OpenBookEvent(std::int32_t book_id, const char* language, const char* c, bool d, std::int16_t e,
                std::int32_t f, std::int16_t g, std::int32_t h, const std::string& file_name,
                const char* i, const char* j, const char* k, const char* l);

  // Append copies of a list's texts up to its first null element; a null list is an empty one.
  void AppendFirstList(const char* const* texts);
  void AppendSecondList(const char* const* texts);

  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &OpenBookEvent::book_id_, kBook},
        Field{"language", Language{}, &OpenBookEvent::language_, kBookLanguage},
        Field{"authors", StringVec{}, &OpenBookEvent::first_list_,
              Meaning{Kind::kTexts, Sensitivity::kContent, "authors of the book"}},
        Field{"file_type", String{}, &OpenBookEvent::c_, kFileType},
        Field{"genres", StringVec{}, &OpenBookEvent::second_list_,
              Meaning{Kind::kTexts, Sensitivity::kContent, "genres of the book"}},
        Field{"d", ExactlyOneInt16{}, &OpenBookEvent::d_, kOwn},
        Field{"e", Int16{}, &OpenBookEvent::e_, kOwn},
        Field{"pages", Int32{}, &OpenBookEvent::f_, kPages},
        Field{"g", Int16{}, &OpenBookEvent::g_, kOwn},
        Field{"h", Int32{}, &OpenBookEvent::h_, kOwn},
        Field{"file_name", String{}, &OpenBookEvent::file_name_, kFileName},
        Field{"i", String{}, &OpenBookEvent::i_, kOwn},
        Field{"j", String{}, &OpenBookEvent::j_, kOwn},
        Field{"k", String{}, &OpenBookEvent::k_, kOwn},
        Field{"l", String{}, &OpenBookEvent::l_, kOwn},
    };
  }

  std::int32_t book_id_ = 0;
  std::string language_;
  std::vector<std::string> first_list_;
  std::string c_;
  std::vector<std::string> second_list_;
  bool d_ = false;
  std::int16_t e_ = 0;
  std::int32_t f_ = 0;
  std::int16_t g_ = 0;
  std::int32_t h_ = 0;
  std::string file_name_;
  std::string i_;
  std::string j_;
  std::string k_;
  std::string l_;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_BOOK_EVENTS_H_
