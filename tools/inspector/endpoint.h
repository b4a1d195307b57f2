// The endpoint that collectors listen on.

#ifndef TOOLS_INSPECTOR_ENDPOINT_H_
#define TOOLS_INSPECTOR_ENDPOINT_H_

#include <string>

#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::inspector {

void AddEndpointOption(Command command, std::string* endpoint);

// Leads everything that this process sends to `endpoint`; leaves things as they are when it is
// empty.
void UseEndpoint(const std::string& endpoint);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_ENDPOINT_H_
