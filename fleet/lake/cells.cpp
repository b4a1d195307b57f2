#include "fleet/lake/cells.h"

#include <algorithm>
#include <numeric>

namespace velmora::usage_stat::fleet {

std::vector<Cell> TellParts(std::vector<Cell> parts) {
  std::sort(parts.begin(), parts.end(), [](const Cell& a, const Cell& b) {
    return a.devices != b.devices ? a.devices > b.devices : a.name < b.name;
  });
  std::int64_t others = 0;
  while (!parts.empty() &&
         (parts.back().devices < kLeastDevices || (others > 0 && others < kLeastDevices))) {
    others += parts.back().devices;
    parts.pop_back();
  }
  if (others >= kLeastDevices) parts.push_back({"other", others});
  return parts;
}

Share TellShare(std::int64_t devices, std::int64_t all) {
  if (all < kLeastDevices) return Share::kNothing;
  if (devices < kLeastDevices) return Share::kFew;
  return all - devices < kLeastDevices ? Share::kNearlyAll : Share::kTold;
}

}  // namespace velmora::usage_stat::fleet
