// What the user does inside an open book. The numbers are the reading applications' own: they are
// carried unchanged and known here by letters only.

#ifndef EVENTS_READING_EVENTS_H_
#define EVENTS_READING_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

// A jump to a page, in the older 16-bit form.
class GoToPageEvent : public Event {
 public:
  GoToPageEvent() : Event(EventFactory::kGoToPage) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"a", Int16{}, &GoToPageEvent::a_},
        Field{"b", FlagChar{}, &GoToPageEvent::b_},
        Field{"c", Int16{}, &GoToPageEvent::c_},
        Field{"d", Int16{}, &GoToPageEvent::d_},
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
        Field{"b", Int16{}, &GoToPageEventNew::b_}, Field{"f", FlagChar{}, &GoToPageEventNew::f_},
        Field{"c", Int32{}, &GoToPageEventNew::c_}, Field{"d", Int32{}, &GoToPageEventNew::d_},
        Field{"e", Int32{}, &GoToPageEventNew::e_}, Field{"a", Int32{}, &GoToPageEventNew::a_},
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
        Field{"a", Int32{}, &ChangePageEvent::a_}, Field{"b", Int16{}, &ChangePageEvent::b_},
        Field{"c", Int32{}, &ChangePageEvent::c_}, Field{"d", Int32{}, &ChangePageEvent::d_},
        Field{"e", Int32{}, &ChangePageEvent::e_},
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
        Field{"a", Int32{}, &ChangePageEventEx::a_}, Field{"b", Int16{}, &ChangePageEventEx::b_},
        Field{"c", Int32{}, &ChangePageEventEx::c_}, Field{"d", Int32{}, &ChangePageEventEx::d_},
        Field{"e", Int32{}, &ChangePageEventEx::e_}, Field{"f", Char{}, &ChangePageEventEx::f_},
        Field{"g", Char{}, &ChangePageEventEx::g_},  Field{"h", Int16{}, &ChangePageEventEx::h_},
        Field{"i", Int32{}, &ChangePageEventEx::i_},
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
        Field{"a", Int16{}, &StartTtsEvent::a_},  Field{"b", Int32{}, &StartTtsEvent::b_},
        Field{"c", String{}, &StartTtsEvent::c_}, Field{"d", String{}, &StartTtsEvent::d_},
        Field{"e", Int16{}, &StartTtsEvent::e_},  Field{"f", Int16{}, &StartTtsEvent::f_},
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

  static constexpr auto Fields() { return std::tuple{Field{"a", Int16{}, &StopTtsEvent::a_}}; }

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
        Field{"a", Int32{}, &AddNoteEvent::a_},
        Field{"b", Int16{}, &AddNoteEvent::b_},
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
        Field{"a", Int32{}, &UseDictionaryEvent::a_},
        Field{"b", String{}, &UseDictionaryEvent::b_},
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
        Field{"a", Int32{}, &UsingTextToolsEvent::a_},
        Field{"b", Int16{}, &UsingTextToolsEvent::b_},
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
        Field{"a", Int32{}, &NotesAndBookmarksEvent::a_},
        Field{"b", Int16{}, &NotesAndBookmarksEvent::b_},
        Field{"c", Int16{}, &NotesAndBookmarksEvent::c_},
        Field{"d", Int16{}, &NotesAndBookmarksEvent::d_},
        Field{"e", Int16{}, &NotesAndBookmarksEvent::e_},
        Field{"f", Int16{}, &NotesAndBookmarksEvent::f_},
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
        Field{"a", Int16{}, &GoToURLEvent::a_},
        Field{"b", String{}, &GoToURLEvent::b_},
    };
  }

  std::int16_t a_ = 0;
  std::string b_;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_READING_EVENTS_H_
