// How far the fleet has got, as this device knows it, and the one batch that waits for its receipt.
// Everything about a visit that is not the network.

#ifndef FLEET_UPLINK_OUTBOX_H_
#define FLEET_UPLINK_OUTBOX_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet/batch/batch.h"
#include "fleet/consent/state.h"
#include "fleet/uplink/outgoing.h"
#include "tools/base/status.h"

namespace velmora::usage_stat::uplink {

// What was drawn to be sent, and stands on the disk before any of it leaves: until a receipt names
// it, this very interval goes out again under this very id.
struct Pending {
  fleet::Id id{};
  fleet::Id store{};  // as the fleet knows it
  std::uint64_t after = 0;
  std::uint64_t through = 0;
  std::int64_t drawn_ms = 0;
  std::int64_t refusals = 0;
};

struct Prepared {
  fleet::Batch batch;
  std::string message;  // empty: there is nothing to send
};

// When a visit is due, and what became of the last ones.
struct Visits {
  std::int64_t last_ms = 0;
  std::int64_t last_success_ms = 0;
  std::int64_t failures = 0;    // in a row
  std::int64_t next_ms = 0;     // not before
  std::int64_t day = 0;         // days since the epoch
  std::int64_t sent_bytes = 0;  // on that day
  std::string trouble;          // of the last visit; empty when there was none
};

class Outbox {
 public:
  // The tables in `state`, and the records of `outgoing`, which outlive this. `can_write` as the
  // state was opened.
  static base::Status Open(consent::State* state, Outgoing* outgoing, bool can_write,
                           std::unique_ptr<Outbox>* outbox);

  // Numbers that the fleet has not accounted for.
  std::uint64_t waiting() const;
  // Since when the oldest of them waits, roughly: when a visit last went well.
  const Visits& visits() const { return visits_; }
  const std::optional<Pending>& pending() const { return pending_; }

  // A question about what goes next; empty when nothing does.
  base::Status Ask(fleet::Batch* question) const;

  // What goes next: what is pending as it may leave now, else a new batch that is now pending.
  // Nothing when the consent has been taken back since, by whatever process.
  base::Status Prepare(const Outgoing::Limits& limits, std::int64_t now_ms, Prepared* prepared);

  // What a receipt changes.
  enum class Effect {
    kNone,     // it answers something else
    kMoved,    // the cursor moved on: go on
    kGoOn,     // nothing stands against sending
    kRefused,  // the batch, for reasons of its own
    kLater,
    kForgotten,
  };
  base::Status Take(const fleet::Receipt& receipt, const fleet::Batch& sent, Effect* effect);

  base::Status Save(const Visits& visits);

 private:
  // Numbers of one store of the device under the id by which the fleet knows them. A store that the
  // fleet has called forked has several.
  struct Segment {
    StoreRange range;  // the store's own id, the numbers of this part
    fleet::Id id{};
    std::uint64_t cursor = 0;
  };

  Outbox(consent::State* state, Outgoing* outgoing) : state_(state), outgoing_(outgoing) {}
  base::Status Read();
  base::Status Split(const StoreRange& store);
  // By which the fleet knows a store that was never called forked.
  fleet::Id NameOf(const StoreRange& store) const;
  Segment* SegmentOf(const fleet::Id& id);
  const Segment* NextSegment() const;
  base::Status FillNew(const Segment& segment, Outgoing::Limits limits, std::int64_t now_ms,
                       Prepared* prepared);
  base::Status MoveCursor(Segment* segment, std::uint64_t cursor);
  base::Status Fork(const Segment& segment);
  base::Status SavePending(const std::optional<Pending>& pending);

  consent::State* const state_;
  Outgoing* const outgoing_;
  std::vector<Segment> segments_;
  std::optional<Pending> pending_;
  Visits visits_;
};

}  // namespace velmora::usage_stat::uplink

#endif  // FLEET_UPLINK_OUTBOX_H_
