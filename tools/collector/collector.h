// The collector: an endpoint, a thread that receives from it, and a thread that keeps what came.

#ifndef TOOLS_COLLECTOR_COLLECTOR_H_
#define TOOLS_COLLECTOR_COLLECTOR_H_

#include <memory>
#include <optional>
#include <thread>

#include "tools/collector/endpoint.h"
#include "tools/collector/housekeeper.h"
#include "tools/collector/intake.h"
#include "tools/collector/live_view.h"
#include "tools/collector/options.h"
#include "tools/collector/sorter.h"
#include "tools/store/writer.h"

namespace velmora::usage_stat::collector {

class Collector {
 public:
  explicit Collector(const Options& options);

  // Takes the endpoint, then opens the database, then starts the threads.
  base::Status Start();

  // Refuses what is sent from now on, keeps all that was received, and ends the threads.
  Summary Stop();

 private:
  // Opens the database, or begins a new one beside a damaged one.
  base::Status OpenDatabase();
  // Moves the damaged database out of the way: a device that stopped collecting for ever would lose
  // more.
  base::Status SetAside(const std::string& damage);
  void ReceiveAll();
  void KeepAll();
  // Tries until it succeeds, whatever becomes of the database meanwhile.
  void Commit(const store::Batch& batch);

  const Options options_;
  Endpoint endpoint_;
  Intake intake_;
  std::optional<LiveView> view_;
  std::optional<Sorter> sorter_;
  std::unique_ptr<store::Writer> writer_;  // null when nothing is to be kept
  std::optional<Housekeeper> housekeeper_;
  Trouble trouble_{"the database can be written again"};
  std::thread receiving_;
  std::thread keeping_;
  std::atomic<bool> is_stopping_ = false;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_COLLECTOR_H_
