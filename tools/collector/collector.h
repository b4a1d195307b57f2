// The collector: an endpoint, a thread that receives from it, and a thread that keeps what came.

#ifndef TOOLS_COLLECTOR_COLLECTOR_H_
#define TOOLS_COLLECTOR_COLLECTOR_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "tools/collector/endpoint.h"
#include "tools/collector/folder_watch.h"
#include "tools/collector/housekeeper.h"
#include "tools/collector/intake.h"
#include "tools/collector/live_view.h"
#include "tools/collector/options.h"
#include "tools/collector/sorter.h"
#include "tools/collector/switch.h"
#include "tools/store/writer.h"

namespace velmora::usage_stat::collector {

class Collector {
 public:
  explicit Collector(const Options& options);

  // Takes the endpoint, then opens the database, then starts the threads.
  base::Status Start();

  // Refuses what is sent from now on, keeps all that was received, and ends the threads.
  Totals Stop();

 private:
  // Opens the database, or begins a new one beside a damaged one.
  base::Status OpenDatabase();
  // Moves the damaged database out of the way: a device that stopped collecting for ever would lose
  // more.
  base::Status SetAside(const std::string& damage);
  // From the housekeeper's thread: damage that it met. The thread that writes acts on it.
  void NoteDamage(const Housekeeper::Damage& damage);
  void HandleDamage();
  void ReceiveAll();
  void KeepAll();
  // Tries until it succeeds, whatever becomes of the database meanwhile; when it is to stop, only
  // until its patience ends.
  void Commit(const store::Batch& batch, std::int64_t datagrams);

  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kPatience{5};

  const Options options_;
  Endpoint endpoint_;
  Intake intake_;
  Switch switch_;
  std::optional<FolderWatch> watch_;
  std::optional<LiveView> view_;
  std::optional<Sorter> sorter_;
  std::unique_ptr<store::Writer> writer_;  // null when nothing is to be kept
  std::optional<Housekeeper> housekeeper_;
  Trouble trouble_{"the database can be written again"};
  std::thread receiving_;
  std::thread keeping_;
  std::atomic<bool> is_stopping_ = false;
  std::atomic<Clock::time_point> stop_by_{};
  std::int64_t lost_ = 0;  // datagrams
  std::mutex damage_mutex_;
  Housekeeper::Damage damage_;
  std::int64_t database_ = 0;  // as the housekeeper counts them
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_COLLECTOR_H_
