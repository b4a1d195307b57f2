// Every system call by which a message is sent, failing in turn with every documented errno.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "include/usage_stat.h"
#include "tests/faults/failing_system.h"
#include "tests/support/child.h"
#include "tests/support/receiver.h"

namespace usage_stat_test {
namespace {

struct FailingCall {
  SystemCall call;
  const char* name;
  std::vector<int> errors;  // as the manual pages list them
};

const FailingCall kFailingCalls[] = {
    {SystemCall::kSocket,
     "socket",
     {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
    {SystemCall::kSendto, "sendto", {EACCES,     EAGAIN,       EALREADY,   EBADF,  ECONNREFUSED,
                                     ECONNRESET, EDESTADDRREQ, EFAULT,     EINTR,  EINVAL,
                                     EISCONN,    EMSGSIZE,     ENOBUFS,    ENOENT, ENOMEM,
                                     ENOTCONN,   ENOTSOCK,     EOPNOTSUPP, EPERM,  EPIPE}},
    {SystemCall::kFstat, "fstat", {EBADF, EFAULT, EIO, ENOMEM, EOVERFLOW}},
    {SystemCall::kFcntl, "fcntl", {EBADF, EINVAL, EMFILE, EPERM}},
    {SystemCall::kGetsockopt, "getsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
    {SystemCall::kSetsockopt, "setsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
    {SystemCall::kClose, "close", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
};

int Send() { return Stat_ChangePageEvent(1, 2, 3, 4, 5); }

int OpenDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<int>(std::distance(begin(open), end(open)));
}

enum class Scene { kFirstCall, kLaterCall, kReceiverFull };

struct Fault {
  SystemCall call;
  int error;
  Scene scene;
  bool once;
};

// What one call did under one fault.
struct Outcome {
  bool is_met;      // the failing call was made
  int result;       // of the call
  int next_result;  // of the call after it, without a fault
  bool errno_is_kept;
  int descriptors_gained;
  long longest_wait;  // that a socket was set to, in microseconds
};

Outcome CallUnderFault(const Fault& fault) {
  constexpr int kErrno = 12345;
  setenv("CORVANE_LOG_LEVEL", "0", 1);
  // A descriptor below 3 is moved up: the only use of fcntl.
  if (fault.call == SystemCall::kFcntl) close(STDIN_FILENO);
  if (fault.scene != Scene::kFirstCall) Send();
  const int descriptors = OpenDescriptors();

  // What the kept socket meets then sends the call to a fresh one, which waits.
  if (fault.scene == Scene::kReceiverFull) FailSystemCall(SystemCall::kSendto, 1, true, EAGAIN);
  FailSystemCall(fault.call, 1, fault.once, fault.error);
  errno = kErrno;
  Outcome outcome{};
  outcome.result = Send();
  outcome.errno_is_kept = errno == kErrno;
  StopFailing();
  outcome.is_met = Failures(fault.call) > 0;
  outcome.next_result = Send();
  outcome.descriptors_gained = OpenDescriptors() - descriptors;
  outcome.longest_wait = LongestWait();
  return outcome;
}

// In a process of its own, since a kept socket carries state from one call to the next.
Outcome InChildProcess(const Fault& fault) {
  int report[2];
  EXPECT_EQ(pipe(report), 0);
  Child child([&] {
    const Outcome outcome = CallUnderFault(fault);
    return write(report[1], &outcome, sizeof(outcome)) == sizeof(outcome) ? 0 : 1;
  });
  close(report[1]);
  Outcome outcome{};
  EXPECT_EQ(read(report[0], &outcome, sizeof(outcome)), static_cast<ssize_t>(sizeof(outcome)));
  close(report[0]);
  EXPECT_EQ(child.Wait(), 0);
  return outcome;
}

void ExpectMessages(Receiver& receiver, int count) {
  for (int i = 0; i < count; ++i) EXPECT_TRUE(receiver.TryReceive().has_value());
  EXPECT_EQ(receiver.TryReceive(), std::nullopt);
}

std::string Name(const Outcome& outcome) {
  if (!outcome.is_met) return "-";
  return outcome.result == 0 ? "sent" : strerrorname_np(outcome.result);
}

TEST(SendPathTest, EverySystemCallMayFailWithEveryErrno) {
  Receiver receiver;
  receiver.Announce();
  bool waits = false;
  for (const auto& [call, name, errors] : kFailingCalls) {
    for (const int error : errors) {
      std::string row = std::string("| `") + name + "` | " + strerrorname_np(error) + " |";
      bool is_met = false;
      for (const Scene scene : {Scene::kFirstCall, Scene::kLaterCall, Scene::kReceiverFull}) {
        for (const bool once : {true, false}) {
          const Outcome outcome = InChildProcess({call, error, scene, once});
          row.append(" ").append(Name(outcome)).append(" |");
          SCOPED_TRACE(row);
          const bool is_warm = scene != Scene::kFirstCall;
          ExpectMessages(receiver, (is_warm ? 1 : 0) + (outcome.result == 0 ? 1 : 0) + 1);
          EXPECT_GE(outcome.result, 0);
          EXPECT_EQ(outcome.next_result, 0);
          EXPECT_TRUE(outcome.errno_is_kept);
          // The kept socket, and its successor where fstat could not tell that it is ours.
          const bool is_in_doubt = call == SystemCall::kFstat || call == SystemCall::kFcntl;
          EXPECT_LE(outcome.descriptors_gained, !is_warm || is_in_doubt ? 1 : 0);
          EXPECT_LE(outcome.longest_wait, 100'000);
          waits |= outcome.longest_wait > 0;
          is_met |= outcome.is_met;
        }
      }
      EXPECT_TRUE(is_met) << row;
      std::puts(row.c_str());
    }
  }
  EXPECT_TRUE(waits);
}

}  // namespace
}  // namespace usage_stat_test
