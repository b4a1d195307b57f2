// What was received and is not yet kept: a queue between the thread that receives and the one that
// writes, bounded in number and bytes.

#ifndef TOOLS_COLLECTOR_INTAKE_H_
#define TOOLS_COLLECTOR_INTAKE_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

#include "tools/collector/endpoint.h"

namespace velmora::usage_stat::collector {

class Intake {
 public:
  // A batch is given out once its first datagram has waited for `patience`.
  explicit Intake(std::chrono::milliseconds patience) : patience_(patience) {}

  // Adds a datagram; waits while too much is held. The senders feel that as their own bounded wait.
  void Put(Datagram datagram);

  // Waits for the next batch and gives it out, in order. False when nothing is left and nothing
  // more comes.
  bool Take(std::vector<Datagram>* batch);

  // Has Take() return soon, if need be with nothing.
  void Interrupt();

  // Nothing more comes.
  void Close();

 private:
  // What may wait: enough for a burst, little enough for a short commit. Together with the batch
  // that was given out, twice as much is held.
  static constexpr std::size_t kMostCount = 1024;
  static constexpr std::size_t kMostBytes = std::size_t{1024} * 1024;

  bool is_full() const { return waiting_.size() >= kMostCount || waiting_bytes_ >= kMostBytes; }

  const std::chrono::milliseconds patience_;
  std::mutex mutex_;
  std::condition_variable has_room_;
  std::condition_variable has_work_;
  std::vector<Datagram> waiting_;
  std::size_t waiting_bytes_ = 0;
  std::chrono::steady_clock::time_point first_came_;
  bool is_closed_ = false;
  bool is_interrupted_ = false;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_INTAKE_H_
