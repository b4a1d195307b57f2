// A part of a test or a benchmark in a process of its own. Programs are started by run_program.h.

#ifndef USAGE_STAT_TESTS_SUPPORT_CHILD_H_
#define USAGE_STAT_TESTS_SUPPORT_CHILD_H_

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <utility>

namespace usage_stat_test {

// Runs a function in a fork of this process, which ends with what that returns. Killed with its
// owner.
class Child {
 public:
  explicit Child(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) _exit(body());
  }
  Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  Child& operator=(Child&&) = delete;
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    Wait();
  }

  pid_t pid() const { return pid_; }

  // Its exit code, or minus the signal that ended it.
  int Wait(rusage* usage = nullptr) {
    int status = -1;
    wait4(std::exchange(pid_, -1), &status, 0, usage);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t pid_;
};

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_CHILD_H_
