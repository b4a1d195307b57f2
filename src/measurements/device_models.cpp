#include "src/measurements/device_models.h"

#include <cstdlib>
#include <cstring>

namespace velmora::usage_stat {

// The first models carry serial codes, later ones the model's number itself.
const std::array<DeviceModel, 31> kDeviceModels = {{
    {"Velmora Alder", 1},       {"Velmora Alder S", 1},     {"Velmora Aspen", 2},
    {"Velmora Beech", 3},       {"Velmora Birch", 4},       {"Velmora Cedar", 5},
    {"Velmora Cedar S", 5},     {"Velmora Elm", 6},         {"Velmora Fir", 7},
    {"Velmora Hazel", 8},       {"Velmora Holly", 9},       {"Velmora Juniper", 10},
    {"Velmora Larch", 11},      {"Velmora Larch S", 11},    {"Velmora Linden", 12},
    {"Velmora Maple", 13},      {"Velmora Oak", 14},        {"Velmora Pine", 15},
    {"Velmora Pine S", 15},     {"Velmora Poplar", 16},     {"Velmora Rowan", 17},
    {"Velmora Spruce", 18},     {"Velmora Walnut", 19},     {"Velmora Willow", 20},
    {"Velmora Yew", 21},        {"Velmora VR-Alder", 2210}, {"Velmora VR-Alder Plus", 2210},
    {"Velmora VR-Cedar", 2230}, {"Velmora VR-Larch", 3410}, {"Velmora VR-Larch Plus", 3410},
    {"Velmora VR-Yew", 3450},
}};

std::int16_t DeviceModelCode(const char* name) {
  for (const DeviceModel& model : kDeviceModels) {
    if (std::strcmp(model.name, name) == 0) return model.code;
  }
  constexpr std::size_t kPrefixLength = 11;  // of "Velmora VR-", which is not compared
  if (std::strlen(name) <= kPrefixLength) return 0;
  return static_cast<std::int16_t>(std::strtol(name + kPrefixLength, nullptr, 10));
}

}  // namespace velmora::usage_stat
