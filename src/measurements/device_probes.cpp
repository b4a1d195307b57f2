// The probes of language, orientation and software version, and the statistics switch.

#include <corvane/corvane.h>

#include <string>

#include "src/measurements/measurements.h"

namespace velmora::usage_stat {

namespace {

constexpr char kGlobalConfig[] = "/mnt/ext1/system/config/global.cfg";

// Closes the configuration when it goes, however that comes about.
struct ConfigCloser {
  ~ConfigCloser() {
    if (text) CloseConfigNoSave(config);
  }
  CorvaneConfig* const config;
  const char* const text;  // what was read from it; null leaves it open
};

}  // namespace

int LanguageMeasurement::Measure() {
  CorvaneConfig* config = OpenConfig(kGlobalConfig, 0);
  const char* const language = ReadString(config, "language", "??");
  // A null text raises and leaves the handle open; a platform that gives one has broken its
  // promise. Memory that runs out does not.
  const ConfigCloser closer{config, language};
  event_.language_ = std::string(language);
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
  CorvaneConfig* config = OpenConfig(kGlobalConfig, 0);
  const int enabled = ReadInt(config, "statistics_enabled", 1);
  CloseConfigNoSave(config);
  return enabled != 0;
}

}  // namespace velmora::usage_stat
