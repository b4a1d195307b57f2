// The new-book list: described books that an application collects one by one.
//
// Its records are plain C memory, like all that they point to; each owns its texts and its two
// lists.

#include <corvane/corvane.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "include/usage_stat.h"
#include "src/stat_event/check.h"
#include "src/usage_stat_client/book_description.h"
#include "src/usage_stat_client/book_path.h"

using namespace velmora::usage_stat;

namespace {

constexpr int kBookFileType = 1;
constexpr std::size_t kFullAbove = 100;  // a list with more books takes no other

// Unguarded: the list belongs to one thread.
std::vector<Stat_BookInfo*> g_books;

// ---- Releasing ----

void Free(const char* text) { std::free(const_cast<char*>(text)); }

void FreeList(const char* const* list) {
  if (!list) return;
  for (const char* const* text = list; *text; ++text) Free(*text);
  std::free(const_cast<const char**>(list));
}

void FreeRecord(Stat_BookInfo* book) {
  Free(book->language);
  FreeList(book->first_list);
  Free(book->file_type);
  FreeList(book->second_list);
  Free(book->file_name);
  Free(book->s1);
  Free(book->s2);
  Free(book->isbn);
  Free(book->s3);
  std::free(book);
}

struct RecordDeleter {
  void operator()(Stat_BookInfo* book) const { FreeRecord(book); }
};
using RecordPtr = std::unique_ptr<Stat_BookInfo, RecordDeleter>;

// ---- Describing ----

// Copies into C memory, and remembers whether there was enough of it.
class Copier {
 public:
  const char* Text(const char* text) { return text ? Got(strdup(text)) : nullptr; }

  // A null-terminated list of `count` copies, null texts as empty ones.
  const char* const* List(const char* const* texts, std::size_t count) {
    const auto list = static_cast<const char**>(Got(std::calloc(count + 1, sizeof(const char*))));
    for (std::size_t i = 0; is_complete_ && i < count; ++i) {
      list[i] = Text(texts[i] ? texts[i] : "");
    }
    return list;
  }

  bool is_complete() const { return is_complete_; }

 private:
  template <class Memory>
  Memory* Got(Memory* memory) {
    is_complete_ = is_complete_ && memory;
    return memory;
  }

  bool is_complete_ = true;
};

// Null when memory runs out: a record is whole or not there.
RecordPtr Describe(const std::string& path, const BookInfo& info) {
  RecordPtr book(static_cast<Stat_BookInfo*>(std::malloc(sizeof(Stat_BookInfo))));
  if (!book) return book;
  *book = {};  // nothing to release yet, should an exception leave
  Copier copier;
  // The id names the file that the platform found, which may stand at another path.
  book->book_id = Stat_GetBookId(info.path);
  book->first_list = copier.List(&info.primary_name, 1);
  book->file_type = copier.Text(ListFileType(path).c_str());
  book->second_list = copier.List(info.names, std::size(info.names));
  DescribeBook(
      path, info, [&copier](const char* text) { return copier.Text(text); }, book.get());
  return copier.is_complete() ? std::move(book) : nullptr;
}

}  // namespace

void StatUtils_AddNewBookToStatList(const char* path) {
  if (g_books.size() > kFullAbove) return;
  const BookInfo* info = GetBookInfo(path);
  STAT_LOG(4, "[pid:%d]StatUtils_AddNewBookToStatList path [%s]", path);
  if (!info || info->file_type != kBookFileType) return;
  STAT_LOG(4, "[pid:%d]StatUtils_AddNewBookToStatList FTYPE_BOOK");
  if (RecordPtr book = Describe(path, *info)) {
    g_books.push_back(book.get());
    static_cast<void>(book.release());
  }
}

void StatUtils_FreeStatList() {
  for (Stat_BookInfo* book : g_books) FreeRecord(book);
  g_books.clear();
}

int StatUtils_StatListSize() { return static_cast<int>(g_books.size()); }

const Stat_BookInfo* const* StatUtils_GetStatList() { return g_books.data(); }
