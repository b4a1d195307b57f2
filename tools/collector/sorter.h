// Turns datagrams into what the database keeps, shows them, and counts them.

#ifndef TOOLS_COLLECTOR_SORTER_H_
#define TOOLS_COLLECTOR_SORTER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/collector/endpoint.h"
#include "tools/collector/live_view.h"
#include "tools/collector/notices.h"
#include "tools/collector/options.h"
#include "tools/records/record.h"
#include "tools/store/writer.h"

namespace velmora::usage_stat::collector {

// What the collector has seen since it started.
struct Totals {
  std::int64_t received = 0;
  std::int64_t decoded = 0;
  std::int64_t quarantined = 0;  // undecodable
  std::int64_t refused = 0;      // from senders that may not send
  std::int64_t off = 0;          // came while statistics were switched off
  std::int64_t lost = 0;         // could not be written before the end
};

class Sorter {
 public:
  // `view` may be null; otherwise it outlives the sorter.
  Sorter(Format format, LiveView* view) : format_(format), view_(view) {}
  ~Sorter() { flood_.Flush(); }
  Sorter(const Sorter&) = delete;
  Sorter& operator=(const Sorter&) = delete;

  // Takes the datagrams' bytes.
  store::Batch Sort(std::vector<Datagram>* datagrams);

  const Totals& totals() const { return totals_; }

  // Whether a request to rotate came in since the last call.
  bool TakeRotationRequest();

 private:
  void Refuse(const Datagram& datagram, store::Batch* batch);
  void Drop(const Datagram& datagram, store::Batch* batch);
  void Keep(Datagram* datagram, const records::Record& record, store::Batch* batch);
  void Quarantine(Datagram* datagram, const records::Damage& damage, store::Batch* batch);
  void Show(const records::Record& record, const store::Sender& sender);

  // How many bytes of an undecodable datagram may be kept now.
  std::size_t TakeAllowance(std::size_t wanted);

  // What a sender gone wild may put into the quarantine: so much at once, and so much a second.
  static constexpr std::int64_t kMostAllowance = std::int64_t{1024} * 1024;
  static constexpr std::int64_t kAllowancePerSecond = 4096;

  std::int64_t allowance_ = kMostAllowance;
  std::chrono::steady_clock::time_point allowed_at_ = std::chrono::steady_clock::now();
  const Format format_;
  LiveView* const view_;
  Flood flood_;
  Totals totals_;
  bool is_rotation_requested_ = false;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_SORTER_H_
