#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>

#include "corvane/corvane.h"
#include "corvane/log.h"

namespace {

// A write of at most PIPE_BUF bytes reaches a pipe in one piece, so lines of several processes that
// share one log never mix.
constexpr std::size_t kMaxLine = 4096;

// Read on every call, so that a debugger or a test can change it in a running process.
int Threshold() {
  const char* text = getenv("CORVANE_LOG_LEVEL");
  int level = kLogError;
  if (text) std::from_chars(text, text + strlen(text), level);
  return level;
}

const char* OrEmpty(const char* text) { return text ? text : ""; }

// The number of bytes that a printf-like call stored in a buffer of `capacity` bytes.
std::size_t Stored(int result, std::size_t capacity) {
  return result < 0 ? 0 : std::min(static_cast<std::size_t>(result), capacity - 1);
}

// UTC by plain arithmetic: gmtime_r and localtime_r take a lock, on which a child forked from a
// threaded process may wait for ever.
std::size_t PrintTime(char* out, std::size_t capacity) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::chrono::sys_seconds seconds{std::chrono::seconds(now.tv_sec)};
  const auto day = std::chrono::floor<std::chrono::days>(seconds);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(seconds - day);
  return Stored(
      snprintf(out, capacity, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
               static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
               static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
               static_cast<int>(time.seconds().count()), static_cast<int>(now.tv_nsec / 1000000)),
      capacity);
}

// Prints the message; a format that printf refuses is shown as it is.
std::size_t PrintMessage(char* out, std::size_t capacity, const char* format, va_list arguments)
    CORVANE_PRINTF(3, 0);
std::size_t PrintMessage(char* out, std::size_t capacity, const char* format, va_list arguments) {
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller started it
  int result = vsnprintf(out, capacity, format, arguments);
  if (result < 0) result = snprintf(out, capacity, "%s", format);
  if (result >= 0 && static_cast<std::size_t>(result) >= capacity) {
    memcpy(out + capacity - sizeof("..."), "...", sizeof("..."));
  }
  return Stored(result, capacity);
}

// Hands over the line with one write. A log that nobody reads any more must not end the
// application, so the signal of a closed pipe is held back and taken off again.
void WriteLine(const char* line, std::size_t size) {
  sigset_t pipe_signal;
  sigset_t mask_before;
  sigset_t pending_before;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigpending(&pending_before);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &mask_before);
  const ssize_t written = write(STDERR_FILENO, line, size);
  if (written == -1 && errno == EPIPE && sigismember(&pending_before, SIGPIPE) == 0) {
    constexpr timespec kNoWait = {};
    sigtimedwait(&pipe_signal, nullptr, &kNoWait);
  }
  pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
}

}  // namespace

void vm_print_log2(int level, const char* file, int line, const char* function, const char* format,
                   ...) {
  const int saved_errno = errno;
  if (level > Threshold()) return;
  char text[kMaxLine];
  std::size_t size = PrintTime(text, sizeof(text));
  size += Stored(snprintf(text + size, sizeof(text) - size, " %d [%d] %.256s:%d %.1024s: ", level,
                          g_process_pid, OrEmpty(file), line, OrEmpty(function)),
                 sizeof(text) - size);
  va_list arguments;
  va_start(arguments, format);
  size += PrintMessage(text + size, sizeof(text) - size, OrEmpty(format), arguments);
  va_end(arguments);

  while (text[size - 1] == '\n') {
    --size;  // the line gets one of its own
  }
  // Texts of strangers (a book's path) can neither start a line nor steer a terminal.
  std::replace_if(
      text, text + size, [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
  text[size++] = '\n';  // takes the place of the terminating zero, which is always there
  WriteLine(text, size);
  errno = saved_errno;
}
