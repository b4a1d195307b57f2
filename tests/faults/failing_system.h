// System calls that fail on demand.
//
// A program that links this goes through here for every system call by which a message is sent,
// whichever library makes it.

#ifndef USAGE_STAT_TESTS_FAULTS_FAILING_SYSTEM_H_
#define USAGE_STAT_TESTS_FAULTS_FAILING_SYSTEM_H_

namespace usage_stat_test {

enum class SystemCall { kSocket, kSendto, kFstat, kFcntl, kGetsockopt, kSetsockopt, kClose };

// From here on the `nth` call of its kind, from 1 on, fails with `error`, and all later ones too
// unless `once` is set. Calls of other kinds keep the fault that they have. A failed close() closes
// all the same, as it does on Linux.
void FailSystemCall(SystemCall call, int nth, bool once, int error);

// Lets all succeed again.
void StopFailing();

// The longest wait that any socket was set to, in microseconds.
long LongestWait();

// How many calls of this kind have failed so.
int Failures(SystemCall call);

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_FAULTS_FAILING_SYSTEM_H_
