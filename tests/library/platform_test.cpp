// libusage_stat.so on another pair of platform libraries: what it asks of them, in which order, and
// what it logs when they fail.

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

#include "tests/library/golden_records.h"
#include "tests/support/recording/recorder.h"

namespace usage_stat_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kWriteFailed[] = "[pid:%d]Condition: \"0 == err\", return(\"VM_FAILED\")]";
const std::string kEndpoint("\0usage_stat_event1\0", 19);

LogLine Line(const std::string& unit, const std::string& function, const std::string& format,
             const std::string& message = "") {
  std::string printed = message.empty() ? format : message;
  if (const auto pid = printed.find("%d"); pid != std::string::npos)
    printed.replace(pid, 2, "4711");
  return {1, unit, function, format, printed};
}

LogLine ErrorLine(const std::string& function, int error) {
  return Line("src/usage_stat_client", function, "[pid:%d] err:[%d] ",
              "[pid:4711] err:[" + std::to_string(error) + "] ");
}

LogLine SendEventLine(int error) {
  return ErrorLine(
      "static int velmora::usage_stat::StaticsticsClient::SendEvent(velmora::usage_stat::Event *)",
      error);
}

void Forget() { Recorded() = Recording(); }

// The errors logged since Forget().
std::vector<LogLine> Errors() {
  std::vector<LogLine> errors;
  for (const LogLine& line : Recorded().log) {
    if (line.level == 1) errors.push_back(line);
  }
  return errors;
}

class PlatformTest : public testing::Test {
 protected:
  PlatformTest() { Forget(); }
};

TEST_F(PlatformTest, TheSameLibraryRunsOnAnotherPair) {
  Dl_info library{};
  for (const char* symbol : {"vm_print_log2", "_ZN7velmora9utilities13MessageClientC1Ev"}) {
    ASSERT_NE(dladdr(dlsym(RTLD_DEFAULT, symbol), &library), 0);
    EXPECT_THAT(library.dli_fname, HasSubstr("/recording/"));
  }
  EXPECT_EQ(Stat_SendOrientationEvent(1), 0);
  EXPECT_EQ(Recorded().message, "Int16 2008; Timestamp now; Int16 1; ");
  EXPECT_THAT(Recorded().calls, ElementsAre("MessageClient", "Init " + kEndpoint + " 102400",
                                            "SendMessage", "~MessageClient"));
  EXPECT_THAT(Recorded().log, IsEmpty());
}

// The lines of a record whose primitive number `step` fails.
std::vector<LogLine> WriteFailure(const GoldenRecord& golden, int step) {
  std::vector<LogLine> lines;
  if (golden.event_class == "KeyboardSettingsEvent" && step > 3) {
    lines.push_back(Line("src/events",
                         "int SerializeKeyMapping(int16_t, const std::vector<Keymapping> &, "
                         "std::ostream &)",
                         kWriteFailed));
  }
  lines.push_back(step <= 2 ? Line("src/stat_event",
                                   "int velmora::usage_stat::Event::WriteToStream(std::ostream &)",
                                   kWriteFailed)
                            : Line("src/events",
                                   "virtual int velmora::usage_stat::" + golden.event_class +
                                       "::WriteStateToStream(std::ostream &)",
                                   kWriteFailed));
  lines.push_back(SendEventLine(-1));
  lines.push_back(ErrorLine(golden.signature, -1));
  return lines;
}

TEST_F(PlatformTest, EveryFailureOfEveryFunctionIsLoggedAndReturned) {
  for (const GoldenRecord& golden : GoldenRecords()) {
    if (!golden.send) continue;
    SCOPED_TRACE(std::to_string(golden.code) + " of " + golden.signature);
    Forget();
    EXPECT_EQ(golden.send(), 0);
    EXPECT_THAT(Errors(), IsEmpty());
    const int steps = Recorded().steps;
    // A launch by path logs a diagnostic line, and does not tell what came of sending.
    const bool is_launch_by_path = !Recorded().log.empty();
    const auto result = [&](int error) { return is_launch_by_path ? 0 : error; };

    Forget();
    Recorded().init_result = 5;
    EXPECT_EQ(golden.send(), result(5));
    EXPECT_THAT(Errors(), ElementsAre(SendEventLine(5), ErrorLine(golden.signature, 5)));
    EXPECT_THAT(Recorded().calls, Not(Contains("SendMessage")));

    Forget();
    Recorded().send_result = -6;
    EXPECT_EQ(golden.send(), result(-6));
    EXPECT_THAT(Errors(), ElementsAre(ErrorLine(golden.signature, -6)));

    for (int step = 1; step <= steps; ++step) {
      Forget();
      Recorded().failing_step = step;
      EXPECT_EQ(golden.send(), result(-1));
      EXPECT_EQ(Errors(), WriteFailure(golden, step)) << "step " << step;
      EXPECT_THAT(Recorded().calls, Not(Contains(HasSubstr("Init"))));
    }
  }
}

TEST_F(PlatformTest, RejectedArgumentsAreLogged) {
  EXPECT_EQ(Stat_NewBooksEventSimple(0, kUnknownBooks, 1), -2);
  EXPECT_EQ(Stat_NewBooksEventSimple(2, nullptr, 1), -2);
  const LogLine line =
      Line("src/usage_stat_client",
           "int Stat_NewBooksEventSimple(int, const char *const *, Stat_ApplicationId)",
           "[pid:%d]Condition: \"books_quantity <= 0 || !bookPaths\", return(\"VM_INVAL\")]");
  EXPECT_THAT(Recorded().log, ElementsAre(line, line));
  EXPECT_THAT(Recorded().calls, IsEmpty());
}

TEST_F(PlatformTest, NullTextsLeaveAsExceptionsAndSendNothing) {
  const Margins margins{};
  const MarginsEx texts{};
  EXPECT_THROW(Stat_StartTtsEvent(1, 2, nullptr, "", 3, 4), std::logic_error);
  EXPECT_THROW(Stat_StartTtsEvent(1, 2, "", nullptr, 3, 4), std::logic_error);
  EXPECT_THROW(Stat_UseDictionaryEvent(1, nullptr), std::logic_error);
  EXPECT_THROW(Stat_GoToURLEvent(1, nullptr), std::logic_error);
  EXPECT_THROW(Stat_StartApplicationEvent(1, 1, 1, nullptr), std::logic_error);
  EXPECT_THROW(Stat_GetBookId(nullptr), std::logic_error);
  EXPECT_THROW(Stat_SendStartOpenBookEvent(nullptr, 1, 2, ""), std::logic_error);
  EXPECT_THROW(Stat_SetFontParamsEvent(1, 2, nullptr, 'd', 'e', 3, margins, 'g',
                                       STAT_LINE_BREAK_NONE, STAT_UPDATE_MODE_FULL),
               std::logic_error);
  EXPECT_THROW(Stat_SetFontParamsEventEx(1, 2, "", 'd', 'e', 'f', 3, nullptr, 'i', texts, 'j', 'k',
                                         'l', 'm'),
               std::logic_error);
  EXPECT_THAT(Recorded().calls, IsEmpty());
  EXPECT_THAT(Recorded().log, IsEmpty());
}

TEST_F(PlatformTest, LanguageIsReadFromTheRefreshedConfiguration) {
  EXPECT_EQ(Stat_LangEvent(), 0);
  EXPECT_THAT(
      Recorded().calls,
      ElementsAre("RefreshConfig global", "OpenConfig /mnt/ext1/system/config/global.cfg 0",
                  "ReadString opened language ??", "CloseConfigNoSave opened", "MessageClient",
                  "Init " + kEndpoint + " 102400", "SendMessage", "~MessageClient"));
  EXPECT_EQ(Recorded().message, "Int16 2017; Timestamp now; Char 63; Char 63; ");

  for (const char* language : {"", "e", "eng"}) {
    Forget();
    Recorded().language = language;
    EXPECT_EQ(Stat_LangEvent(), -1);
    EXPECT_THAT(
        Recorded().log,
        ElementsAre(Line("src/events",
                         "virtual int velmora::usage_stat::LanguageChangeEvent::"
                         "WriteStateToStream(std::ostream &)",
                         "[pid:%d]Condition: \"2 == language_.length()\", return(\"VM_FAILED\")]"),
                    SendEventLine(-1), ErrorLine("int Stat_LangEvent()", -1)));
    EXPECT_THAT(Recorded().calls, Not(Contains(HasSubstr("Init"))));
  }

  Forget();
  Recorded().language = nullptr;
  EXPECT_THROW(Stat_LangEvent(), std::logic_error);
  EXPECT_THAT(Recorded().calls, Not(Contains("CloseConfigNoSave opened")));
}

TEST_F(PlatformTest, KeyMappingAsksForEachSetAndForSetZero) {
  EXPECT_EQ(Stat_KeymappingEvent(), 0);
  EXPECT_THAT(Recorded().calls,
              ElementsAre("RefreshConfig global", "GetKeyMappingEx 0 32", "GetKeyMappingEx 0 32",
                          "QueryDeviceButtons", "GetKeyMappingEx 1 32", "GetKeyMappingEx 0 32",
                          "QueryDeviceButtons", "GetKeyMappingEx 2 32", "GetKeyMappingEx 0 32",
                          "QueryDeviceButtons", "MessageClient", "Init " + kEndpoint + " 102400",
                          "SendMessage", "~MessageClient"));
}

// ---- Applications. The first look-up of a process decides on the store, so each scenario runs in
// a process of its own. ----

class ApplicationIdTest : public PlatformTest {
 protected:
  ApplicationIdTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }  // a new process
};

[[noreturn]] void ExitWith(bool passed) { _exit(passed ? 0 : 1); }

[[noreturn]] void LookUpStores(const char* partner, int id) {
  Recorded().partner_name = partner;
  bool passed = true;
  for (const char* store : {"BookStore.app", "bookstore.app", "zundelstore.app"}) {
    passed = passed && Stat_GetApplicationId(store) == id;
    Recorded().partner_name = "dollin";  // too late
  }
  ExitWith(passed && Stat_GetApplicationId("/BookStore.app") == -1);
}

TEST_F(ApplicationIdTest, StoresDependOnThePartner) {
  for (const auto& [partner, id] : std::vector<std::pair<const char*, int>>{{"norvik", 32},
                                                                            {"tellhaus", 33},
                                                                            {"varsk", 34},
                                                                            {"falkner", 35},
                                                                            {"dollin", 38},
                                                                            {"quellmedia", 39},
                                                                            {"", 4},
                                                                            {"Norvik", 4}}) {
    EXPECT_EXIT(LookUpStores(partner, id), ExitedWithCode(0), "") << partner;
  }
}

[[noreturn]] void LookUpWithoutPartner() {
  int thrown = 0;
  for (const char* path : {static_cast<const char*>(nullptr), "explorer.app"}) {
    Recorded().partner_name = nullptr;
    try {
      Stat_GetApplicationId(path);
    } catch (const std::logic_error&) {
      ++thrown;
    }
  }
  Recorded().partner_name = "varsk";
  ExitWith(thrown == 2 && Stat_GetApplicationId("bookstore.app") == 34);
}

TEST_F(ApplicationIdTest, NullPartnerNameLeavesTheNextCallToTryAgain) {
  EXPECT_EXIT(LookUpWithoutPartner(), ExitedWithCode(0), "");
}

[[noreturn]] void LookUpFromManyThreads() {
  Recorded().partner_name = "tellhaus";
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&right] {
      right += Stat_GetApplicationId("bookstore.app") == 33;
      right += Stat_GetApplicationId("ocr.app") == 28;
    });
  }
  for (std::thread& thread : threads) thread.join();
  ExitWith(right == 16);
}

TEST_F(ApplicationIdTest, ManyThreadsMayLookUpFirst) {
  for (int i = 0; i < 20; ++i) EXPECT_EXIT(LookUpFromManyThreads(), ExitedWithCode(0), "");
}

TEST_F(ApplicationIdTest, NamesAreExactAndPathsAreUnknown) {
  const std::map<std::string, int> ids = {{"explorer.app", 1},
                                          {"acontent.app", 5},
                                          {"audio_player.app", 6},
                                          {"Dictionary.app", 7},
                                          {"settings.app", 9},
                                          {"browser.app", 10},
                                          {"browser_social.app", 10},
                                          {"calc.app", 11},
                                          {"calendar.app", 12},
                                          {"chess.app", 13},
                                          {"kosynka.app", 14},
                                          {"UniversalSync.app", 15},
                                          {"velmnews.app", 16},
                                          {"scribble.app", 17},
                                          {"painter.app", 18},
                                          {"sudoku.app", 19},
                                          {"snake.app", 20},
                                          {"dropboxctl.app", 21},
                                          {"SendToVelmora.app", 22},
                                          {"taskmgr.app", 25},
                                          {"photo_scanner.app", 28},
                                          {"PhotoScanner.app", 28},
                                          {"barcode.app", 28},
                                          {"camera.app", 28},
                                          {"ocr.app", 28},
                                          {"notes.app", 5},
                                          {"bookshelf.app", 37},
                                          {"music_player.app", 40},
                                          {"audio_books.app", 41},
                                          {"Explorer.app", -1},
                                          {"explorer", -1},
                                          {"explorer.appx", -1},
                                          {"", -1},
                                          {"/explorer.app", -1},
                                          {"x/notes.app", -1},
                                          {"explorer.app/", -1}};
  for (const auto& [name, id] : ids) EXPECT_EQ(Stat_GetApplicationId(name.c_str()), id) << name;
  EXPECT_EQ(Stat_GetApplicationId(nullptr), -1);
}

TEST_F(ApplicationIdTest, LaunchByPathLogsADiagnosticLine) {
  LaunchByPath(7, "/a/fbreader.app", {});
  EXPECT_THAT(
      Recorded().log,
      ElementsAre(LogLine{
          3, "src/usage_stat_client",
          "int Stat_StartApplicationByPathEvent(int, const char *, int, const char **)",
          "[pid:%d]pid = [%d], path = [%s]", "[pid:4711]pid = [7], path = [/a/fbreader.app]"}));
}

// ---- New books ----

class NewBooksTest : public PlatformTest {};

constexpr BookInfo kBookA = {
    1, "/card/A.epub", "en_US", "Ann", {"n0", nullptr, "n2"}, 7, -7, "1", "2", "3", "isbn a"};
constexpr BookInfo kBookB = {1, "/card/B", nullptr, nullptr, {nullptr, "m1"}, -8,
                             8, nullptr,   nullptr, nullptr, nullptr};
constexpr BookInfo OfType(int file_type) {
  BookInfo info{};
  info.file_type = file_type;
  return info;
}
constexpr BookInfo kPicture = OfType(2);
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
    Forget();
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
  Recorded().books = {{"/x/a.epub", kBookA}, {"/x/b", kBookB}, {"/x/pic.png", kPicture}};
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
  for (const char* path : {"/x/unknown", "/x/pic.png", "/x/b"})
    StatUtils_AddNewBookToStatList(path);
  EXPECT_EQ(Recorded().log.size(), 6U);  // no second line for what is no book
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
