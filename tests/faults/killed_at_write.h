// A program that is killed at a chosen one of its system calls that write.

#ifndef USAGE_STAT_TESTS_FAULTS_KILLED_AT_WRITE_H_
#define USAGE_STAT_TESTS_FAULTS_KILLED_AT_WRITE_H_

#include <sys/types.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace usage_stat_test {

// Starts a program under trace. It dies where it would make its write number `kill_at`, counted
// from 1 over all its threads, before the kernel sees that write; with 0 it lives.
class KilledAtWrite {
 public:
  KilledAtWrite(std::vector<std::string> words, long kill_at);
  // Asks the program to end, if it lives, and waits for its end.
  ~KilledAtWrite();
  KilledAtWrite(const KilledAtWrite&) = delete;
  KilledAtWrite& operator=(const KilledAtWrite&) = delete;

  bool is_alive() const { return is_alive_; }
  long writes() const { return writes_; }

  // Those of its writes that gave a file a name or took it away; after End().
  const std::set<long>& namings() const { return namings_; }

  // Asks it to end and waits. Returns its exit code, or minus the signal that ended it.
  int End();

 private:
  void Trace(std::vector<std::string> words, long kill_at);

  std::atomic<pid_t> pid_ = 0;
  std::atomic<bool> is_alive_ = true;
  std::atomic<long> writes_ = 0;
  std::set<long> namings_;
  std::atomic<int> end_ = -1;
  std::thread tracer_;  // of the program's calls: the kernel wants that to be one thread
};

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_FAULTS_KILLED_AT_WRITE_H_
