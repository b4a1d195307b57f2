// The one question about the device that programs beside the library ask, too.

#ifndef MEASUREMENTS_STATISTICS_SWITCH_H_
#define MEASUREMENTS_STATISTICS_SWITCH_H_

namespace velmora::usage_stat {

// Whether the device's global configuration allows statistics; it does unless it says otherwise.
bool IsStatisticsEnabled();

}  // namespace velmora::usage_stat

#endif  // MEASUREMENTS_STATISTICS_SWITCH_H_
