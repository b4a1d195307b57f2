// Which numbers of a table may be told. A number about few people could be about somebody that a
// reader of the table knows; one that can be worked out from its neighbours is as good as told.

#ifndef FLEET_LAKE_CELLS_H_
#define FLEET_LAKE_CELLS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::usage_stat::fleet {

// A number about fewer devices than these is not told.
constexpr std::int64_t kLeastDevices = 20;

struct Cell {
  std::string name;
  std::int64_t devices = 0;
};

// The parts of a whole in which each device counts once, largest first. Parts of fewer than
// kLeastDevices share one, called "other", together with the smallest of the rest while "other"
// would still be about too few: nobody finds a small part by subtracting the others from the
// whole. Empty when the whole is too small.
std::vector<Cell> TellParts(std::vector<Cell> parts);

// How much of a whole may be told of `devices` out of `all`. The rest of the whole counts too: that
// all but three do a thing says who doesn't.
enum class Share { kTold, kFew, kNearlyAll, kNothing };
Share TellShare(std::int64_t devices, std::int64_t all);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_LAKE_CELLS_H_
