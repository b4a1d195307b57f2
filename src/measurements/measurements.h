// The measurements, their probes, and all else that this unit has: the models of devices, the key
// actions and the maker of initialisation vectors.
//
// Each Measure() fills the wrapped event from the device and returns 0. Texts that the platform
// must not return null for (language, partner name, serial number) raise std::logic_error when it
// does.

#ifndef MEASUREMENTS_MEASUREMENTS_H_
#define MEASUREMENTS_MEASUREMENTS_H_

#include <vector>

#include "src/events/events.h"
#include "src/measurements/device_models.h"
#include "src/measurements/key_actions.h"
#include "src/measurements/measurement.h"
#include "src/measurements/statistics_switch.h"

// 16 random bytes of the kernel for a cipher; fewer after a short read, none, logged, when the
// source can't be opened or read. Each call keeps one descriptor open.
//
// At global scope: its signature text in log lines carries no namespace.
std::vector<unsigned char> GenerateIV();

namespace velmora::usage_stat {

class OrientationMeasurement
    : public Measurement<OrientationEvent, EventFactory::kOrientationMeasurement> {
 public:
  int Measure();
};

// The class is known by this spelling throughout the system.
class KeyboradMappingMeasurement
    : public Measurement<KeyboardSettingsEvent, EventFactory::kKeyboardMappingMeasurement> {
 public:
  int Measure();

 private:
  // Appends the assignments of mapping set `set` (0 to 2) to `mapping`.
  void FillList(int set, std::vector<Keymapping>* mapping);
};

class LanguageMeasurement
    : public Measurement<LanguageChangeEvent, EventFactory::kLanguageMeasurement> {
 public:
  int Measure();
};

class DeviceInfoMeasurement
    : public Measurement<DeviceInfoEvent, EventFactory::kDeviceInfoMeasurement> {
 public:
  int Measure();
};

class VersionMeasurement : public Measurement<VersionEvent, EventFactory::kVersionMeasurement> {
 public:
  int Measure();
};

}  // namespace velmora::usage_stat

#endif  // MEASUREMENTS_MEASUREMENTS_H_
