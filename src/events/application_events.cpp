#include "src/events/application_events.h"

namespace velmora::usage_stat {

STAT_DEFINE_STREAM_OPERATIONS(StartApplicationEvent)
STAT_DEFINE_STREAM_OPERATIONS(StartOutsideApplicationEvent)

}  // namespace velmora::usage_stat
