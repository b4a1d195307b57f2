// Batches of new books and the new-book list, on a platform that knows some books.

#include <gmock/gmock.h>

#include <stdexcept>

#include "include/usage_stat.h"
#include "tests/support/recording/recorder.h"

namespace usage_stat_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class NewBooksTest : public testing::Test {
 protected:
  NewBooksTest() { Recorded() = Recording(); }
};

constexpr BookInfo kBookA = {
    1, "/card/A.epub", "en_US", "Ann", {"n0", nullptr, "n2"}, 7, -7, "1", "2", "3", "isbn a"};
constexpr BookInfo kBookB = {1, "/card/B", nullptr, nullptr, {nullptr, "m1"}, -8,
                             8, nullptr,   nullptr, nullptr, nullptr};
constexpr BookInfo OfType(int file_type) {
  BookInfo info{};
  info.file_type = file_type;
  return info;
}
constexpr BookInfo kNowhere = OfType(1);  // a book without a path

constexpr char kListB[] = "StringVec []; ";
constexpr char kNamesB[] = "StringVec [][m1][][][][][][][][]; ";

std::string Id(const char* path) { return "Int32 " + std::to_string(Stat_GetBookId(path)) + "; "; }

TEST_F(NewBooksTest, BooksOfASimpleBatchShareTheListsOfTheLastOne) {
  Recorded().books = {{"/x/a.epub", kBookA}, {"/x/b.epub.zip", kBookB}};
  Recorded().isbns = {{"/x/a.epub", "not asked"}, {"/x/b.epub.zip", "asked"}};
  const char* paths[] = {"/x/a.epub", "/x/b.epub.zip", nullptr};
  EXPECT_EQ(Stat_NewBooksEventSimple(2, paths, 3), 0);
  EXPECT_EQ(Recorded().message,
            "Int16 2028; Timestamp now; Int32 2; " + Id("/x/a.epub") + "Language en; " + kListB +
                "String .epub; " + kNamesB + "Int32 7; Int16 -7; String a.epub; String 1; " +
                "String 2; String isbn a; String 3; " + Id("/x/b.epub.zip") + "Language ; " +
                kListB + "String .epub.zip; " + kNamesB +
                "Int32 -8; Int16 8; String b.epub.zip; String ; String ; String asked; String ; "
                "Int16 3; ");
}

TEST_F(NewBooksTest, AnEmptyIsbnIsOne) {
  BookInfo book = kBookB;
  book.isbn = "";
  Recorded().books = {{"/x/a", book}};
  Recorded().isbns = {{"/x/a", "asked"}};
  const char* path = "/x/a";
  EXPECT_EQ(Stat_NewBooksEventSimple(1, &path, 1), 0);
  EXPECT_THAT(Recorded().message, Not(HasSubstr("asked")));
}

TEST_F(NewBooksTest, MoreThanAHundredPathsAreSentAsTheirNumberAlone) {
  const std::vector<const char*> paths(101, "/x/a");
  EXPECT_EQ(Stat_NewBooksEventSimple(101, paths.data(), 3), 0);
  EXPECT_EQ(Recorded().message, "Int16 2028; Timestamp now; Int32 101; Int16 3; ");
  EXPECT_EQ(Stat_NewBooksEventSimple(100, paths.data(), 3), 0);
  const std::string book = Id("/x/a") + "Language ; " + kListB +
                           "String ; StringVec [][][][][][][][][][]; Int32 0; Int16 0; String a; "
                           "String ; String ; String ; String ; ";
  std::string books;
  for (int i = 0; i < 100; ++i) books += book;
  EXPECT_EQ(Recorded().message, "Int16 2028; Timestamp now; Int32 100; " + books + "Int16 3; ");
}

TEST_F(NewBooksTest, FileTypesFollowTwoRules) {
  struct Row {
    const char* path;
    const char* in_batch;  // null: an exception
    const char* in_list;
    const char* file_name;
  };
  for (const Row& row : {Row{"/b/a.epub", ".epub", ".epub", "a.epub"},
                         {"a.fb2.zip", ".fb2.zip", ".fb2.zip", ""},
                         {"/b/a.epub.zip", ".epub.zip", ".zip", "a.epub.zip"},
                         {"/b/a.ZIP", ".ZIP", ".ZIP", "a.ZIP"},
                         {"/b/book", "", "", "book"},
                         {"/dir.d/book", ".d/book", ".d/book", "book"},
                         {"a.", ".", ".", ""},
                         {"a.zip", nullptr, ".zip", ""},
                         {".zip", nullptr, ".zip", ""}}) {
    SCOPED_TRACE(row.path);
    Recorded() = Recording();
    Recorded().books = {{"/b/first.epub", kBookA}, {row.path, kBookA}};
    const char* paths[] = {"/b/first.epub", row.path};
    if (row.in_batch) {
      EXPECT_EQ(Stat_NewBooksEventSimple(2, paths, 1), 0);
      EXPECT_THAT(Recorded().message,
                  HasSubstr("String " + std::string(row.in_batch) + "; StringVec [n0]"));
    } else {
      EXPECT_THROW(Stat_NewBooksEventSimple(2, paths, 1), std::out_of_range);
      EXPECT_THAT(Recorded().calls, IsEmpty());
    }
    StatUtils_AddNewBookToStatList(row.path);
    ASSERT_EQ(StatUtils_StatListSize(), 1);
    EXPECT_STREQ(StatUtils_GetStatList()[0]->file_type, row.in_list);
    EXPECT_STREQ(StatUtils_GetStatList()[0]->file_name, row.file_name);
    StatUtils_FreeStatList();
  }
}

TEST_F(NewBooksTest, TheListOwnsItsRecords) {
  Recorded().books = {{"/x/a.epub", kBookA}, {"/x/b", kBookB}};
  const std::vector<int> other_types = {-1, 0, 2, 3, 257};
  for (const int type : other_types) Recorded().books["/x/" + std::to_string(type)] = OfType(type);
  Recorded().isbns = {{"/x/b", "asked"}};
  StatUtils_AddNewBookToStatList("/x/a.epub");
  const std::string function = "void StatUtils_AddNewBookToStatList(const char *)";
  EXPECT_THAT(Recorded().log,
              ElementsAre(LogLine{4, "src/usage_stat_client", function,
                                  "[pid:%d]StatUtils_AddNewBookToStatList path [%s]",
                                  "[pid:4711]StatUtils_AddNewBookToStatList path [/x/a.epub]"},
                          LogLine{4, "src/usage_stat_client", function,
                                  "[pid:%d]StatUtils_AddNewBookToStatList FTYPE_BOOK",
                                  "[pid:4711]StatUtils_AddNewBookToStatList FTYPE_BOOK"}));
  for (const char* path : {"/x/unknown", "/x/b"}) StatUtils_AddNewBookToStatList(path);
  for (const int type : other_types) {
    StatUtils_AddNewBookToStatList(("/x/" + std::to_string(type)).c_str());
  }
  EXPECT_EQ(Recorded().log.size(), 5U + other_types.size());  // no second line for what is no book
  ASSERT_EQ(StatUtils_StatListSize(), 2);

  Recorded().books.clear();
  const Stat_BookInfo* const* books = StatUtils_GetStatList();
  EXPECT_NE(books[0]->language, kBookA.language);
  EXPECT_EQ(books[1]->language, nullptr);
  EXPECT_EQ(books[1]->s3, nullptr);
  EXPECT_EQ(Stat_NewBooksEventEx(2, books, 3), 0);
  EXPECT_EQ(Recorded().message,
            "Int16 2028; Timestamp now; Int32 2; " + Id("/card/A.epub") +
                "Language en; StringVec [Ann]; String .epub; StringVec [n0][][n2][][][][][][][]; " +
                "Int32 7; Int16 -7; String a.epub; String 1; String 2; String isbn a; String 3; " +
                Id("/card/B") + "Language ; " + kListB + "String ; " + kNamesB +
                "Int32 -8; Int16 8; String b; String ; String ; String asked; String ; Int16 3; ");
  StatUtils_FreeStatList();
  EXPECT_EQ(StatUtils_StatListSize(), 0);
  StatUtils_FreeStatList();
}

TEST_F(NewBooksTest, TheListTakes101BooksAndLosesNoneToAnException) {
  Recorded().books = {{"/x/a.epub", kBookA}, {"/x/nowhere", kNowhere}};
  for (int i = 0; i < 105; ++i) {
    if (i == 50) {
      EXPECT_THROW(StatUtils_AddNewBookToStatList("/x/nowhere"), std::logic_error);
    }
    StatUtils_AddNewBookToStatList("/x/a.epub");
    EXPECT_EQ(StatUtils_StatListSize(), std::min(i + 1, 101));
  }
  EXPECT_EQ(Recorded().log.size(), 2U * 101 + 2);  // a full list does not even ask
  StatUtils_FreeStatList();
}

}  // namespace
}  // namespace usage_stat_test
