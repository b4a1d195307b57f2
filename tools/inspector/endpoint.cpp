#include "tools/inspector/endpoint.h"

#include <cstdlib>

namespace velmora::usage_stat::inspector {

namespace {

// The transport's own way to be led elsewhere.
constexpr const char* kVariable = "VELMORA_MESSAGE_ENDPOINT";
constexpr const char* kDefault = "usage_stat_event1";

}  // namespace

void AddEndpointOption(Command command, std::string* endpoint) {
  command.Option("--endpoint", "NAME",
                 std::string("Name of the collector's endpoint (default: $") + kVariable +
                     ", else " + kDefault + ")",
                 endpoint);
}

void UseEndpoint(const std::string& endpoint) {
  if (!endpoint.empty()) setenv(kVariable, endpoint.c_str(), 1);
}

std::string EndpointInUse() {
  const char* endpoint = std::getenv(kVariable);
  return endpoint && *endpoint ? endpoint : kDefault;
}

}  // namespace velmora::usage_stat::inspector
