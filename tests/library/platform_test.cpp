// libusage_stat.so on another pair of platform libraries: what it asks of them, in which order, and
// what it logs when they fail.

#define STAT_ALLOW_NULL  // on purpose

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/library/golden_records.h"
#include "tests/support/painted_stack.h"
#include "tests/support/recording/recorder.h"

namespace {
int g_clock_reads = 0;
}  // namespace

// Stands before the C library's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* now) noexcept {
  ++g_clock_reads;
#ifdef SYS_clock_gettime64  // on machines of 32 bits, where the time has 64 all the same
  return static_cast<int>(syscall(SYS_clock_gettime64, clock, now));
#else
  return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
#endif
}

namespace usage_stat_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
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
    EXPECT_THAT(library.dli_fname, HasSubstr("/recording_"));
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
    ASSERT_GE(steps, 2);  // the envelope
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

TEST_F(PlatformTest, PrimitivesMayGoBackInTheStreamAndReadIt) {
  std::vector<GoldenRecord> records = GoldenRecords();
  static const std::string long_text(5000, 't');
  records.push_back({2035, "", "", "", [] { return Stat_GoToURLEvent(1, long_text.c_str()); }});
  for (const GoldenRecord& record : records) {
    if (!record.send) continue;
    SCOPED_TRACE(record.code);
    Forget();
    record.send();
    const std::string message = Recorded().message;
    Recorded().patches_texts = true;
    EXPECT_EQ(record.send(), 0);
    EXPECT_EQ(Recorded().message, message);
  }
}

#ifdef USAGE_STAT_OPTIMISED
TEST_F(PlatformTest, TheLibraryItselfTakesAtMost4KiBOfStack) {
  Stat_GetBookId("");  // libcrypto gets ready on its own account
  std::vector<GoldenRecord> records = GoldenRecords();
  static const std::string long_text(5000, 't');
  records.push_back({2035, "", "", "Stat_GoToURLEvent with a long text",
                     [] { return Stat_GoToURLEvent(1, long_text.c_str()); }});
  records.push_back({2028, "", "", "a described book by path, and one in the list", [] {
                       const char* const path = "/x/a.fb2.zip";
                       StatUtils_AddNewBookToStatList(path);
                       EXPECT_EQ(StatUtils_StatListSize(), 1);
                       StatUtils_FreeStatList();
                       return Stat_NewBooksEventSimple(1, &path, 1);
                     }});
  constexpr BookInfo book = {1, "/x/a.fb2.zip", "en", "Ann", {"n"}, 1, 2, "1", "2", "3", "isbn"};
  std::size_t most = 0;
  for (const GoldenRecord& record : records) {
    if (!record.send) continue;
    for (const int failing_step : {0, 4}) {
      Forget();
      Recorded().is_silent = true;
      Recorded().books = {{book.path, book}};
      Recorded().failing_step = failing_step;
      const std::size_t used = StackUsedBy(record.send);
      EXPECT_LE(used, 4096) << record.signature;
      most = std::max(most, used);
    }
  }
  printf("most bytes: %zu\n", most);
}
#endif

TEST_F(PlatformTest, RejectedArgumentsAreLogged) {
  EXPECT_EQ(Stat_NewBooksEventSimple(0, kUnknownBooks, 1), -2);
  EXPECT_EQ(Stat_NewBooksEventSimple(2, nullptr, 1), -2);
  const LogLine line =
      Line("src/usage_stat_client",
           "int Stat_NewBooksEventSimple(int, const char *const *, Stat_ApplicationId)",
           "[pid:%d]Condition: \"books_quantity <= 0 || !bookPaths\", return(\"VM_INVAL\")]");
  EXPECT_THAT(Recorded().log, ElementsAre(line, line));
  EXPECT_THAT(Recorded().calls, IsEmpty());

  g_process_pid = 4712;  // as after a fork
  EXPECT_EQ(Stat_NewBooksEventSimple(0, kUnknownBooks, 1), -2);
  EXPECT_THAT(Recorded().log.back().message, HasSubstr("[pid:4712]"));
  g_process_pid = kRecordedPid;
}

TEST_F(PlatformTest, NullTextsLeaveAsExceptionsAndSendNothing) {
  const Margins margins{};
  const MarginsEx texts{};
  EXPECT_THROW(Stat_GoToURLEvent(1, nullptr), std::logic_error);
  // These copy their texts before there is an event.
  g_clock_reads = 0;
  EXPECT_THROW(Stat_StartTtsEvent(1, 2, nullptr, "", 3, 4), std::logic_error);
  EXPECT_THROW(Stat_StartTtsEvent(1, 2, "", nullptr, 3, 4), std::logic_error);
  EXPECT_THROW(Stat_UseDictionaryEvent(1, nullptr), std::logic_error);
  EXPECT_THROW(Stat_StartApplicationEvent(1, 1, 1, nullptr), std::logic_error);
  EXPECT_THROW(Stat_GetBookId(nullptr), std::logic_error);
  EXPECT_THROW(Stat_SendStartOpenBookEvent(nullptr, 1, 2, ""), std::logic_error);
  EXPECT_THROW(Stat_SetFontParamsEvent(1, 2, nullptr, 'd', 'e', 3, margins, 'g',
                                       STAT_LINE_BREAK_NONE, STAT_UPDATE_MODE_FULL),
               std::logic_error);
  EXPECT_THROW(Stat_SetFontParamsEventEx(1, 2, "", 'd', 'e', 'f', 3, nullptr, 'i', texts, 'j', 'k',
                                         'l', 'm'),
               std::logic_error);
  EXPECT_EQ(g_clock_reads, 0);
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

TEST_F(PlatformTest, LaunchByPathLogsADiagnosticLine) {
  LaunchByPath(7, "/a/fbreader.app", {});
  EXPECT_THAT(
      Recorded().log,
      ElementsAre(LogLine{
          3, "src/usage_stat_client",
          "int Stat_StartApplicationByPathEvent(int, const char *, int, const char **)",
          "[pid:%d]pid = [%d], path = [%s]", "[pid:4711]pid = [7], path = [/a/fbreader.app]"}));
}

}  // namespace
}  // namespace usage_stat_test
