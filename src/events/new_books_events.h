// Batches of newly found books.

#ifndef EVENTS_NEW_BOOKS_EVENTS_H_
#define EVENTS_NEW_BOOKS_EVENTS_H_

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"

namespace velmora::usage_stat {

// One book of a batch.
struct NewBookRecord {
  static constexpr auto Fields() {
    return std::tuple{
        Field{"book_id", Int32{}, &NewBookRecord::book_id_, kBook},
        Field{"language", Language{}, &NewBookRecord::language_, kBookLanguage},
        Field{"authors", StringVec{}, &NewBookRecord::first_list_,
              Meaning{Kind::kTexts, Sensitivity::kContent, "the first author"}},
        Field{"file_type", String{}, &NewBookRecord::file_type_, kFileType},
        Field{"other_people", StringVec{}, &NewBookRecord::second_list_,
              Meaning{Kind::kTexts, Sensitivity::kContent,
                      "further authors, translators and others"}},
        Field{"year", Int32{}, &NewBookRecord::n1_,
              Meaning{Kind::kNumber, Sensitivity::kContent, "year of publication; 0 when unknown"}},
        Field{
            "series_number", Int16{}, &NewBookRecord::n2_,
            Meaning{Kind::kNumber, Sensitivity::kContent, "number in the series; 0 when unknown"}},
        Field{"file_name", String{}, &NewBookRecord::file_name_, kFileName},
        Field{"title", String{}, &NewBookRecord::s1_,
              Meaning{Kind::kText, Sensitivity::kContent, "title of the book"}},
        Field{"series", String{}, &NewBookRecord::s2_,
              Meaning{Kind::kText, Sensitivity::kContent, "series that it belongs to"}},
        Field{"isbn", String{}, &NewBookRecord::isbn_,
              Meaning{Kind::kText, Sensitivity::kContent, "ISBN, 13 digits"}},
        Field{"publisher", String{}, &NewBookRecord::s3_,
              Meaning{Kind::kText, Sensitivity::kContent, "publisher"}},
    };
  }

  std::int32_t book_id_ = 0;
  std::string language_;
  std::vector<std::string> first_list_;
  std::string file_type_;
  std::vector<std::string> second_list_;
  std::int32_t n1_ = 0;
  std::int16_t n2_ = 0;
  std::string file_name_;
  std::string s1_;
  std::string s2_;
  std::string isbn_;
  std::string s3_;
};

class NewBooksEventEx;

// The records of a batch, with no count of their own: the event's count says whether there are any.
//
// Writer and reader differ on purpose. The writer sends the records that it has, at most `count_`;
// the reader expects exactly `count_`. A batch whose sender met a null book early can therefore not
// be read back, and collectors count on being told so rather than on a silently shorter batch.
struct NewBookRecords {
  static int Write(const NewBooksEventEx& event, std::ostream& out);
  static int Read(std::istream& in, NewBooksEventEx* event);
};

// A batch of described books.
class NewBooksEventEx : public Event {
 public:
  // Records travel only with a count from 1 to this.
  static constexpr std::int32_t kMaxRecords = 100;

  NewBooksEventEx() : Event(EventFactory::kNewBooks) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  bool CarriesRecords() const { return count_ >= 1 && count_ <= kMaxRecords; }

  static constexpr auto Fields() {
    return std::tuple{
        Field{"count", Int32{}, &NewBooksEventEx::count_,
              Meaning{Kind::kRowCount, Sensitivity::kInteraction,
                      "books that were found; their descriptions follow when it is 1 to 100"}},
        Section{"books", NewBookRecords{},
                Meaning{Kind::kRows, Sensitivity::kContent, "descriptions of the books"}},
        Field{"application", Int16{}, &NewBooksEventEx::application_,
              Meaning{Kind::kApplication, Sensitivity::kInteraction,
                      "the application that found the books"}},
    };
  }

  std::int16_t application_ = 0;
  std::int32_t count_ = 0;  // as the caller gave it, however many records follow
  std::vector<NewBookRecord> records_;
};

// A bare count of new books. It carries the type code of NewBooksEventEx on purpose: deployed
// collectors know new books by that code. The factory never makes this class, so
// Event::CreateFromStream deliberately fails on what it writes; a collector tries the shorter class
// first.
class NewBooksEvent : public Event {
 public:
  NewBooksEvent() : Event(EventFactory::kNewBooks) {}
  int WriteStateToStream(std::ostream& out) override;
  int ReadStateFromStream(std::istream& in) override;

  static constexpr auto Fields() {
    return std::tuple{
        Field{"count", Int32{}, &NewBooksEvent::count_,
              Meaning{Kind::kCount, Sensitivity::kInteraction, "books that were found"}}};
  }

  std::int32_t count_ = 0;
};

}  // namespace velmora::usage_stat

#endif  // EVENTS_NEW_BOOKS_EVENTS_H_
