// The models of the device family and their codes in records.

#ifndef MEASUREMENTS_DEVICE_MODELS_H_
#define MEASUREMENTS_DEVICE_MODELS_H_

#include <array>
#include <cstdint>

namespace velmora::usage_stat {

struct DeviceModel {
  char name[24];
  std::int16_t code;
};

// Searched in this order. Names that share a code are aliases of one device.
extern const std::array<DeviceModel, 31> kDeviceModels;

// The code of the model called `name`: that of its row, or else the number that follows the
// family's 11-character prefix, or 0. Not null.
std::int16_t DeviceModelCode(const char* name);

}  // namespace velmora::usage_stat

#endif  // MEASUREMENTS_DEVICE_MODELS_H_
