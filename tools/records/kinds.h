// What the values of fields are, in words: their kinds, and the names of numbers that have some.

#ifndef TOOLS_RECORDS_KINDS_H_
#define TOOLS_RECORDS_KINDS_H_

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "src/stat_event/fields.h"

namespace velmora::usage_stat::records {

inline constexpr std::array kSensitivities = {Sensitivity::kTechnical, Sensitivity::kInteraction,
                                              Sensitivity::kContent, Sensitivity::kIdentifying};

// "technical", "interaction", "content", "identifying".
std::string_view NameOf(Sensitivity sensitivity);

// One word, such as "book_id", by which policies and other programs know the kind.
std::string_view NameOf(Kind kind);

// Whether numbers of this kind tell how many, so that they can be rounded.
bool IsQuantity(Kind kind);

struct NamedValue {
  std::int64_t value;
  std::string name;
};

// The values of a kind that have names, such as 1 "authors" of a library mode; empty for kinds that
// have none. Several names of one value stand in one row: "acontent.app, notes.app".
const std::vector<NamedValue>& NamedValues(Kind kind);

// What a kind with named values is called where it is defined, such as "Stat_LibraryMode"; empty
// for the others.
std::string_view TypeName(Kind kind);

// The name of `value`, such as "authors"; "4 4 6 6" for packed margins; empty when it has none.
std::string ValueName(Kind kind, std::int64_t value);

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_KINDS_H_
