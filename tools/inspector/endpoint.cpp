#include "tools/inspector/endpoint.h"

#include <cstdlib>

#include "tools/base/system.h"

namespace velmora::usage_stat::inspector {

void AddEndpointOption(Command command, std::string* endpoint) {
  command.Option("--endpoint", "NAME",
                 std::string("Name of the collector's endpoint (default: $") +
                     base::kEndpointVariable + ", else " + base::kDefaultEndpoint + ")",
                 endpoint);
}

void UseEndpoint(const std::string& endpoint) {
  if (!endpoint.empty()) setenv(base::kEndpointVariable, endpoint.c_str(), 1);
}

}  // namespace velmora::usage_stat::inspector
