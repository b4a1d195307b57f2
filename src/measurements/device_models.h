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

// The code of the model called `name`: that of its row, or else the low 16 bits of the number after
// its first 11 characters, whatever these are, or 0. Not null. (Of a number beyond the range of
// long the low bits are those of its limit, which differs between the device and a workstation.)
std::int16_t DeviceModelCode(const char* name);

}  // namespace velmora::usage_stat

#endif  // MEASUREMENTS_DEVICE_MODELS_H_
