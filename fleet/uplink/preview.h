// usage-stat-uplink preview: what the next batch would hold, and what it was made of.

#ifndef FLEET_UPLINK_PREVIEW_H_
#define FLEET_UPLINK_PREVIEW_H_

#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::uplink {

void AddPreview(CommandLine* line);

}  // namespace velmora::usage_stat::uplink

#endif  // FLEET_UPLINK_PREVIEW_H_
