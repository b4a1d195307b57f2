// What a path says: its file name and the type of the book.

#ifndef USAGE_STAT_CLIENT_BOOK_PATH_H_
#define USAGE_STAT_CLIENT_BOOK_PATH_H_

#include <string>
#include <string_view>

namespace velmora::usage_stat {

// The text after the last slash; the whole path when there is none.
std::string_view FileName(std::string_view path);

// The file name of a new book: the same, but empty when there is no slash.
std::string NewBookFileName(const std::string& path);

// The file type of a book in a batch: the text from the last dot of the whole path on; from the dot
// before that when it is ".zip", so that "book.epub.zip" has ".epub.zip". Empty without a dot.
// Raises std::out_of_range for ".zip" without an earlier dot.
std::string BatchFileType(const std::string& path);

// The file type of a book in the new-book list: as above, but only ".fb2.zip" keeps its two parts,
// and every other ".zip" stays ".zip". The two rules differ on purpose: statistics over stored
// records tell the two kinds of batch apart by it.
std::string ListFileType(const std::string& path);

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_BOOK_PATH_H_
