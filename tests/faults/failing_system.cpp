#include "tests/faults/failing_system.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

namespace usage_stat_test {
namespace {

struct Fault {
  int nth;
  bool once;
  int error;
  bool is_armed;
  int seen;
  int failed;
};

long g_longest_wait = 0;

Fault g_faults[static_cast<int>(SystemCall::kClose) + 1];

void NoteWait(long microseconds) { g_longest_wait = std::max(g_longest_wait, microseconds); }

Fault& FaultOf(SystemCall call) { return g_faults[static_cast<int>(call)]; }

bool Fails(SystemCall call) {
  Fault& fault = FaultOf(call);
  if (!fault.is_armed) return false;
  ++fault.seen;
  if (fault.once ? fault.seen != fault.nth : fault.seen < fault.nth) return false;
  ++fault.failed;
  errno = fault.error;
  return true;
}

}  // namespace

void FailSystemCall(SystemCall call, int nth, bool once, int error) {
  FaultOf(call) = {nth, once, error, true, 0, 0};
}

void StopFailing() {
  for (Fault& fault : g_faults) fault.is_armed = false;
}

long LongestWait() { return g_longest_wait; }

int Failures(SystemCall call) { return FaultOf(call).failed; }

}  // namespace usage_stat_test

using usage_stat_test::Fails;
using usage_stat_test::NoteWait;
using usage_stat_test::SystemCall;

#pragma GCC visibility push(default)
extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  if (Fails(SystemCall::kSocket)) return -1;
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

ssize_t sendto(int descriptor, const void* data, std::size_t size, int flags,
               const sockaddr* address, socklen_t length) {
  if (Fails(SystemCall::kSendto)) return -1;
  return syscall(SYS_sendto, descriptor, data, size, flags, address, length);
}

int fstat(int descriptor, struct stat* status) noexcept {
  if (Fails(SystemCall::kFstat)) return -1;
  return static_cast<int>(syscall(SYS_fstat, descriptor, status));
}

int fcntl(int descriptor, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  if (Fails(SystemCall::kFcntl)) return -1;
  return static_cast<int>(syscall(SYS_fcntl, descriptor, command, argument));
}

int getsockopt(int descriptor, int level, int name, void* value, socklen_t* length) noexcept {
  if (Fails(SystemCall::kGetsockopt)) return -1;
  return static_cast<int>(syscall(SYS_getsockopt, descriptor, level, name, value, length));
}

int setsockopt(int descriptor, int level, int name, const void* value, socklen_t length) noexcept {
  if (name == SO_SNDTIMEO && length == sizeof(timeval)) {
    const auto* wait = static_cast<const timeval*>(value);
    NoteWait(wait->tv_sec * 1'000'000L + wait->tv_usec);
  }
  if (Fails(SystemCall::kSetsockopt)) return -1;
  return static_cast<int>(syscall(SYS_setsockopt, descriptor, level, name, value, length));
}

int close(int descriptor) {
  const bool fails = Fails(SystemCall::kClose);
  const int error = errno;
  const int result = static_cast<int>(syscall(SYS_close, descriptor));
  if (fails) errno = error;
  return fails ? -1 : result;
}
}
#pragma GCC visibility pop
