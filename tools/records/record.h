// One datagram as people and databases want it: a named record, or where and why it is damaged.

#ifndef TOOLS_RECORDS_RECORD_H_
#define TOOLS_RECORDS_RECORD_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tools/records/catalogue.h"

namespace velmora::usage_stat::records {

// A datagram that reads as exactly one record.
struct Record {
  int type = 0;             // type code
  std::string_view event;   // name of the class that read it
  long long timestamp = 0;  // milliseconds since the Unix epoch
  Json values;              // as RecordType::values_of has them
};

// The fields of `record` by name, in wire order.
Json FieldsOf(const Record& record);

// Kinds of damage, in the few fixed words that counts are kept by.
inline constexpr std::string_view kCutShort = "cut short";
inline constexpr std::string_view kLeftOver = "bytes left over";
inline constexpr std::string_view kUnknownType = "unknown type";
inline constexpr std::string_view kOutOfPlace = "value out of place";
inline constexpr std::string_view kShortBatch = "short batch";  // of new books
inline constexpr std::string_view kTooLong = "too long";        // told by collectors alone

// A datagram that reads as none.
struct Damage {
  std::string_view kind;      // one of the words above
  std::string reason;         // for people, one line
  std::size_t offset = 0;     // of the field that could not be read, or of the first byte left over
  std::string field;          // that field's name; empty when bytes are left over
  std::uint64_t missing = 0;  // how many bytes the field lacks
  std::size_t left_over = 0;  // how many bytes follow the record
  std::optional<int> type;    // type code, if it could be read
  std::string_view event;     // name of the class that tried; empty for an unknown type
  Json fields = Json::object();  // what could be read
};

// One event and its class.
struct ReadEvent {
  const RecordType* type;
  std::unique_ptr<Event> event;
};

// Reads one datagram with the library's own classes; nothing when it is damaged.
//
// Two type codes are written by two classes each. For those the shorter class is tried first and
// taken when it consumes the datagram exactly, because the factory would only make the longer one:
// page turns and bare counts of new books would be lost. A batch of new books that holds fewer
// books than its count is damaged, and reported with the books that were there.
std::optional<ReadEvent> Read(std::string_view datagram);

// Whether the record in `datagram` has `value` in a field of this kind, in the rows of its lists
// too. Much faster than reading it when it doesn't.
bool Names(std::string_view datagram, Kind kind, std::int64_t value);

// The same as named values, or as where and why it is damaged.
std::variant<Record, Damage> Decode(std::string_view datagram);

// One field of a datagram, envelope included.
// NOLINTNEXTLINE(bugprone-exception-escape): moving a JSON value checks itself, and throws nothing.
struct TracedField {
  std::size_t offset = 0;
  std::size_t size = 0;
  std::string name;       // such as "books[0].book_id"
  std::string primitive;  // such as "Int32"
  Json value;
};

struct Trace {
  std::string_view event;  // the class that was tried; empty for an unknown type
  std::vector<TracedField> fields;
  std::optional<Damage> damage;
};

// Reads one datagram field by field, as far as it goes.
Trace TraceFields(std::string_view datagram);

// `record` as one object: event, type, timestamp, fields.
Json ToJson(const Record& record);

// The fields by name of a record whose database row holds the datagram `raw`. What the row says in
// `fields`, which anybody can write to a file, counts only when `raw` is no record and `fields` an
// object.
Json FieldsOf(std::string_view fields, std::string_view raw);

// `json` as text that is always valid UTF-8, whatever bytes the texts in it hold. One line unless
// `indent` is given.
std::string Dump(const Json& json, int indent = -1);

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_RECORD_H_
