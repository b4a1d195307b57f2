#ifndef USAGE_STAT_SRC_STAT_EVENT_WALL_CLOCK_H_
#define USAGE_STAT_SRC_STAT_EVENT_WALL_CLOCK_H_

namespace velmora::usage_stat {

// The real time in milliseconds since 1970.
long long MillisecondsSinceEpoch();

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_SRC_STAT_EVENT_WALL_CLOCK_H_
