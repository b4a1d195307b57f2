#include <fcntl.h>
#include <gmock/gmock.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "corvane/corvane.h"
#include "tests/support/child.h"
#include "tests/support/device_root.h"
#include "tests/support/secure_mode.h"

namespace {
int g_refusal = 0;  // what requests to write without waiting get; 0: what the kernel says
}  // namespace

// Stands before the C library's.
extern "C" __attribute__((visibility("default"))) ssize_t pwritev2(int descriptor,
                                                                   const iovec* parts, int count,
                                                                   off_t, int flags) {
  if (g_refusal == 0) return syscall(SYS_pwritev2, descriptor, parts, count, -1L, -1L, flags);
  errno = g_refusal;
  return -1;
}

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
    SCOPED_TRACE(threshold ? threshold : "unset");
    threshold ? setenv("CORVANE_LOG_LEVEL", threshold, 1) : unsetenv("CORVANE_LOG_LEVEL");
    StderrCapture capture;
    vm_print_log2(highest + 1, "f", 1, "g", "too much");
    EXPECT_THAT(capture.Writes(), IsEmpty());
    vm_print_log2(highest, "f", 1, "g", "wanted");
    EXPECT_EQ(capture.Writes().size(), 1U);
  }
  setenv("CORVANE_LOG_LEVEL", "4", 1);
  usage_stat_test::g_has_more_rights = true;
  StderrCapture capture;
  vm_print_log2(2, "f", 1, "g", "not for everybody");
  usage_stat_test::g_has_more_rights = false;
  EXPECT_THAT(capture.Writes(), IsEmpty());
  unsetenv("CORVANE_LOG_LEVEL");
}

TEST(Logging, ACallIsOneWriteOfOneLine) {
  StderrCapture capture;
  std::vector<std::string> writes;
  for (const int refusal : {ENOSYS, 0}) {
    g_refusal = refusal;
    errno = EILSEQ;
    vm_print_log2(1, "src/events", 42, "int F()", "[pid:%d] err:[%d] %s", 7, -1, "caf\xC3\xA9");
    vm_print_log2(1, nullptr, -1, nullptr, nullptr);
    vm_print_log2(1, "f", 1, "g", "a\nb\x1B[31m\x7F\r\n\n");
    vm_print_log2(1, "f", 1, "g", "%lc", wint_t{0x110000});  // no character
    EXPECT_EQ(errno, EILSEQ);
    writes = capture.Writes();
    std::transform(writes.begin(), writes.end(), writes.begin(), AfterTime);
    EXPECT_THAT(writes,
                ElementsAre(Prefix(1) + "src/events:42 int F(): [pid:7] err:[-1] caf\xC3\xA9\n",
                            Prefix(1) + ":-1 : \n", Prefix(1) + "f:1 g: a?b?[31m??\n",
                            Prefix(1) + "f:1 g: %lc\n"));
  }

  const std::string long_text(100'000, 'x');
  timespec before{};
  timespec after{};
  clock_gettime(CLOCK_REALTIME, &before);
  vm_print_log2(1, long_text.c_str(), 1, long_text.c_str(), "%s", long_text.c_str());
  clock_gettime(CLOCK_REALTIME, &after);
  writes = capture.Writes();
  ASSERT_EQ(writes.size(), 1U);
  tm utc{};
  strptime(writes[0].c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
  EXPECT_LE(before.tv_sec, timegm(&utc));
  EXPECT_LE(timegm(&utc), after.tv_sec);
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
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> writes = capture.Writes();
  std::transform(writes.begin(), writes.end(), writes.begin(), AfterTime);
  EXPECT_EQ(writes, std::vector<std::string>(16, Prefix(1) + "f:1 g: text\n"));
}

TEST(Logging, ALogThatNobodyReadsEndsNoProcess) {
  StderrCapture capture;
  capture.CloseReadEnd();
  vm_print_log2(1, "f", 1, "g", "into the void");
  sigset_t pipe_signal;
  sigset_t held_back;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &held_back);
  EXPECT_EQ(sigismember(&held_back, SIGPIPE), 0);
  // One that the application itself waits for is left to it.
  raise(SIGPIPE);
  vm_print_log2(1, "f", 1, "g", "into the void again");
  const timespec no_wait{};
  EXPECT_EQ(sigtimedwait(&pipe_signal, nullptr, &no_wait), SIGPIPE);
  pthread_sigmask(SIG_SETMASK, &held_back, nullptr);
  StderrCapture of_a_new_reader;
  vm_print_log2(1, "f", 1, "g", "read again");
  EXPECT_EQ(of_a_new_reader.Writes().size(), 2U);  // this line, and how many are lost
}

// Two ends of something: what is written to `log` is read from `reader`.
struct Channel {
  int log = -1;
  int reader = -1;
};

Channel Pipe() {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  return {ends[1], ends[0]};
}

Channel SocketPair() {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  return {ends[1], ends[0]};
}

Channel Terminal() {
  Channel terminal;
  termios raw{};
  cfmakeraw(&raw);
  EXPECT_EQ(openpty(&terminal.reader, &terminal.log, nullptr, &raw, nullptr), 0);
  return terminal;
}

Channel StoppedTerminal() {
  const Channel terminal = Terminal();
  EXPECT_EQ(tcflow(terminal.log, TCOOFF), 0);
  return terminal;
}

constexpr char kLost[] = "lines lost before this one, which the log did not take";
constexpr char kRepeated[] = "repetitions of lines before this one, left out";

// The number that lines tell after `what`, the sum where there are several.
int NumberOf(const char* what, const std::string& text) {
  const std::regex number(what + std::string(": (\\d+)\n"));
  int sum = 0;
  for (std::sregex_iterator match(text.begin(), text.end(), number), end; match != end; ++match) {
    sum += std::stoi((*match)[1]);
  }
  return sum;
}

TEST(Logging, ALogThatTakesNoMoreLosesCountedLinesAndHoldsNobodyUp) {
  for (const int refusal : {0, ENOSYS, EINVAL, EPERM}) {
    for (const auto make_channel : {Pipe, SocketPair, Terminal, StoppedTerminal}) {
      g_refusal = refusal;
      const Channel channel = make_channel();
      fcntl(channel.reader, F_SETFL, O_NONBLOCK);
      const int saved = dup(STDERR_FILENO);
      dup2(channel.log, STDERR_FILENO);
      const int unused = dup(STDERR_FILENO);
      close(unused);
      constexpr int kLines = 2000;
      for (int i = 0; i < kLines; ++i) vm_print_log2(1, "f", 1, "g", "number %d.", i);
      std::string text;
      const auto drain = [&] {
        char bytes[4096];
        tcflow(channel.log, TCOON);
        for (ssize_t size = 0; (size = read(channel.reader, bytes, sizeof(bytes))) > 0;) {
          text.append(bytes, static_cast<std::size_t>(size));
        }
      };
      drain();
      vm_print_log2(1, "f", 1, "g", "afterwards");
      drain();
      EXPECT_EQ(dup2(saved, STDERR_FILENO), STDERR_FILENO);
      EXPECT_EQ(dup(STDERR_FILENO), unused);  // none stayed open
      for (const int each : {saved, channel.log, channel.reader, unused}) close(each);
      g_refusal = 0;

      EXPECT_NE(text.find("afterwards\n"), std::string::npos) << strerror(refusal);
      const int lost = NumberOf(kLost, text);
      // A terminal may take a part of a line, which counts as lost.
      const std::regex whole_line("g: number \\d+[.]\n");
      const auto written = std::distance(std::sregex_iterator(text.begin(), text.end(), whole_line),
                                         std::sregex_iterator());
      EXPECT_GT(lost, 0);
      EXPECT_EQ(written + lost, kLines);
    }
  }
}

void AwaitANewSecond() {
  for (const time_t begun = time(nullptr); time(nullptr) == begun;) usleep(10'000);
}

TEST(Logging, EqualLinesBeyondAHundredASecondAreCounted) {
  AwaitANewSecond();  // one that the flood above has not filled
  testing::internal::CaptureStderr();
  constexpr int kLines = 5000;
  for (int i = 0; i < kLines; ++i) {
    vm_print_log2(1, "f", 1, "g", "equal");
    if (i % 50 == 0) vm_print_log2(1, "f", 1, "g", "rare");
  }
  // What was left out is told with a line of a later second.
  AwaitANewSecond();
  vm_print_log2(1, "f", 1, "g", "later");
  const std::string text = testing::internal::GetCapturedStderr();

  std::map<std::string, int> equal_in_second;
  std::map<std::string, int> told_in_second;
  std::map<std::string, int> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    const std::string message = line.substr(line.rfind(' ') + 1);
    ++lines[message];
    if (message == "equal") ++equal_in_second[line.substr(0, 19)];
    if (line.find(kRepeated) != line.npos) ++told_in_second[line.substr(0, 19)];
  }
  int fullest = 0;
  for (const auto& [second, count] : equal_in_second) fullest = std::max(fullest, count);
  EXPECT_EQ(fullest, 100);
  EXPECT_EQ(lines["equal"] + NumberOf(kRepeated, text), kLines);
  for (const auto& [second, count] : told_in_second) EXPECT_EQ(count, 1);
  EXPECT_EQ(lines["rare"], kLines / 50);
  EXPECT_EQ(lines["later"], 1);
}

TEST(Logging, WhatIsMissingIsToldAtTheEnd) {
  const Channel channel = Pipe();
  fcntl(channel.reader, F_SETFL, O_NONBLOCK);
  fflush(nullptr);
  usage_stat_test::Child child([&]() -> int {
    dup2(channel.log, STDERR_FILENO);
    for (int i = 0; i < 5000; ++i) vm_print_log2(1, "f", 1, "g", "number %d.", i);
    for (int i = 0; i < 5000; ++i) vm_print_log2(1, "f", 1, "g", "equal");
    for (char bytes[4096]; read(channel.reader, bytes, sizeof(bytes)) > 0;) continue;
    exit(0);
  });
  EXPECT_EQ(child.Wait(), 0);
  std::string text(4096, '\0');
  text.resize(static_cast<std::size_t>(read(channel.reader, text.data(), text.size())));
  EXPECT_GT(NumberOf(kLost, text), 0);
  EXPECT_GT(NumberOf(kRepeated, text), 0);
  for (const int descriptor : {channel.log, channel.reader}) close(descriptor);
}

TEST(ProcessId, FollowsForks) {
  EXPECT_EQ(g_process_pid, getpid());
  usage_stat_test::Child child([] {
    // Its lines bear its own number.
    const std::string pid = "[" + std::to_string(getpid()) + "]";
    testing::internal::CaptureStderr();
    vm_print_log2(1, "f", 1, "g", "from the child");
    const bool is_its_own = testing::internal::GetCapturedStderr().find(pid) != std::string::npos;
    return g_process_pid == getpid() && is_its_own ? 0 : 1;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(g_process_pid, getpid());
}

}  // namespace
