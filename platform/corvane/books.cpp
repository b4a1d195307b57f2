#include <string.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>

#include "corvane/book.h"
#include "corvane/corvane.h"
#include "corvane/device_files.h"
#include "corvane/log.h"
#include "corvane/text.h"

namespace corvane {
namespace {

using Reader = std::optional<Book> (*)(UniqueFd file, const char** problem);

Reader ReaderFor(const char* path) {
  struct Format {
    const char* suffix;
    Reader reader;
  };
  for (const auto& [suffix, reader] :
       {Format{".epub", ReadEpub}, Format{".epub.zip", ReadZippedEpub}, Format{".fb2", ReadFb2},
        Format{".fb2.zip", ReadZippedFb2}, Format{".fbz", ReadZippedFb2}}) {
    if (EndsWithIgnoringCase(path, suffix)) return reader;
  }
  return nullptr;
}

std::optional<Book> ReadBook(const char* path) {
  const Reader read = path ? ReaderFor(path) : nullptr;
  if (!read) {
    return std::nullopt;  // a file of some other kind, which is no fault
  }
  int error = 0;
  UniqueFd file = OpenRegularFile(path, &error);
  if (error != 0) {
    CORVANE_LOG(kLogError, "can't open %s: %s", path, strerrordesc_np(error));
    return std::nullopt;
  }
  const char* problem = nullptr;
  std::optional<Book> book = read(std::move(file), &problem);
  if (!book) CORVANE_LOG(kLogError, "%s is no readable book: %s", path, problem);
  return book;
}

const char* OrNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

// A book as the interface shows it; `info` points into the rest.
struct PublishedBook {
  std::string path;
  Book book;
  BookInfo info;
};

void Publish(const char* path, Book book, PublishedBook* published) {
  published->path = path;
  published->book = std::move(book);
  const Book& from = published->book;
  BookInfo& info = published->info;
  info = {};
  info.file_type = 1;
  info.path = published->path.c_str();
  info.language = OrNull(from.language);
  for (std::size_t i = 0; i < from.people.size() && i <= std::size(info.names); ++i) {
    (i == 0 ? info.primary_name : info.names[i - 1]) = from.people[i].c_str();
  }
  info.n1 = from.year;
  info.n2 = from.series_number;
  info.s1 = OrNull(from.title);
  info.s2 = OrNull(from.series);
  info.s3 = OrNull(from.publisher);
  info.isbn = OrNull(from.isbn);
}

// What the last call of each kind returned on this thread.
thread_local PublishedBook returned_book;
thread_local std::string returned_isbn;

}  // namespace
}  // namespace corvane

const BookInfo* GetBookInfo(const char* path) {
  std::optional<corvane::Book> book = corvane::ReadBook(path);
  if (!book) return nullptr;
  corvane::Publish(path, std::move(*book), &corvane::returned_book);
  return &corvane::returned_book.info;
}

const char* GetBookISBN(const char* path) {
  const std::optional<corvane::Book> book = corvane::ReadBook(path);
  if (!book || book->isbn.empty()) return nullptr;
  corvane::returned_isbn = book->isbn;
  return corvane::returned_isbn.c_str();
}
