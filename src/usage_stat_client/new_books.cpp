// Exported functions that report batches of new books.

#include <corvane/corvane.h>

#include <deque>
#include <string>
#include <vector>

#include "include/usage_stat.h"
#include "src/events/book_events.h"
#include "src/events/new_books_events.h"
#include "src/usage_stat_client/arguments.h"
#include "src/usage_stat_client/book_description.h"
#include "src/usage_stat_client/book_path.h"
#include "src/usage_stat_client/statistics_client.h"

using namespace velmora::usage_stat;

namespace {

// Sets an empty `text` to a copy of `value`; null counts as empty.
void SetText(const char* value, std::string* text) {
  if (value) text->assign(value);
}

// Fills the record where it will stay, and each text where it will stay: a batch has hundreds.
void Fill(const Stat_BookInfo& book, NewBookRecord* record) {
  record->book_id_ = book.book_id;
  record->language_ = LanguageCode(book.language);
  AppendTexts(book.first_list, &record->first_list_);
  SetText(book.file_type, &record->file_type_);
  AppendTexts(book.second_list, &record->second_list_);
  record->n1_ = book.n1;
  record->n2_ = book.n2;
  SetText(book.file_name, &record->file_name_);
  SetText(book.s1, &record->s1_);
  SetText(book.s2, &record->s2_);
  SetText(book.isbn, &record->isbn_);
  SetText(book.s3, &record->s3_);
}

// The descriptions of books that are known by path alone, and the memory behind them.
//
// All of them share one pair of lists, which hold the values of the last book. That is deliberate:
// collectors have only ever received such batches so and read the lists as those of the batch.
class DescribedBooks {
 public:
  DescribedBooks() = default;
  DescribedBooks(const DescribedBooks&) = delete;
  DescribedBooks& operator=(const DescribedBooks&) = delete;

  void Add(const char* path) {
    // A book that the platform can't read is described by its path alone.
    static constexpr BookInfo kUnknown = {};
    const BookInfo* found = GetBookInfo(path);
    const BookInfo& info = found ? *found : kUnknown;
    const std::string full_path = RequiredText(path);

    Stat_BookInfo book = {};
    book.book_id = Stat_GetBookId(path);
    ShareLists(info);
    book.first_list = first_list_;
    book.file_type = Copy(BatchFileType(full_path).c_str());
    book.second_list = second_list_;
    DescribeBook(
        full_path, info, [this](const char* text) { return Copy(text); }, &book);
    books_.push_back(book);
  }

  // One pointer for each book, then a null.
  std::vector<const Stat_BookInfo*> Pointers() const {
    std::vector<const Stat_BookInfo*> pointers;
    pointers.reserve(books_.size() + 1);
    for (const Stat_BookInfo& book : books_) pointers.push_back(&book);
    pointers.push_back(nullptr);
    return pointers;
  }

 private:
  static constexpr std::size_t kNames = std::size(BookInfo{}.names);

  const char* Copy(const char* text) { return text ? texts_.emplace_back(text).c_str() : nullptr; }

  void ShareLists(const BookInfo& info) {
    shared_texts_[0] = TextOrEmpty(info.primary_name);
    first_list_[0] = shared_texts_[0].c_str();
    for (std::size_t i = 0; i < kNames; ++i) {
      shared_texts_[i + 1] = TextOrEmpty(info.names[i]);
      second_list_[i] = shared_texts_[i + 1].c_str();
    }
  }

  std::vector<Stat_BookInfo> books_;
  std::deque<std::string> texts_;
  std::string shared_texts_[1 + kNames];
  const char* first_list_[1 + 1] = {};
  const char* second_list_[kNames + 1] = {};
};

}  // namespace

int Stat_NewBooksEvent(int count) {
  NewBooksEvent event;
  event.count_ = count;
  return STAT_SEND(event);
}

int Stat_NewBooksEventEx(int count, const Stat_BookInfo* const* books,
                         Stat_ApplicationId application) {
  NewBooksEventEx event;
  event.application_ = static_cast<std::int16_t>(application);
  event.count_ = count;
  if (event.CarriesRecords() && books) {
    event.records_.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count && books[i]; ++i) Fill(*books[i], &event.records_.emplace_back());
  }
  return STAT_SEND(event);
}

// Two of the parameters are named as the log line spells its condition.
int Stat_NewBooksEventSimple(int books_quantity, const char* const* bookPaths,
                             Stat_ApplicationId application) {
  STAT_RETURN_IF(books_quantity <= 0 || !bookPaths, VM_INVAL);
  DescribedBooks books;
  for (int i = 0; i < books_quantity && bookPaths[i]; ++i) books.Add(bookPaths[i]);
  return Stat_NewBooksEventEx(books_quantity, books.Pointers().data(), application);
}
