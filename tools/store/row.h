// What the database holds, as the programs around it see it.

#ifndef TOOLS_STORE_ROW_H_
#define TOOLS_STORE_ROW_H_

#include <cstdint>
#include <optional>
#include <string>

namespace velmora::usage_stat::store {

// Who sent a datagram, by the kernel's word.
struct Sender {
  std::int64_t pid = 0;
  std::int64_t uid = 0;
};

// A record. Times are milliseconds since the Unix epoch.
struct RecordRow {
  std::int64_t id = 0;  // given by the database; never used twice
  std::int64_t received_ms = 0;
  Sender sender;
  int type = 0;
  std::string event;              // name of the class, such as "ChangePageEvent"
  std::int64_t timestamp_ms = 0;  // the record's own
  std::string fields;             // JSON object, valid UTF-8
  std::string raw;                // the datagram
};

// A datagram that does not read as a record.
struct QuarantineRow {
  std::int64_t id = 0;
  std::int64_t run = 0;  // the run of the collector that received it
  std::int64_t received_ms = 0;
  Sender sender;
  std::string kind;         // one of a few words: see records::Damage::kind
  std::string reason;       // one line for people
  std::optional<int> type;  // type code, when it could be read
  std::string fields;       // JSON object: what could be read
  std::string raw;
};

// One run of a collector.
struct Run {
  std::int64_t id = 0;
  std::int64_t pid = 0;
  std::string endpoint;
  std::int64_t started_ms = 0;
  std::int64_t last_commit_ms = 0;
  std::optional<std::int64_t> ended_ms;  // absent while it runs, and for ever when it was killed
  std::int64_t received = 0;             // datagrams, as counted by the receiving side
};

// What became of the datagrams of one sender in one run:
//
//   outcome "stored"       a record; reason is empty
//   outcome "quarantined"  undecodable; reason is its kind
//   outcome "refused"      counted and kept out; reason tells why
//
// so that a run's `received` is the sum of the three. Beside them stand
//
//   outcome "journal"      records that the collector wrote itself, about its own life
//   outcome "archived"     records that were moved to an archive; reason is the archive's path
//   outcome "deleted"      rows that were deleted; reason is "age" or "size"
//
// and the rows in the database are stored + journal + quarantined - archived - deleted, over all
// runs and senders.
struct Tally {
  std::int64_t run = 0;
  std::int64_t uid = 0;
  std::string outcome;
  std::string reason;
  std::int64_t count = 0;
  std::int64_t last_ms = 0;
};

// A file that closed records were moved to.
struct Archive {
  std::int64_t id = 0;
  std::string path;
  std::string state;  // "begun", "complete", or "deleted"
  std::int64_t created_ms = 0;
  std::int64_t first_record = 0;
  std::int64_t last_record = 0;
  std::int64_t records = 0;
  std::int64_t first_timestamp_ms = 0;  // smallest and largest timestamp in it
  std::int64_t last_timestamp_ms = 0;
  std::int64_t bytes = 0;  // of the compressed file
};

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_ROW_H_
