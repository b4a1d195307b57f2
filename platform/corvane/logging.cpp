#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <string_view>

#include "corvane/corvane.h"
#include "corvane/log.h"

namespace {

// A write of at most PIPE_BUF bytes reaches a pipe in one piece, so lines of several processes that
// share one log never mix.
constexpr std::size_t kMaxLine = 4096;

// Read on every call, so that a debugger or a test can change it in a running process.
int Threshold() {
  const char* text = secure_getenv("CORVANE_LOG_LEVEL");
  int level = kLogError;
  if (text) std::from_chars(text, text + strlen(text), level);
  return level;
}

const char* OrEmpty(const char* text) { return text ? text : ""; }

// The number of bytes that a printf-like call stored in a buffer of `capacity` bytes.
std::size_t Stored(int result, std::size_t capacity) {
  return result < 0 ? 0 : std::min(static_cast<std::size_t>(result), capacity - 1);
}

// The size of the time at the front of a line.
constexpr std::size_t kTimeSize = sizeof("2031-05-04T07:08:09.123Z") - 1;

// UTC by plain arithmetic: gmtime_r and localtime_r take a lock, on which a child forked from a
// threaded process may wait for ever.
std::size_t PrintTime(const timespec& now, char* out, std::size_t capacity) {
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

// ---- Writing without ever waiting ----

// For what takes no request to do without waiting, such as a terminal, which may be stopped, or
// full in the middle of a line. The application's own descriptor must keep its mode, which it
// shares with other processes, so the same file is opened once more.
ssize_t WriteWithoutWaitingByReopening(const char* line, std::size_t size) {
  // A pipe that keeps writes apart would not do so for another opening of it.
  const bool keeps_apart = (fcntl(STDERR_FILENO, F_GETFL) & O_DIRECT) != 0;
  const int descriptor =
      keeps_apart ? -1 : open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (descriptor >= 0) {
    const ssize_t written = write(descriptor, line, size);
    const int error = errno;
    close(descriptor);
    errno = error;
    return written;
  }
  pollfd room = {STDERR_FILENO, POLLOUT, 0};
  if (poll(&room, 1, 0) == 1) return write(STDERR_FILENO, line, size);
  errno = EAGAIN;
  return -1;
}

ssize_t WriteWithoutWaiting(const char* line, std::size_t size) {
  const iovec part = {const_cast<char*>(line), size};
  const ssize_t written = pwritev2(STDERR_FILENO, &part, 1, -1, RWF_NOWAIT);
  if (written >= 0 || errno == EPIPE) return written;
  // All but a log that is full may have refused the request alone, and under many names: what takes
  // none such, a kernel that does not know it yet (ENOSYS, EINVAL), a sandbox that does not
  // (EPERM). A fault of the log itself shows again.
  const bool is_full = errno == EAGAIN;
  struct stat status;
  if (fstat(STDERR_FILENO, &status) != 0) return -1;
  // Nobody has to read a file for it to take a line, whatever it has to do for that.
  if (S_ISREG(status.st_mode)) return write(STDERR_FILENO, line, size);
  if (is_full) {
    errno = EAGAIN;
    return -1;
  }
  if (S_ISSOCK(status.st_mode)) return send(STDERR_FILENO, line, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  return WriteWithoutWaitingByReopening(line, size);
}

// Hands over the line with one write; false when it could not be taken at once. A log that nobody
// reads any more must not end the application, so the signal of a closed pipe is held back and
// taken off again.
bool WriteLine(const char* line, std::size_t size) {
  sigset_t pipe_signal;
  sigset_t mask_before;
  sigset_t pending_before;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigpending(&pending_before);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &mask_before);
  const ssize_t written = WriteWithoutWaiting(line, size);
  if (written == -1 && errno == EPIPE && sigismember(&pending_before, SIGPIPE) == 0) {
    constexpr timespec kNoWait = {};
    sigtimedwait(&pipe_signal, nullptr, &kNoWait);
  }
  pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
  return written == static_cast<ssize_t>(size);
}

// ---- What is left out ----
//
// Without a lock, on which a child forked from a threaded process might wait for ever.

// Lines that the log did not take, and repetitions of lines, since this was last told.
constinit std::atomic<unsigned> g_lost = 0;
constinit std::atomic<unsigned> g_repeated = 0;
constinit std::atomic<std::uint32_t> g_last_repetition = 0;  // the second

// How often a line may be written within one second. Far more than come from failures that follow
// one another: a loop writes them, and who reads the log wants the other lines.
constexpr unsigned kMostEqualLines = 100;

// The lines of this second, each in the row that its hash says: 25 bits of the hash, 7 of how often
// the line came. Where a row has no place for another line, one is put out, to begin anew if it
// comes again: rather too many lines than one too few.
constinit std::atomic<std::uint32_t> g_second = 0;
constinit std::atomic<std::uint32_t> g_lines[32][8];
constexpr int kCountBits = 7;
constexpr std::uint32_t kCount = (1U << kCountBits) - 1;
static_assert(kMostEqualLines <= kCount);

// Counts the line `text`, written in `second`; false when that is one too many.
bool MayRepeat(std::string_view text, std::uint32_t second) {
  if (g_second.exchange(second, std::memory_order_relaxed) != second) {
    for (auto& row : g_lines) {
      for (auto& place : row) place.store(0, std::memory_order_relaxed);
    }
  }
  std::uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  const auto line = static_cast<std::uint32_t>(hash >> 32) & ~kCount;
  auto& row = g_lines[hash % std::size(g_lines)];
  // Its own place, or else that of the line that came least often, if any did.
  std::atomic<std::uint32_t>& place =
      *std::min_element(std::begin(row), std::end(row), [line](const auto& a, const auto& b) {
        const auto rank = [line](std::uint32_t held) {
          return (held & ~kCount) == line ? 0 : 1 + (held & kCount);
        };
        return rank(a.load(std::memory_order_relaxed)) < rank(b.load(std::memory_order_relaxed));
      });
  std::uint32_t held = place.load(std::memory_order_relaxed);
  std::uint32_t counted = 0;
  do {
    const bool is_equal = (held & ~kCount) == line;
    if (is_equal && (held & kCount) == kMostEqualLines) return false;
    counted = is_equal ? held + 1 : line + 1;
  } while (!place.compare_exchange_weak(held, counted, std::memory_order_relaxed));
  return true;
}

// ---- Lines ----

// Prints the front of a line, up to its message.
std::size_t PrintFront(const timespec& now, int level, const char* file, int line,
                       const char* function, char* out, std::size_t capacity) {
  const std::size_t size = PrintTime(now, out, capacity);
  return size + Stored(snprintf(out + size, capacity - size, " %d [%d] %.256s:%d %.1024s: ", level,
                                g_process_pid, OrEmpty(file), line, OrEmpty(function)),
                       capacity - size);
}

// Tells how many lines are missing, and in `what` way, and forgets it once the log has taken that.
void TellMissing(const timespec& now, const char* what, std::atomic<unsigned>* missing) {
  const unsigned count = missing->exchange(0, std::memory_order_relaxed);
  if (count == 0) return;
  char text[256];
  std::size_t size =
      PrintFront(now, kLogError, "platform/corvane", __LINE__, "vm_print_log2", text, sizeof(text));
  size += Stored(snprintf(text + size, sizeof(text) - size, "%s: %u\n", what, count),
                 sizeof(text) - size);
  if (!WriteLine(text, size)) missing->fetch_add(count, std::memory_order_relaxed);
}

void TellLost(const timespec& now) {
  TellMissing(now, "lines lost before this one, which the log did not take", &g_lost);
}

void TellRepeated(const timespec& now) {
  TellMissing(now, "repetitions of lines before this one, left out", &g_repeated);
}

__attribute__((destructor)) void TellAtTheEnd() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  TellLost(now);
  TellRepeated(now);
}

}  // namespace

void vm_print_log2(int level, const char* file, int line, const char* function, const char* format,
                   ...) {
  const int saved_errno = errno;
  if (level > Threshold()) return;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  char text[kMaxLine];
  std::size_t size = PrintFront(now, level, file, line, function, text, sizeof(text));
  va_list arguments;
  va_start(arguments, format);
  size += PrintMessage(text + size, sizeof(text) - size, OrEmpty(format), arguments);
  va_end(arguments);

  while (text[size - 1] == '\n') --size;  // the line gets one of its own
  // Texts of strangers (a book's path) can neither start a line nor steer a terminal.
  std::replace_if(
      text, text + size, [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');

  const auto second = static_cast<std::uint32_t>(now.tv_sec);
  const std::string_view timeless = std::string_view(text, size).substr(kTimeSize);
  const bool is_repeated = !MayRepeat(timeless, second);
  if (g_last_repetition.load(std::memory_order_relaxed) != second) TellRepeated(now);
  if (is_repeated) {
    g_repeated.fetch_add(1, std::memory_order_relaxed);
    g_last_repetition.store(second, std::memory_order_relaxed);
  } else {
    TellLost(now);
    text[size++] = '\n';  // takes the place of the terminating zero, which is always there
    if (!WriteLine(text, size)) g_lost.fetch_add(1, std::memory_order_relaxed);
  }
  errno = saved_errno;
}
