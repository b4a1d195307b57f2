// Lets a test program's libraries believe that it runs with more rights than its user. For one
// source file of a program.

#ifndef USAGE_STAT_TESTS_SUPPORT_SECURE_MODE_H_
#define USAGE_STAT_TESTS_SUPPORT_SECURE_MODE_H_

#include <stdlib.h>

namespace usage_stat_test {

inline bool g_has_more_rights = false;

}  // namespace usage_stat_test

// Stands before the C library's.
extern "C" __attribute__((visibility("default"))) char* secure_getenv(const char* name) noexcept {
  return usage_stat_test::g_has_more_rights ? nullptr : getenv(name);
}

#endif  // USAGE_STAT_TESTS_SUPPORT_SECURE_MODE_H_
