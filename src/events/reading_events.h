// What the user does inside an open book. Members have letters because the record gives them no
// meaning: what the reading applications have agreed on stands in the lists of fields.

#ifndef EVENTS_READING_EVENTS_H_
#define EVENTS_READING_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

inline constexpr Meaning kFromPage{Kind::kPage, Sensitivity::kInteraction, "page that was left"};
inline constexpr Meaning kToPage{Kind::kPage, Sensitivity::kInteraction, "page that was gone to"};

// A jump to a page, in the older 16-bit form.
class GoToPageEvent : public Event {
 public:
  GoToPageEvent() : Event(EventFactory::kGoToPage) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &GoToPageEvent::a_, kOwn},
        Field{"b", FlagChar{}, &GoToPageEvent::b_, kOwn},
        Field{"to_page", Int16{}, &GoToPageEvent::c_, kToPage},
        Field{"pages", Int16{}, &GoToPageEvent::d_, kPages},
    };
  }

  std::int16_t a_ = 0;
  bool b_ = false;
  std::int16_t c_ = 0;
  std::int16_t d_ = 0;
};

// A jump to a page. The first member travels last: the collector expects it there.
class GoToPageEventNew : public Event {
 public:
  GoToPageEventNew() : Event(EventFactory::kGoToPageNew) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"b", Int16{}, &GoToPageEventNew::b_, kOwn},
        Field{"f", FlagChar{}, &GoToPageEventNew::f_, kOwn},
        Field{"from_page", Int32{}, &GoToPageEventNew::c_, kFromPage},
        Field{"to_page", Int32{}, &GoToPageEventNew::d_, kToPage},
        Field{"pages", Int32{}, &GoToPageEventNew::e_, kPages},
        Field{"book_id", Int32{}, &GoToPageEventNew::a_, kBook},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
  std::int32_t c_ = 0;
  std::int32_t d_ = 0;
  std::int32_t e_ = 0;
  bool f_ = false;
};

// A page turn as applications send it. It carries the type code of ChangePageEventEx on purpose,
// whose payload it is a prefix of: deployed collectors know page turns by that code. The factory
// never makes this class, so Event::CreateFromStream deliberately fails on what it writes; a
// collector tries the shorter class first.
class ChangePageEvent : public Event {
 public:
  ChangePageEvent() : Event(EventFactory::kChangePage) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &ChangePageEvent::a_, kBook},
        Field{"b", Int16{}, &ChangePageEvent::b_, kOwn},
        Field{"from_page", Int32{}, &ChangePageEvent::c_, kFromPage},
        Field{"to_page", Int32{}, &ChangePageEvent::d_, kToPage},
        Field{"pages", Int32{}, &ChangePageEvent::e_, kPages},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
  std::int32_t c_ = 0;
  std::int32_t d_ = 0;
  std::int32_t e_ = 0;
};

// A page turn in the long form. No exported function sends it.
class ChangePageEventEx : public Event {
 public:
  ChangePageEventEx() : Event(EventFactory::kChangePage) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &ChangePageEventEx::a_, kBook},
        Field{"b", Int16{}, &ChangePageEventEx::b_, kOwn},
        Field{"from_page", Int32{}, &ChangePageEventEx::c_, kFromPage},
        Field{"to_page", Int32{}, &ChangePageEventEx::d_, kToPage},
        Field{"pages", Int32{}, &ChangePageEventEx::e_, kPages},
        Field{"f", Char{}, &ChangePageEventEx::f_, kOwn},
        Field{"g", Char{}, &ChangePageEventEx::g_, kOwn},
        Field{"h", Int16{}, &ChangePageEventEx::h_, kOwn},
        Field{"i", Int32{}, &ChangePageEventEx::i_, kOwn},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
  std::int32_t c_ = 0;
  std::int32_t d_ = 0;
  std::int32_t e_ = 0;
  char f_ = 0;
  char g_ = 0;
  std::int16_t h_ = 0;
  std::int32_t i_ = 0;
};

// Text-to-speech began.
class StartTtsEvent : public Event {
 public:
  StartTtsEvent() : Event(EventFactory::kStartTts) {}
  StartTtsEvent(std::int16_t a, std::int32_t b, const std::string& c, const std::string& d,
                std::int16_t e, std::int16_t f)
      : Event(EventFactory::kStartTts), a_(a), b_(b), c_(c), d_(d), e_(e), f_(f) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &StartTtsEvent::a_, kOwn},
        Field{"book_id", Int32{}, &StartTtsEvent::b_, kBook},
        Field{"language", String{}, &StartTtsEvent::c_,
              Meaning{Kind::kText, Sensitivity::kContent, "language that is spoken"}},
        Field{"voice", String{}, &StartTtsEvent::d_,
              Meaning{Kind::kText, Sensitivity::kContent, "name of the voice"}},
        Field{"e", Int16{}, &StartTtsEvent::e_, kOwn},
        Field{"f", Int16{}, &StartTtsEvent::f_, kOwn},
    };
  }

  std::int16_t a_ = 0;
  std::int32_t b_ = 0;
  std::string c_;
  std::string d_;
  std::int16_t e_ = 0;
  std::int16_t f_ = 0;
};

// Text-to-speech ended.
class StopTtsEvent : public Event {
 public:
  StopTtsEvent() : Event(EventFactory::kStopTts) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{Field{"a", Int16{}, &StopTtsEvent::a_, kOwn}};
  }

  std::int16_t a_ = 0;
};

// A note was added.
class AddNoteEvent : public Event {
 public:
  AddNoteEvent() : Event(EventFactory::kAddNote) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &AddNoteEvent::a_, kBook},
        Field{"page", Int16{}, &AddNoteEvent::b_,
              Meaning{Kind::kPage, Sensitivity::kInteraction, "page of the note"}},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
};

// A word was looked up in a dictionary.
class UseDictionaryEvent : public Event {
 public:
  UseDictionaryEvent() : Event(EventFactory::kUseDictionary) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &UseDictionaryEvent::a_, kBook},
        Field{"word", String{}, &UseDictionaryEvent::b_,
              Meaning{Kind::kText, Sensitivity::kContent, "the word that was looked up"}},
    };
  }

  std::int32_t a_ = 0;
  std::string b_;
};

// A text tool was used.
class UsingTextToolsEvent : public Event {
 public:
  UsingTextToolsEvent() : Event(EventFactory::kUsingTextTools) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &UsingTextToolsEvent::a_, kBook},
        Field{"b", Int16{}, &UsingTextToolsEvent::b_, kOwn},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
};

// The state of a book's notes and bookmarks.
class NotesAndBookmarksEvent : public Event {
 public:
  NotesAndBookmarksEvent() : Event(EventFactory::kNotesAndBookmarks) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &NotesAndBookmarksEvent::a_, kBook},
        Field{"b", Int16{}, &NotesAndBookmarksEvent::b_, kOwn},
        Field{"c", Int16{}, &NotesAndBookmarksEvent::c_, kOwn},
        Field{"d", Int16{}, &NotesAndBookmarksEvent::d_, kOwn},
        Field{"e", Int16{}, &NotesAndBookmarksEvent::e_, kOwn},
        Field{"f", Int16{}, &NotesAndBookmarksEvent::f_, kOwn},
    };
  }

  std::int32_t a_ = 0;
  std::int16_t b_ = 0;
  std::int16_t c_ = 0;
  std::int16_t d_ = 0;
  std::int16_t e_ = 0;
  std::int16_t f_ = 0;
};

// A link was followed.
class GoToURLEvent : public Event {
 public:
  GoToURLEvent() : Event(EventFactory::kGoToURL) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &GoToURLEvent::a_, kOwn},
        Field{"url", String{}, &GoToURLEvent::b_,
              Meaning{Kind::kText, Sensitivity::kContent, "where the link leads"}},
    };
  }

  std::int16_t a_ = 0;
  std::string b_;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_READING_EVENTS_H_
