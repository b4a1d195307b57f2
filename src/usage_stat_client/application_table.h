// The applications of the device, known by their names.

#ifndef USAGE_STAT_CLIENT_APPLICATION_TABLE_H_
#define USAGE_STAT_CLIENT_APPLICATION_TABLE_H_

#include <optional>
#include <string_view>

#include "include/usage_stat.h"

namespace velmora::usage_stat {

// The id of the store on devices of no known partner.
constexpr Stat_ApplicationId kDefaultStoreId = 4;

// The id of the application called `name`, stores apart. Exact and case-sensitive.
std::optional<Stat_ApplicationId> KnownApplicationId(std::string_view name);

// Whether `name` is one of the names of the store, which differ between partners in their id only.
bool IsStoreName(std::string_view name);

// The id that the store has on devices of the partner called `partner`.
Stat_ApplicationId StoreIdOfPartner(std::string_view partner);

// Whether `name` is that of a book reader.
bool IsReaderName(std::string_view name);

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_APPLICATION_TABLE_H_
