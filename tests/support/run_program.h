// Starts programs of this build for tests, and ends what it started.

#ifndef USAGE_STAT_TESTS_SUPPORT_RUN_PROGRAM_H_
#define USAGE_STAT_TESTS_SUPPORT_RUN_PROGRAM_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace usage_stat_test {

// A file without a name that holds what a program reads or has written so far.
class Capture {
 public:
  explicit Capture(const std::string& text = {})
      : descriptor_(memfd_create("capture", MFD_CLOEXEC)) {
    if (write(descriptor_, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(descriptor_, 0, SEEK_SET) != 0) {
      throw std::runtime_error("cannot keep a program's text");
    }
  }
  ~Capture() { close(descriptor_); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  int descriptor() const { return descriptor_; }
  std::string text() const {
    std::string text(static_cast<std::size_t>(lseek(descriptor_, 0, SEEK_END)), '\0');
    const ssize_t size = pread(descriptor_, text.data(), text.size(), 0);
    text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return text;
  }

 private:
  int descriptor_;
};

struct ProgramResult {
  int exit_code = -1;  // 128 plus its number after a signal
  std::string out;
  std::string err;
};

// A running program. Its first word is its path; it is killed with its owner.
class Program {
 public:
  // `environment` holds NAME=VALUE beside what the test itself has.
  explicit Program(std::vector<std::string> words, const std::string& input = {},
                   std::vector<std::string> environment = {})
      : in_(input) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, in_.descriptor(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, out_.descriptor(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, err_.descriptor(), STDERR_FILENO);
    // What is given here comes first and so wins over what the test itself has.
    for (char** variable = environ; *variable; ++variable) environment.emplace_back(*variable);
    const int error = posix_spawn(&pid_, words[0].c_str(), &files, nullptr, Pointers(words).data(),
                                  Pointers(environment).data());
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw std::runtime_error("cannot start " + words[0]);
  }
  ~Program() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int number) const { kill(pid_, number); }
  std::string out() const { return out_.text(); }
  std::string err() const { return err_.text(); }

  // Whether its output comes to hold `text`. The bound only limits how long a failing test hangs.
  bool AwaitOutput(const std::string& text) const {
    for (int tries = 0; tries < 3000; ++tries) {
      if (out().find(text) != std::string::npos) return true;
      poll(nullptr, 0, 10);
    }
    return false;
  }

  ProgramResult Wait() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {code, out(), err()};
  }

 private:
  static std::vector<char*> Pointers(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  Capture in_;
  Capture out_;
  Capture err_;
  pid_t pid_ = -1;
};

inline ProgramResult RunProgram(std::vector<std::string> words, const std::string& input = {},
                                std::vector<std::string> environment = {}) {
  return Program(std::move(words), input, std::move(environment)).Wait();
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_RUN_PROGRAM_H_
