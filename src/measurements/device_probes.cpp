// The probes of language, orientation and software version, and the statistics switch.

#include <corvane/corvane.h>

#include <string>

#include "src/measurements/measurements.h"

namespace velmora::usage_stat {

namespace {

// The device's global configuration, closed again whatever leaves the scope.
class GlobalConfig {
 public:
  GlobalConfig() : handle_(OpenConfig("/mnt/ext1/system/config/global.cfg", 0)) {}
  ~GlobalConfig() { CloseConfigNoSave(handle_); }
  GlobalConfig(const GlobalConfig&) = delete;
  GlobalConfig& operator=(const GlobalConfig&) = delete;

  CorvaneConfig* handle() const { return handle_; }

 private:
  CorvaneConfig* handle_;
};

}  // namespace

int LanguageMeasurement::Measure() {
  const GlobalConfig config;
  event_.language_ = std::string(ReadString(config.handle(), "language", "??"));
  return 0;
}

int OrientationMeasurement::Measure() {
  int orientation = ReadGSensor(nullptr, nullptr, nullptr);
  if (orientation == -1) orientation = GetOrientation();
  event_.orientation_ = orientation;
  return 0;
}

int VersionMeasurement::Measure() {
  if (const char* version = GetSoftwareVersion()) event_.version_ = version;
  return 0;
}

bool IsStatisticsEnabled() {
  const GlobalConfig config;
  return ReadInt(config.handle(), "statistics_enabled", 1) != 0;
}

}  // namespace velmora::usage_stat
