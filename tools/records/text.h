// Records as text for people.

#ifndef TOOLS_RECORDS_TEXT_H_
#define TOOLS_RECORDS_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/records/json.h"

namespace velmora::usage_stat::records {

struct RecordType;

// `text` with every character that a terminal could obey, and every byte that is no UTF-8, written
// as an escape: control characters, and those that change the direction of writing.
std::string Printable(std::string_view text);

// `json` on one line, printable.
std::string PrintableJson(const Json& json);

// `json` as JSON in which no character can be obeyed by a terminal; one line unless `indent` is
// given.
std::string SafeJson(const Json& json, int indent = -1);

// The values of a record on one line, each after a blank, with the names of those that have one:
// " book_id=5 library_mode=1(authors)". Printable.
std::string FieldsLine(const RecordType& type, const Json& values);

// A moment, in local time: "2026-11-24 19:00:49.123"; seconds since the epoch,
// "@99999999999999.000", when its year is beyond what the calendar of this machine knows.
std::string LocalTime(std::int64_t ms);

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_TEXT_H_
