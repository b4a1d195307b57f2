// A pair of platform libraries that record what the statistics library asks of them, and answer as
// the test says. They have the names and the binary interface of the real pair, with another
// encoding: each primitive writes itself as a word of text.
//
// The record is the process's own, without a lock: for tests with one thread at a time.

#ifndef USAGE_STAT_TESTS_SUPPORT_RECORDING_RECORDER_H_
#define USAGE_STAT_TESTS_SUPPORT_RECORDING_RECORDER_H_

#include <corvane/corvane.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace usage_stat_test {

constexpr int kRecordedPid = 4711;  // what the pair gives as the process's id

struct LogLine {
  int level;
  std::string unit;
  std::string function;
  std::string format;
  std::string message;

  bool operator==(const LogLine&) const = default;
  friend void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.level << ' ' << line.unit << ' ' << line.function << ": " << line.message;
  }
};

struct Recording {
  // What was asked, in order.
  std::vector<std::string> calls;
  std::vector<LogLine> log;
  std::string message;  // the last one, as text
  int steps = 0;        // primitives written since the last client was made

  // What is answered.
  bool is_silent = false;      // nothing is recorded or logged, which takes next to no stack
  int failing_step = 0;        // the primitive that fails, counted from 1 for each client
  bool patches_texts = false;  // texts are written with steps back in the stream
  int init_result = 0;
  int send_result = 0;
  const char* language = "??";
  int statistics_enabled = 1;
  const unsigned char* device_id = nullptr;
  const char* serial_number = "";
  const char* device_model = "";
  const char* software_version = "";
  int partner = 0;
  const char* partner_name = "";
  int gsensor = 0;
  int orientation = 0;
  unsigned int buttons = 0;
  std::map<int, std::map<int, const char*>> first_actions;  // by mapping set and button
  std::map<int, std::map<int, const char*>> second_actions;
  std::map<std::string, BookInfo> books;  // by path
  std::map<std::string, const char*> isbns;
};

// The one of this process.
__attribute__((visibility("default"))) Recording& Recorded();

// Records a call that `describe` puts into words.
template <class Describe>
inline void Note(const Describe& describe) {
  if (!Recorded().is_silent) Recorded().calls.emplace_back(describe());
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_RECORDING_RECORDER_H_
