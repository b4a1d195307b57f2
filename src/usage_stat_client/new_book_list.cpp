// The new-book list: described books that an application collects one by one.
//
// Its records are plain C memory, as other code of the device may release them with free(): each
// owns its texts and its two lists.

#include <corvane/corvane.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "include/usage_stat.h"
#include "src/stat_event/check.h"
#include "src/usage_stat_client/book_path.h"

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

// ---- Copying. Where memory runs out the copy is null, like the copy of a null text. ----

const char* Copy(const char* text) { return text ? strdup(text) : nullptr; }

// A null-terminated list of `count` copies, null texts as empty ones. It ends early where memory
// does.
const char* const* CopyList(const char* const* texts, std::size_t count) {
  const auto list = static_cast<const char**>(std::calloc(count + 1, sizeof(const char*)));
  if (!list) return nullptr;
  for (std::size_t i = 0; i < count; ++i) {
    list[i] = strdup(texts[i] ? texts[i] : "");
    if (!list[i]) break;
  }
  return list;
}

RecordPtr Describe(const std::string& path, const BookInfo& info) {
  RecordPtr book(static_cast<Stat_BookInfo*>(std::malloc(sizeof(Stat_BookInfo))));
  if (!book) return book;
  *book = {};  // nothing to release yet, should an exception leave
  // The id names the file that the platform found, which may stand at another path.
  book->book_id = Stat_GetBookId(info.path);
  book->language = Copy(info.language);
  book->first_list = CopyList(&info.primary_name, 1);
  book->file_type = Copy(velmora::usage_stat::ListFileType(path).c_str());
  book->second_list = CopyList(info.names, std::size(info.names));
  book->n1 = info.n1;
  book->n2 = info.n2;
  book->file_name = Copy(velmora::usage_stat::FileNameOr(path, "").c_str());
  book->s1 = Copy(info.s1);
  book->s2 = Copy(info.s2);
  book->s3 = Copy(info.s3);
  book->isbn = Copy(info.isbn ? info.isbn : GetBookISBN(path.c_str()));
  return book;
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
