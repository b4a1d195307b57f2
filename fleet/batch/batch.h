// The unit that travels from a device to the fleet: a closed interval of record numbers, with every
// number in it either a record or a run with the reason why it is not. docs/batch.md describes the
// bytes for readers in other languages.

#ifndef FLEET_BATCH_BATCH_H_
#define FLEET_BATCH_BATCH_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::usage_stat::fleet {

using Id = std::array<std::uint8_t, 16>;  // random: a batch's, a store's, a policy's

// A message to the fleet is never larger, nor what it unpacks to.
constexpr std::size_t kLargestMessage = std::size_t{256} * 1024;
constexpr std::size_t kLargestContent = std::size_t{2} * 1024 * 1024;

// Under which consent the records leave.
enum class Level : std::uint8_t { kNone = 0, kBasic = 1, kFull = 2 };

// Why a number is no record of the batch. Readers keep codes that they do not know.
enum class Reason : std::uint8_t {
  kRetention = 1,   // deleted on the device before it was sent
  kErased = 2,      // erased by the user
  kUnreadable = 3,  // in an archive, or a row, that can't be read
  kWithheld = 4,    // not let through by policy or consent
  kNeverUsed = 5,   // the number was never given to a record
};

// What was done to one field of all records of a shape.
enum class Action : std::uint8_t { kKeep = 0, kDrop = 1, kCoarsen = 2, kPseudonym = 3 };

// Records of one type that are written alike.
struct Shape {
  std::int16_t type = 0;
  std::string layout;   // one letter for each piece of the payload, see columns.h
  std::string actions;  // one Action for each field in the dictionary's order; what lacks is kept

  bool operator==(const Shape&) const = default;
};

struct BatchRecord {
  std::uint64_t number = 0;       // unique within its store
  std::size_t shape = 0;          // index into Batch::shapes
  std::int64_t timestamp_ms = 0;  // since the Unix epoch, by the device's clock
  std::string payload;            // as in the datagram, after its type and timestamp
};

// Numbers first..last that are no records.
struct Run {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  Reason reason = Reason::kRetention;
};

// The device's clock was set: it moved by `step_ms` before `record` was received.
struct ClockStep {
  std::uint64_t record = 0;
  std::int64_t step_ms = 0;
};

struct Batch {
  Id id{};
  Id store{};
  std::uint64_t store_first = 0;  // the store's first number, at least 1
  std::uint64_t after = 0;        // at least store_first - 1
  std::uint64_t through = 0;      // equal to `after` in a batch that only asks
  Level level = Level::kNone;
  Id policy{};
  std::int64_t sent_ms = 0;            // the device's clock, as exact as the level allows
  std::vector<Run> runs;               // ascending, apart from each other
  std::vector<ClockStep> clock_steps;  // ascending, within the interval
  std::vector<Shape> shapes;           // those of the records
  std::vector<BatchRecord> records;    // ascending

  bool is_question() const { return after == through; }
};

// What the bytes are worth.
enum class Verdict {
  kGood,
  kMalformed,  // no well-formed batch, whoever reads it
  kNewer,      // of a version that this reader does not know
};

struct Decoded {
  Verdict verdict = Verdict::kMalformed;
  std::string problem;  // for people; empty when the batch is good
  Batch batch;
};

// `batch` as a message, into `message`; or what is wrong with it, when it does not add up or would
// be larger than kLargestMessage. Equal batches give equal bytes.
std::string Encode(const Batch& batch, std::string* message);

// Reads what anybody may have written, in time and memory in proportion to what the message itself
// declares, which is at most kLargestContent.
Decoded Decode(std::string_view message);

// ---- Receipts ----

enum class Answer : std::uint8_t {
  kStored = 0,     // the batch of this id is in the database, now or since long
  kCursor = 1,     // it is not: go on from `cursor`; the answer to a question, or to a gap
  kForked = 2,     // another copy of this store has gone on from here
  kRefused = 3,    // the batch is malformed, or larger than the fleet takes
  kLater = 4,      // nothing is wrong with it, yet it can't be taken now
  kForgotten = 5,  // the device is forgotten, and all that the fleet held of it is gone
};

struct Receipt {
  Id batch{};
  Answer answer = Answer::kRefused;
  Id store{};
  std::uint64_t cursor = 0;  // the last number of the store that the fleet has accounted for
};

std::string EncodeReceipt(const Receipt& receipt);
// False when `message` is no receipt.
bool DecodeReceipt(std::string_view message, Receipt* receipt);

// A request to forget the device, which travels where batches do.
std::string EncodeForget(const Id& request);
bool DecodeForget(std::string_view message, Id* request);

// `id` as 32 lower-case hexadecimal digits, and back.
std::string ToText(const Id& id);
bool FromText(std::string_view text, Id* id);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_BATCH_BATCH_H_
