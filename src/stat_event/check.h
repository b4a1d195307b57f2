// Checks and log lines, the same shape everywhere in the library.
//
// A source unit is known in the log by its folder; the build defines STAT_UNIT for each.

#ifndef STAT_EVENT_CHECK_H_
#define STAT_EVENT_CHECK_H_

#include <corvane/corvane.h>

#include "src/stat_event/signature.h"

// Results of the library's own checks. Other non-zero results come from the platform's message
// client and are passed through unchanged.
enum StatResult : int {
  VM_FAILED = -1,  // a step of writing or reading a record failed
  VM_INVAL = -2,   // rejected arguments
};

// Writes one log line from the enclosing function. `format` is a string literal that begins with
// "[pid:%d]"; the process id is supplied here.
#define STAT_LOG(level, format, ...)                                \
  vm_print_log2(level, STAT_UNIT, __LINE__, STAT_SIGNATURE, format, \
                g_process_pid __VA_OPT__(, ) __VA_ARGS__)

// Leaves the enclosing function with `result` when `condition` holds, or does not hold, logging
// both as they are written.
#define STAT_RETURN_IF(condition, result) \
  STAT_RETURN_LOGGING(condition, #condition, result, #result)
#define STAT_RETURN_UNLESS(condition, result) \
  STAT_RETURN_LOGGING(!(condition), #condition, result, #result)

// The unmatched bracket at the end belongs to the line: log filters look for it.
#define STAT_RETURN_LOGGING(fails, condition_text, result, result_text)                       \
  do {                                                                                        \
    if (fails) {                                                                              \
      STAT_LOG(1, "[pid:%d]Condition: \"" condition_text "\", return(\"" result_text "\")]"); \
      return result;                                                                          \
    }                                                                                         \
  } while (false)

#endif  // STAT_EVENT_CHECK_H_
