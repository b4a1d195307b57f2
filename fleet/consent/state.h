// What a person agreed to, from which record on, and the name that the fleet knows the device by.
//
// All of it stands in one small database of the uplink's own, uplink.db, which nobody but the
// uplink's user can read. As long as nothing was ever agreed to there is no such file, and looking
// whether there is writes nothing.

#ifndef FLEET_CONSENT_STATE_H_
#define FLEET_CONSENT_STATE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet/batch/batch.h"
#include "fleet/consent/policy.h"
#include "fleet/consent/rewrite.h"
#include "tools/base/status.h"
#include "tools/store/sqlite.h"

namespace velmora::usage_stat::consent {

// The record numbers of the device as they stand at one moment. Numbers mean one record within one
// store only.
struct Numbers {
  struct Store {
    fleet::Id id{};
    std::int64_t first = 0;  // the first number that it gave
  };
  std::vector<Store> live;  // the stores of the database, oldest first
  std::int64_t next = 1;    // what the next record will get, in the last store
};

// Numbers that leave in one way.
struct Span {
  std::int64_t first = 0;
  std::int64_t last = 0;
  Level level = Level::kNone;          // kNone: they never leave
  std::shared_ptr<const Table> table;  // null at kNone
};

class State {
 public:
  enum class Mode {
    kRead,   // writes nothing; a missing file reads as one in which nothing was agreed to
    kWrite,  // makes the file, readable for its owner alone, when it is missing
  };
  static base::Status Open(const std::string& path, Mode mode, std::unique_ptr<State>* state);

  // Reads again what stands: another process may have changed it.
  base::Status Refresh() { return ReadAll(); }

  // What stands now. kNone while the device is being forgotten.
  Level level() const { return level_; }
  // Since when, in milliseconds since the epoch; 0 when nothing was ever agreed to.
  std::int64_t since_ms() const { return since_ms_; }
  // The rules that were agreed to; let nothing through at kNone.
  const Policy& agreed() const { return agreed_; }
  // Whether the fleet still has to be asked to forget this device. Until it has answered, nothing
  // else leaves and nothing can be agreed to.
  bool is_forgetting() const { return is_forgetting_; }

  // The device's name in the fleet, drawn when something is first agreed to. Nothing before that.
  const std::optional<fleet::Id>& name() const { return name_; }
  // The key of the pseudonyms, drawn with the name. Never leaves the device.
  const Pseudonyms::Key& key() const { return key_; }

  // Tells the number behind the last one from `first` to `last` whose record was received before
  // the moment `ms`; `first` when there is none.
  using ReceivedSince = std::function<base::Status(std::int64_t first, std::int64_t last,
                                                   std::int64_t ms, std::int64_t* number)>;

  // Notes that from the next record on `level` holds, under `policy`; what held until then stays
  // noted for what was received until then. Needs kWrite.
  base::Status Agree(Level level, const Policy& policy, const Numbers& numbers,
                     const ReceivedSince& received_since, std::int64_t now_ms);

  // Notes the stores that were begun since the last look: what they hold was received while the
  // present level stood, as far as they follow one that was in use when it was agreed to. Any other
  // may be an old one that was put back, so there the time of receiving decides. It does so too
  // where a level begins: what was received before may be stored after. Needs kWrite.
  base::Status Look(const Numbers& numbers, const ReceivedSince& received_since);

  // How the numbers first..last of a store may leave now: by the lower of the level at which each
  // was received and the present one, and by what all three policies let through: the one agreed
  // to then, the one agreed to last, and the one `shipped` now. So neither a change of level nor
  // an update lets anything more through than was agreed to. In order, without gaps, up to `last`
  // or to where a level begins of which nothing is known to have been received yet; none of a store
  // that was begun since the last look.
  base::Status SpansOf(const fleet::Id& store, std::int64_t first, std::int64_t last,
                       const Policy& shipped, std::vector<Span>* spans);

  // Ends the consent, and asks the fleet to forget the device at the next chance. Needs kWrite.
  base::Status Forget(const Numbers& numbers, const ReceivedSince& received_since,
                      std::int64_t now_ms);

  // The fleet has forgotten the device: removes all that is known of it here. The state is as on
  // the first day; don't use it any more.
  base::Status Forgotten();

  // For what the uplink notes beside it.
  store::Connection* connection() { return &connection_; }

 private:
  State() = default;
  base::Status ReadAll();
  base::Status ReadPolicy(std::string_view id, Policy* policy);
  // `since_ms`: only what was received from then on counts; 0 when that is known.
  base::Status Note(const fleet::Id& store, std::int64_t first, Level level,
                    std::string_view policy, std::int64_t since_ms);
  // Whether the last that is noted of a store is the present level.
  base::Status IsStanding(const fleet::Id& store, bool* is_standing);
  base::Status Settle(const Numbers& numbers, const ReceivedSince& received_since);
  base::Status NoteSeen(const Numbers& numbers);
  // What Agree() and Forget() have in common, within a transaction.
  base::Status Change(Level level, const Policy& policy, const Numbers& numbers,
                      const ReceivedSince& received_since, std::int64_t now_ms);
  base::Status LookAround(const Numbers& numbers, const ReceivedSince& received_since);

  std::string path_;
  store::Connection connection_;
  Level level_ = Level::kNone;
  std::int64_t since_ms_ = 0;
  std::string policy_id_;
  Policy agreed_;
  bool is_forgetting_ = false;
  std::optional<fleet::Id> name_;
  Pseudonyms::Key key_{};
};

}  // namespace velmora::usage_stat::consent

#endif  // FLEET_CONSENT_STATE_H_
