#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <thread>

#include "corvane/corvane.h"
#include "tests/support/device_root.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using usage_stat_test::StderrCapture;

// What follows the time and the level's number in a line of this process.
std::string AfterTime(const std::string& line) {
  static const std::regex kLine(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (-?\d+ \[\d+\] [^]*\n))");
  std::smatch match;
  return std::regex_match(line, match, kLine) ? match[1].str() : "not a log line: " + line;
}

std::string Prefix(int level) {
  return std::to_string(level) + " [" + std::to_string(getpid()) + "] ";
}

TEST(Logging, LevelsAboveTheThresholdAreLeftOut) {
  struct Case {
    const char* threshold;
    int highest;
  };
  for (const auto& [threshold, highest] :
       {Case{nullptr, 1}, Case{"", 1}, Case{"loud", 1}, Case{"0", 0}, Case{"1", 1}, Case{"4", 4},
        Case{"-1", -1}, Case{"99999999999", 1}}) {
    SCOPED_TRACE(threshold == nullptr ? "unset" : threshold);
    threshold == nullptr ? unsetenv("CORVANE_LOG_LEVEL")
                         : setenv("CORVANE_LOG_LEVEL", threshold, 1);
    StderrCapture capture;
    vm_print_log2(highest + 1, "f", 1, "g", "too much");
    EXPECT_THAT(capture.Writes(), IsEmpty());
    vm_print_log2(highest, "f", 1, "g", "wanted");
    EXPECT_EQ(capture.Writes().size(), 1U);
  }
  unsetenv("CORVANE_LOG_LEVEL");
}

TEST(Logging, ACallIsOneWriteOfOneLine) {
  StderrCapture capture;
  errno = EILSEQ;
  vm_print_log2(1, "src/events", 42, "int F()", "[pid:%d] err:[%d] %s", 7, -1, "caf\xC3\xA9");
  vm_print_log2(1, nullptr, -1, nullptr, nullptr);
  vm_print_log2(1, "f", 1, "g", "a\nb\x1B[31m\x7F\r\n\n");
  vm_print_log2(1, "f", 1, "g", "%lc", wint_t{0x110000});  // no character
  EXPECT_EQ(errno, EILSEQ);
  std::vector<std::string> writes = capture.Writes();
  std::transform(writes.begin(), writes.end(), writes.begin(), AfterTime);
  EXPECT_THAT(writes,
              ElementsAre(Prefix(1) + "src/events:42 int F(): [pid:7] err:[-1] caf\xC3\xA9\n",
                          Prefix(1) + ":-1 : \n", Prefix(1) + "f:1 g: a?b?[31m??\n",
                          Prefix(1) + "f:1 g: %lc\n"));

  const std::string long_text(100'000, 'x');
  vm_print_log2(1, long_text.c_str(), 1, long_text.c_str(), "%s", long_text.c_str());
  writes = capture.Writes();
  ASSERT_EQ(writes.size(), 1U);
  EXPECT_EQ(writes[0].size(), 4096U);
  EXPECT_TRUE(writes[0].ends_with("xxx...\n"));
}

TEST(Logging, LinesOfSeveralThreadsStayWhole) {
  StderrCapture capture;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int line = 0; line < 4; ++line) {  // few enough for the pipe
        vm_print_log2(1, "f", 1, "g", "text");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<std::string> writes = capture.Writes();
  std::transform(writes.begin(), writes.end(), writes.begin(), AfterTime);
  EXPECT_EQ(writes, std::vector<std::string>(16, Prefix(1) + "f:1 g: text\n"));
}

TEST(Logging, ALogThatNobodyReadsEndsNoProcess) {
  StderrCapture capture;
  capture.CloseReadEnd();
  vm_print_log2(1, "f", 1, "g", "into the void");
  EXPECT_EQ(write(STDERR_FILENO, "", 0), 0);  // a signal left pending would have come by now
}

TEST(ProcessId, FollowsForks) {
  EXPECT_EQ(g_process_pid, getpid());
  const pid_t child = fork();
  if (child == 0) {
    _exit(g_process_pid == getpid() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(g_process_pid, getpid());
}

}  // namespace
