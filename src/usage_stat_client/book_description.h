// What a book's description takes from the platform, however it is collected.

#ifndef USAGE_STAT_CLIENT_BOOK_DESCRIPTION_H_
#define USAGE_STAT_CLIENT_BOOK_DESCRIPTION_H_

#include <corvane/corvane.h>

#include <string>

#include "include/usage_stat.h"
#include "src/usage_stat_client/book_path.h"

namespace velmora::usage_stat {

// Fills `book` from what the platform knows of the book at `path`, apart from its id, its file type
// and its lists, for which batches and the new-book list have rules of their own. `copy(text)`
// gives a copy that `book` may point to, null for null.
template <class Copy>
void DescribeBook(const std::string& path, const BookInfo& info, const Copy& copy,
                  Stat_BookInfo* book) {
  book->language = copy(info.language);
  book->n1 = info.n1;
  book->n2 = info.n2;
  book->file_name = copy(NewBookFileName(path).c_str());
  book->s1 = copy(info.s1);
  book->s2 = copy(info.s2);
  book->s3 = copy(info.s3);
  book->isbn = copy(info.isbn ? info.isbn : GetBookISBN(path.c_str()));
}

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_BOOK_DESCRIPTION_H_
