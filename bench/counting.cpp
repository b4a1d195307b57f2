#include "bench/counting.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>

// ---- Allocations: the program's own malloc goes before the C library's. ----

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}

namespace {
constinit thread_local std::uint64_t t_allocations = 0;
}  // namespace

extern "C" {
void* malloc(std::size_t size) {
  ++t_allocations;
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  ++t_allocations;
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  ++t_allocations;
  return __libc_realloc(block, size);
}
}

namespace bench {
namespace {

constexpr int kWarmUps = 16;
constexpr int kCalls = 256;

// A system call that no sender makes: it marks the stretch to count in.
constexpr long kMark = SYS_getpgid;
void Mark() { syscall(kMark, 0); }

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

[[noreturn]] void RunTraced(const std::function<void()>& call) {
  ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  raise(SIGSTOP);
  for (int i = 0; i < kWarmUps; ++i) call();
  Mark();
  for (int i = 0; i < kCalls; ++i) call();
  Mark();
  _exit(0);
}

std::uint64_t CountSystemCallsBetweenMarks(pid_t child) {
  std::uint64_t count = 0;
  int marks = 0;
  int status = 0;
  if (waitpid(child, &status, 0) != child) Fail("waitpid");
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  for (;;) {
    if (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0) Fail("ptrace");
    if (waitpid(child, &status, 0) != child) Fail("waitpid");
    if (!WIFSTOPPED(status)) break;
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) continue;
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof(info), &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
    if (static_cast<long>(info.entry.nr) == kMark) {
      ++marks;
    } else if (marks == 1) {
      ++count;
    }
  }
  if (marks != 2) Fail("the traced calls did not finish");
  return count;
}

}  // namespace

std::uint64_t Allocations() { return t_allocations; }

CostPerCall CountPerCall(const std::function<void()>& call) {
  const pid_t child = fork();  // no Child: its tracer waits for it
  if (child < 0) Fail("fork");
  if (child == 0) RunTraced(call);
  const std::uint64_t system_calls = CountSystemCallsBetweenMarks(child);

  for (int i = 0; i < kWarmUps; ++i) call();
  const std::uint64_t before = Allocations();
  for (int i = 0; i < kCalls; ++i) call();
  const std::uint64_t allocations = Allocations() - before;
  return {static_cast<double>(system_calls) / kCalls, static_cast<double>(allocations) / kCalls};
}

}  // namespace bench
