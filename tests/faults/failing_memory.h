// Memory that runs out at a chosen allocation.
//
// A program that links this gets its memory here: from malloc on in a plain build, which includes
// the allocations of C libraries; from operator new on under a sanitizer, which has a malloc of its
// own and looks for leaks itself.

#ifndef USAGE_STAT_TESTS_FAULTS_FAILING_MEMORY_H_
#define USAGE_STAT_TESTS_FAULTS_FAILING_MEMORY_H_

namespace usage_stat_test {

class FailingMemory {
 public:
  // Counts this thread's allocations from here on. The one with number `fail_at`, from 1 on, fails,
  // and all later ones too unless `once` is set. With 0 none fails.
  FailingMemory(long fail_at, bool once);
  // Lets all succeed again.
  ~FailingMemory();
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;

  // How many allocations were asked for.
  long count() const;
  // How many more blocks this thread holds than when this object was made.
  long held() const;

 private:
  long held_before_;
};

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_FAULTS_FAILING_MEMORY_H_
