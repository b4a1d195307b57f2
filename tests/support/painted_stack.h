// How much of its thread's stack a call takes: it runs on one that was painted before, and what is
// not painted any more was used.

#ifndef USAGE_STAT_TESTS_SUPPORT_PAINTED_STACK_H_
#define USAGE_STAT_TESTS_SUPPORT_PAINTED_STACK_H_

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>

namespace usage_stat_test {

inline std::size_t StackUsedBy(int (*call)()) {
  constexpr std::size_t kSize = 512 * 1024;
  constexpr unsigned char kPaint = 0xA5;
  struct Measurement {
    int (*call)();
    unsigned char* stack;
    std::ptrdiff_t used;
  };
  Measurement measurement{call, nullptr, 0};
  measurement.stack = static_cast<unsigned char*>(
      mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  std::fill_n(measurement.stack, kSize, kPaint);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, measurement.stack, kSize);
  // Looks before the thread ends, which takes of the stack as well.
  const auto run = [](void* argument) -> void* {
    auto* const measured = static_cast<Measurement*>(argument);
    measured->call();
    const auto* const here = static_cast<unsigned char*>(__builtin_frame_address(0));
    measured->used = here - std::find_if(measured->stack, measured->stack + kSize,
                                         [](unsigned char byte) { return byte != kPaint; });
    return nullptr;
  };
  pthread_t thread;
  EXPECT_EQ(pthread_create(&thread, &attributes, run, &measurement), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  munmap(measurement.stack, kSize);
  return static_cast<std::size_t>(measurement.used);
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_PAINTED_STACK_H_
