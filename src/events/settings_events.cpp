#include "src/events/settings_events.h"

namespace velmora::usage_stat {

STAT_DEFINE_STREAM_OPERATIONS(LibrarySettingsEvent)
STAT_DEFINE_STREAM_OPERATIONS(MediaExplorerSettingsEvent)
STAT_DEFINE_STREAM_OPERATIONS(ApplicationExplorerSettingsEvent)
STAT_DEFINE_STREAM_OPERATIONS(Explorer3SettingsEvent)
STAT_DEFINE_STREAM_OPERATIONS(MediaExplorer3SettingsEvent)

}  // namespace velmora::usage_stat
