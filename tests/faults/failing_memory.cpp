#include "tests/faults/failing_memory.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constinit thread_local long t_count = 0;
constinit thread_local long t_fail_at = 0;
constinit thread_local bool t_once = false;
constinit thread_local long t_held = 0;

bool Fails() {
  ++t_count;
  return t_fail_at != 0 && (t_once ? t_count == t_fail_at : t_count >= t_fail_at);
}

template <class Allocate>
void* AllocateUnlessFailing(Allocate allocate) {
  void* const block = Fails() ? nullptr : allocate();
  if (!block) {
    errno = ENOMEM;
  } else {
    ++t_held;
  }
  return block;
}

}  // namespace

#ifdef USAGE_STAT_SANITIZED

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocateUnlessFailing([size] { return std::malloc(size); });
}
void* operator new(std::size_t size) {
  void* const block = operator new(size, std::nothrow);
  if (!block) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept {
  t_held -= block ? 1 : 0;
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { operator delete(block); }

#else

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
  return AllocateUnlessFailing([size] { return __libc_malloc(size); });
}
void* calloc(std::size_t count, std::size_t size) {
  return AllocateUnlessFailing([count, size] { return __libc_calloc(count, size); });
}
void* realloc(void* block, std::size_t size) {
  void* const moved = AllocateUnlessFailing([block, size] { return __libc_realloc(block, size); });
  t_held -= moved && block ? 1 : 0;
  return moved;
}
void free(void* block) {
  t_held -= block ? 1 : 0;
  __libc_free(block);
}
}

#endif

namespace usage_stat_test {

FailingMemory::FailingMemory(long fail_at, bool once) : held_before_(t_held) {
  t_count = 0;
  t_once = once;
  t_fail_at = fail_at;
}

FailingMemory::~FailingMemory() { t_fail_at = 0; }

long FailingMemory::count() const { return t_count; }

long FailingMemory::held() const { return t_held - held_before_; }

}  // namespace usage_stat_test
