#include "tools/collector/intake.h"

#include <utility>

namespace velmora::usage_stat::collector {

void Intake::Put(Datagram datagram) {
  std::unique_lock lock(mutex_);
  has_room_.wait(lock, [this] { return !is_full(); });
  if (waiting_.empty()) first_came_ = std::chrono::steady_clock::now();
  waiting_bytes_ += datagram.bytes.size();
  waiting_.push_back(std::move(datagram));
  if (waiting_.size() == 1 || is_full()) has_work_.notify_one();
}

bool Intake::Take(std::vector<Datagram>* batch) {
  batch->clear();
  std::unique_lock lock(mutex_);
  has_work_.wait(lock, [this] { return !waiting_.empty() || is_closed_ || is_interrupted_; });
  if (!waiting_.empty()) {
    has_work_.wait_until(lock, first_came_ + patience_, [this] { return is_full() || is_closed_; });
  }
  waiting_.swap(*batch);
  waiting_bytes_ = 0;
  has_room_.notify_one();
  return !batch->empty() || std::exchange(is_interrupted_, false) || !is_closed_;
}

void Intake::Interrupt() {
  const std::lock_guard lock(mutex_);
  is_interrupted_ = true;
  has_work_.notify_one();
}

void Intake::Close() {
  const std::lock_guard lock(mutex_);
  is_closed_ = true;
  has_work_.notify_one();
}

}  // namespace velmora::usage_stat::collector
