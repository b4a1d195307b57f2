// What becomes of a batch: the one place that decides it, and the transaction that does it.

#ifndef FLEET_INGEST_LEDGER_H_
#define FLEET_INGEST_LEDGER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/batch/batch.h"
#include "fleet/ingest/database.h"
#include "fleet/ingest/schema.h"

namespace velmora::usage_stat::fleet {

// A message from a device, by the name that the broker has authenticated.
struct Delivery {
  std::string name;
  std::string message;
};

// Its answer, to be sent only now that the database has committed.
struct Reply {
  std::string name;
  Receipt receipt;
};

// What became of a batch.
enum class Outcome {
  kStored,
  kRepeated,   // it had been stored before
  kQuestion,   // it only asked where to go on
  kCursor,     // it left a gap: the answer is where to go on
  kForked,     // it came from a copy of its store
  kLater,      // its version is too new for this program
  kMalformed,  // the message is none
  kForgotten,  // its device was forgotten
};
inline constexpr std::array<std::string_view, 8> kOutcomeNames = {
    "stored", "repeated", "question", "cursor", "forked", "later", "malformed", "forgotten"};
constexpr std::string_view NameOf(Outcome outcome) {
  return kOutcomeNames[static_cast<std::size_t>(outcome)];
}

// How often what became of a batch, in this process.
struct Tally {
  std::uint64_t batches = 0;
  std::uint64_t records = 0;
};
using Tallies = std::map<Outcome, Tally>;

class Ledger {
 public:
  // `tombstones` is the file, outside the database, that the names of forgotten devices are kept
  // in; empty for none.
  static base::Status Open(const std::string& conninfo, const std::string& tombstones,
                           Ledger* ledger);

  // Takes all of `deliveries`, in order, in one transaction; when that fails for one of them, each
  // in a transaction of its own. The replies are complete when it succeeds. When it fails, none of
  // them may be sent, and the database is to be opened anew.
  base::Status Take(const std::vector<Delivery>& deliveries, std::vector<Reply>* replies);

  // Reads the quarantine again: what this program knows by now becomes records.
  base::Status Replay(std::int64_t* released);

  // Deletes everything under `name`, for good: the tombstone is on the disk before the rows go.
  // A name that nobody had is entombed all the same.
  base::Status Forget(const std::string& name);

  // Drops the days of records that are older than `days` and were exported. `kept` tells how many
  // older ones are still there because they were not.
  base::Status Retire(std::int64_t days, std::int64_t* dropped, std::int64_t* kept);

  const Tallies& tallies() const { return tallies_; }
  Database& database() { return database_; }

 private:
  struct Store;
  struct Pending;
  struct Entered;
  using Stores = std::map<std::pair<std::string, Id>, Store>;

  base::Status Attempt(const std::vector<Delivery>& deliveries, std::vector<Reply>* replies);
  base::Status EnterDevices(const Pending& pending, Transaction* transaction, Entered* entered);
  base::Status EnterStores(const Pending& pending, const Entered& entered, Stores* stores);
  base::Status Reject(std::int64_t device, const std::string& problem, const std::string& message);
  static std::string SaveStatement(const Stores& stores);
  std::string CountStatement(const std::string& day, const Tallies& tallies) const;
  base::Status ChooseSlot();
  base::Status ApplyTombstones();
  base::Status Delete(const std::string& name);

  Database database_;
  std::string tombstones_;
  EventIds events_;
  std::string day_;
  int slot_ = 0;
  Tallies tallies_;
};

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_INGEST_LEDGER_H_
