// How the platform library itself logs.

#ifndef PLATFORM_CORVANE_LOG_H_
#define PLATFORM_CORVANE_LOG_H_

#include "corvane/corvane.h"

inline constexpr int kLogError = 1;
inline constexpr int kLogWarning = 2;

// A macro, since the line must be the caller's and the format must be checked at compile time.
#define CORVANE_LOG(level, ...)                                                          \
  vm_print_log2(level, "platform/corvane", __LINE__, static_cast<const char*>(__func__), \
                __VA_ARGS__)

#endif  // PLATFORM_CORVANE_LOG_H_
