#include "tools/collector/notices.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "tools/records/text.h"

namespace velmora::usage_stat::collector {

void Tell(const std::string& line) {
  const std::string text = "usage-stat-collector: " + records::Printable(line) + "\n";
  pollfd waiting{STDERR_FILENO, POLLOUT, 0};
  if (poll(&waiting, 1, 0) != 1 || !(waiting.revents & POLLOUT)) return;
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;
}

void Flood::Tell(const std::string& line) {
  const auto now = std::chrono::steady_clock::now();
  const auto more = (now - refilled_) / kPerLine;
  if (more > 0) {
    lines_ = std::min<long long>(kMostLines, lines_ + more);
    refilled_ = now;
  }
  if (lines_ == 0) {
    ++left_out_;
    return;
  }
  --lines_;
  Flush();
  collector::Tell(line);
}

void Flood::Flush() {
  if (left_out_ > 0) collector::Tell(std::to_string(left_out_) + " more like this");
  left_out_ = 0;
}

bool Trouble::Met(const std::string& line) {
  if (!is_on_) Tell(line);
  return !std::exchange(is_on_, true);
}

void Trouble::Over() {
  if (is_on_) Tell(over_);
  is_on_ = false;
}

}  // namespace velmora::usage_stat::collector
