// Exported functions that report the device.

#include <corvane/corvane.h>

#include "include/usage_stat.h"
#include "src/events/device_events.h"
#include "src/measurements/measurements.h"
#include "src/usage_stat_client/statistics_client.h"

using namespace velmora::usage_stat;

int Stat_SendOrientationEvent(int orientation) {
  OrientationEvent event;
  event.orientation_ = orientation;
  return STAT_SEND(event);
}

int Stat_ForceRotationEvent() {
  ForceRotationEvent event;
  return STAT_SEND(event);
}

int Stat_StatisticsSettingsChanged() {
  StatisticsSettingsChangedEvent event;
  return STAT_SEND(event);
}

// The next two send the wrapped event, not the measurement: the collector knows user-visible
// changes by the activity codes.

int Stat_LangEvent() {
  LanguageMeasurement measurement;
  RefreshConfig(g_corvane.global_config);
  measurement.Measure();
  return STAT_SEND(measurement.event_);
}

int Stat_KeymappingEvent() {
  KeyboradMappingMeasurement measurement;
  RefreshConfig(g_corvane.global_config);
  measurement.Measure();
  return STAT_SEND(measurement.event_);
}
