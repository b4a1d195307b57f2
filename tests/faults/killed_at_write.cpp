#include "tests/faults/killed_at_write.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
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

// How waitpid() tells that a thread stopped at one of these calls.
constexpr int kAtCall = SIGTRAP | (PTRACE_EVENT_SECCOMP << 8);

// The system call that a thread is about to make.
long CallAt(pid_t thread) {
  __ptrace_syscall_info info{};
  ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof(info), &info);
  return static_cast<long>(info.seccomp.nr);
}

// Has this process stop for its tracer at the calls that write, and at no other: that would take
// most of the time.
bool StopAtWrites() {
  constexpr auto kCalls = static_cast<unsigned char>(std::size(kWritingCalls));
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (unsigned char i = 0; i < kCalls; ++i) {
    const auto call = static_cast<std::uint32_t>(kWritingCalls[i]);
    filter.push_back(
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, static_cast<unsigned char>(kCalls - i), 0));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
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
  raise(SIGSTOP);  // until the tracer has said what it wants to see
  if (StopAtWrites()) execv(pointers[0], pointers.data());
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
  waitpid(program, &status, 0);
  ptrace(PTRACE_SETOPTIONS, program, nullptr,
         PTRACE_O_TRACESECCOMP | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
  ptrace(PTRACE_CONT, program, nullptr, nullptr);
  pid_ = program;

  for (;;) {
    const pid_t thread = waitpid(-1, &status, __WALL | __WNOTHREAD);
    if (thread < 0) break;
    if (!WIFSTOPPED(status)) {
      if (thread != program) continue;
      end_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      break;
    }
    if (status >> 8 == kAtCall) {
      if (++writes_ == kill_at) kill(program, SIGKILL);
      if (std::ranges::count(kNamingCalls, CallAt(thread)) > 0) namings_.insert(writes_);
    }
    // Signals are passed on, except those that come from tracing itself.
    const int stop = WSTOPSIG(status);
    const bool is_own = stop == SIGTRAP || stop == SIGSTOP;
    ptrace(PTRACE_CONT, thread, nullptr, is_own ? 0 : stop);
  }
  is_alive_ = false;
}

}  // namespace usage_stat_test
