// What the database holds, as the programs around it see it.

#ifndef TOOLS_STORE_ROW_H_
#define TOOLS_STORE_ROW_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::usage_stat::store {

// A name in the database for each of a few values, in the order of their enumeration.
template <class Value, std::size_t kSize>
constexpr std::optional<Value> ValueNamed(const std::array<std::string_view, kSize>& names,
                                          std::string_view name) {
  for (std::size_t i = 0; i < kSize; ++i) {
    if (names[i] == name) return static_cast<Value>(i);
  }
  return std::nullopt;
}

// Who sent a datagram, by the kernel's word.
struct Sender {
  std::int64_t pid = 0;
  std::int64_t uid = 0;
};

// A record. Times are milliseconds since the Unix epoch.
struct RecordRow {
  std::int64_t id = 0;  // its number, given by the database; never used twice
  std::int64_t received_ms = 0;
  Sender sender;
  int type = 0;
  std::string event;              // name of the class, such as "ChangePageEvent"
  std::int64_t timestamp_ms = 0;  // the record's own
  // JSON, valid UTF-8: an array of the values in wire order, lists in it as arrays; an object by
  // name when it comes from a file of the first schema. records::FieldsOf() gives names to both.
  std::string fields;
  std::string raw;  // the datagram
};

// A datagram that does not read as a record.
struct QuarantineRow {
  std::int64_t id = 0;
  std::int64_t run = 0;  // the run of the collector that received it
  std::int64_t received_ms = 0;
  Sender sender;
  std::string kind;         // one of a few words: see tools/records/record.h
  std::string reason;       // one line for people
  std::optional<int> type;  // type code, when it could be read
  std::int64_t size = 0;    // bytes that were sent
  std::string raw;          // as many of them as are kept
};

// One run of a collector.
struct Run {
  std::int64_t id = 0;
  std::int64_t pid = 0;
  std::string endpoint;
  std::int64_t started_ms = 0;
  std::int64_t last_commit_ms = 0;
  std::optional<std::int64_t> ended_ms;  // absent while it runs, and for ever when it was killed
  std::int64_t received = 0;             // datagrams
};

// What became of a datagram, or of a row.
enum class Outcome {
  kStored,       // a record; the reason is empty
  kQuarantined,  // undecodable; the reason is its kind
  kRefused,      // counted and kept out; the reason tells why
  kOff,          // came while collecting was switched off
  kOwn,          // no datagram: a record that the collector wrote itself, about its own life
  kArchived,     // rows that were moved to an archive; the reason is the archive's path
  kDeleted,      // rows that were deleted, or never made; the reason is one of the words below
};
inline constexpr std::array<std::string_view, 7> kOutcomeNames = {
    "stored", "quarantined", "refused", "off", "own", "archived", "deleted"};
constexpr std::string_view NameOf(Outcome outcome) {
  return kOutcomeNames[static_cast<std::size_t>(outcome)];
}
constexpr std::optional<Outcome> OutcomeNamed(std::string_view name) {
  return ValueNamed<Outcome>(kOutcomeNames, name);
}

// The reason of Outcome::kRefused.
inline constexpr const char* kUserNotAllowed = "user not allowed";

// Reasons of Outcome::kDeleted.
inline constexpr std::string_view kByAge = "age";
inline constexpr std::string_view kBySize = "size";
inline constexpr std::string_view kByFlood = "flood";  // undecodable, beyond what is kept of such
inline constexpr std::string_view kByErasing = "erased";

// What became of the datagrams of one sender in one run. A run's `received` is the sum of its
// stored, quarantined, refused and off, and the rows in the database are
//
//   stored + own + quarantined - archived - deleted
//
// over all runs and senders.
struct Tally {
  std::int64_t run = 0;
  std::int64_t uid = 0;
  Outcome outcome = Outcome::kStored;
  std::string reason;
  std::int64_t count = 0;
  std::int64_t last_ms = 0;
};

enum class ArchiveState {
  kBegun,     // its file may be there, its records are in the database still
  kComplete,  // its records are in its file alone
  kDeleted,   // its file is gone
};
inline constexpr std::array<std::string_view, 3> kArchiveStateNames = {"begun", "complete",
                                                                       "deleted"};
constexpr std::string_view NameOf(ArchiveState state) {
  return kArchiveStateNames[static_cast<std::size_t>(state)];
}

// A file that closed records were moved to.
struct Archive {
  std::int64_t id = 0;
  std::string path;
  ArchiveState state = ArchiveState::kBegun;
  int schema = 0;  // of the database in it
  std::int64_t created_ms = 0;
  std::int64_t first_record = 0;
  std::int64_t last_record = 0;
  std::int64_t records = 0;
  std::int64_t first_timestamp_ms = 0;  // smallest and largest timestamp in it
  std::int64_t last_timestamp_ms = 0;
  std::int64_t bytes = 0;  // of the compressed file
};

// Records are named by a store and a number in it. A database begins a new store where numbers may
// have been given before to records that were lost: with the file, and at every start after a run
// that did not end in order.
inline constexpr std::size_t kStoreIdSize = 16;
struct Store {
  std::string id;  // kStoreIdSize random bytes
  std::int64_t first_record = 0;
};

// Why numbers have no record any more.
enum class Absence { kRetention, kErased, kUnreadable };
inline constexpr std::array<std::string_view, 3> kAbsenceNames = {"retention", "erased",
                                                                  "unreadable"};
constexpr std::string_view NameOf(Absence absence) {
  return kAbsenceNames[static_cast<std::size_t>(absence)];
}

// A run of numbers without records.
struct Missing {
  std::int64_t first_record = 0;
  std::int64_t last_record = 0;
  Absence reason = Absence::kRetention;
};

// The wall clock was set by more than a minute before this record came.
struct ClockStep {
  std::int64_t record = 0;
  std::int64_t wall_ms = 0;  // after the step
  std::int64_t step_ms = 0;  // forward, or negative
};

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_ROW_H_
