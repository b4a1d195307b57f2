#include "tests/faults/killed_at_write.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace usage_stat_test {
namespace {

constexpr long kWritingCalls[] = {SYS_write,     SYS_pwrite64,  SYS_writev,    SYS_ftruncate,
                                  SYS_fsync,     SYS_fdatasync, SYS_rename,    SYS_renameat,
                                  SYS_renameat2, SYS_unlink,    SYS_unlinkat,  SYS_mkdir,
                                  SYS_link,      SYS_linkat,    SYS_fallocate, SYS_copy_file_range};

// Those of them after which another file has a name.
constexpr long kNamingCalls[] = {SYS_rename,   SYS_renameat, SYS_renameat2, SYS_unlink,
                                 SYS_unlinkat, SYS_link,     SYS_linkat};

// The system call that a thread is about to make; -1 when it stopped elsewhere.
long CallOf(pid_t thread) {
  __ptrace_syscall_info info{};
  ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof(info), &info);
  return info.op == PTRACE_SYSCALL_INFO_ENTRY ? static_cast<long>(info.entry.nr) : -1;
}

[[noreturn]] void Become(std::vector<std::string> words) {
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDOUT_FILENO);
  dup2(nowhere, STDERR_FILENO);
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // the search for leaks is a trace of its own
  ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  execv(pointers[0], pointers.data());
  _exit(127);
}

}  // namespace

KilledAtWrite::KilledAtWrite(std::vector<std::string> words, long kill_at)
    : tracer_([this, words = std::move(words), kill_at] { Trace(words, kill_at); }) {
  while (pid_ == 0) std::this_thread::yield();
}

KilledAtWrite::~KilledAtWrite() { End(); }

int KilledAtWrite::End() {
  if (tracer_.joinable()) {
    if (is_alive_) kill(pid_, SIGTERM);
    tracer_.join();
  }
  return end_;
}

void KilledAtWrite::Trace(std::vector<std::string> words, long kill_at) {
  const pid_t program = fork();  // no Child: its tracer waits for it
  if (program == 0) Become(std::move(words));
  int status = 0;
  waitpid(program, &status, 0);  // it stops where the program begins
  ptrace(PTRACE_SETOPTIONS, program, nullptr,
         PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
  ptrace(PTRACE_SYSCALL, program, nullptr, nullptr);
  pid_ = program;

  for (;;) {
    const pid_t thread = waitpid(-1, &status, __WALL | __WNOTHREAD);
    if (thread < 0) break;
    if (!WIFSTOPPED(status)) {
      if (thread != program) continue;
      end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      break;
    }
    const int stop = WSTOPSIG(status);
    const long call = stop == (SIGTRAP | 0x80) ? CallOf(thread) : -1;
    if (std::ranges::count(kWritingCalls, call) > 0 && ++writes_ == kill_at) kill(program, SIGKILL);
    if (std::ranges::count(kNamingCalls, call) > 0) namings_.insert(writes_);
    // Signals are passed on, except those that come from tracing itself.
    const bool is_own = stop == (SIGTRAP | 0x80) || stop == SIGTRAP || stop == SIGSTOP;
    ptrace(PTRACE_SYSCALL, thread, nullptr, is_own ? 0 : stop);
  }
  is_alive_ = false;
}

}  // namespace usage_stat_test
