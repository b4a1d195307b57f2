#include "tools/collector/live_view.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "tools/collector/notices.h"

namespace velmora::usage_stat::collector {

LiveView::~LiveView() {
  {
    const std::lock_guard lock(mutex_);
    is_ending_ = true;
  }
  has_lines_.notify_one();
  thread_.join();
  if (left_out_ > 0) {
    Tell(std::to_string(left_out_) + " records were not shown: standard output was too slow");
  }
}

void LiveView::Show(std::string line) {
  line += '\n';
  const std::lock_guard lock(mutex_);
  if (is_closed_) return;
  if (bytes_ + line.size() > kMostBytes) {
    ++left_out_;
    return;
  }
  bytes_ += line.size();
  lines_.push_back(std::move(line));
  has_lines_.notify_one();
}

void LiveView::Run() {
  std::string line;
  while (Next(&line)) {
    if (Write(line)) continue;
    const std::lock_guard lock(mutex_);
    is_closed_ = true;
    left_out_ += static_cast<long long>(lines_.size()) + 1;
    lines_.clear();
    return;
  }
}

bool LiveView::Next(std::string* line) {
  std::unique_lock lock(mutex_);
  has_lines_.wait(lock, [this] { return !lines_.empty() || is_ending_; });
  if (lines_.empty()) return false;
  *line = std::move(lines_.front());
  lines_.pop_front();
  bytes_ -= line->size();
  return true;
}

bool LiveView::Write(const std::string& line) const {
  constexpr int kPatienceMs = 1000;
  for (std::string_view rest = line; !rest.empty();) {
    pollfd waiting{STDOUT_FILENO, POLLOUT, 0};
    const int ready = poll(&waiting, 1, kPatienceMs);
    if (ready == 0) {
      if (is_ending_) return false;
      continue;
    }
    // A writable pipe has room for this much, so the write does not block.
    const ssize_t written =
        write(STDOUT_FILENO, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
    if (written < 0 && errno != EINTR && errno != EAGAIN) return false;
    if (written > 0) rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace velmora::usage_stat::collector
