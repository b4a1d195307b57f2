// What the collector tells its operator on standard error.

#ifndef TOOLS_COLLECTOR_NOTICES_H_
#define TOOLS_COLLECTOR_NOTICES_H_

#include <chrono>
#include <string>
#include <utility>

namespace velmora::usage_stat::collector {

// Writes `line` and a line end with one write. A closed or full standard error loses it: nobody may
// stop the collection by not reading.
void Tell(const std::string& line);

// Tells what strangers can cause any number of times: a few lines at first, then now and then one,
// with how many more there were.
class Flood {
 public:
  void Tell(const std::string& line);
  // Tells how many were left out since.
  void Flush();

 private:
  static constexpr int kMostLines = 10;                // at once
  static constexpr std::chrono::seconds kPerLine{20};  // after which there may be one more

  std::chrono::steady_clock::time_point refilled_;
  long long lines_ = kMostLines;
  long long left_out_ = 0;
};

// A trouble that is told when it begins and when it is over, however often it is met in between.
class Trouble {
 public:
  explicit Trouble(std::string over) : over_(std::move(over)) {}
  // Returns whether it begins.
  bool Met(const std::string& line);
  void Over();

 private:
  const std::string over_;
  bool is_on_ = false;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_NOTICES_H_
