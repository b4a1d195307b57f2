// What leaves next: the numbers of a store from some point on, each as a record or as a run with
// the reason why it is none, just as consent and policy let them.

#ifndef FLEET_UPLINK_OUTGOING_H_
#define FLEET_UPLINK_OUTGOING_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/batch/batch.h"
#include "fleet/consent/policy.h"
#include "fleet/consent/state.h"
#include "tools/base/status.h"
#include "tools/store/reader.h"

namespace velmora::usage_stat::uplink {

// One store of the device, and the numbers that it gave.
struct StoreRange {
  fleet::Id id{};
  std::uint64_t first = 0;
  std::uint64_t last = 0;  // first - 1 when it gave none yet
};

class Outgoing {
 public:
  // How much one batch holds at most. Eight times as much saves a tenth of the bytes, and takes far
  // more memory: the tables of the compression grow with what is compressed.
  struct Limits {
    std::size_t records = 2048;
    std::size_t bytes = std::size_t{128} * 1024;  // of their payloads
  };

  // Looks at the records of the database at `path` and its archives, without writing to them.
  // `state`, in which the stores have been noted, outlives this.
  static base::Status Open(const std::string& path, consent::State* state,
                           const consent::Policy& shipped, std::unique_ptr<Outgoing>* outgoing);

  // The stores of the database, oldest first.
  const std::vector<StoreRange>& stores() const { return stores_; }

  // Fills `batch`, all but its id, with what comes after number `after` of `store`: as much as one
  // level, one policy and `limits` allow, at least one number. Empty when there is nothing.
  base::Status Fill(const StoreRange& store, std::uint64_t after, const Limits& limits,
                    std::int64_t now_ms, fleet::Batch* batch);

  // The same with all numbers up to `through`: an interval that was filled before and not answered,
  // as it may leave now. Of the levels in it the lowest holds for all.
  base::Status FillAgain(const StoreRange& store, std::uint64_t after, std::uint64_t through,
                         std::int64_t now_ms, fleet::Batch* batch);

  // Calls `visit` with each record of `batch` and the datagram that the device keeps of it.
  using RawVisitor = std::function<void(const fleet::BatchRecord& record, std::string_view raw)>;
  base::Status ForEachRaw(const fleet::Batch& batch, const RawVisitor& visit);

  // Archives that could not be read while batches were filled.
  const std::vector<std::string>& problems() const { return problems_; }

 private:
  Outgoing(consent::State* state, consent::Policy shipped)
      : state_(state), shipped_(std::move(shipped)) {}

  base::Status Begin(const StoreRange& store, std::uint64_t after, std::uint64_t through,
                     std::int64_t now_ms, fleet::Batch* batch, std::vector<consent::Span>* spans);
  base::Status FillSpans(const std::vector<consent::Span>& spans, const Limits& limits,
                         std::int64_t now_ms, fleet::Batch* batch);
  base::Status FillSpan(const consent::Span& span, const Limits& limits, fleet::Batch* batch);
  void AddClockSteps(const std::vector<consent::Span>& spans, bool is_exact,
                     fleet::Batch* batch) const;
  // Notes why the numbers first..last are no records.
  base::Status AddAbsent(std::uint64_t first, std::uint64_t last, fleet::Batch* batch);
  bool IsExplained(std::uint64_t first, std::uint64_t last) const;

  consent::State* const state_;
  const consent::Policy shipped_;
  std::unique_ptr<store::History> history_;
  std::vector<StoreRange> stores_;
  std::vector<store::Missing> missing_;
  std::vector<store::ClockStep> clock_steps_;
  std::vector<std::string> problems_;
};

}  // namespace velmora::usage_stat::uplink

#endif  // FLEET_UPLINK_OUTGOING_H_
