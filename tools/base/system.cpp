#include "tools/base/system.h"

#include <time.h>

#include <cstdlib>

namespace velmora::usage_stat::base {

namespace {

std::int64_t ReadMs(clockid_t clock) {
  timespec now{};
  (void)clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

std::int64_t NowMs() { return ReadMs(CLOCK_REALTIME); }

std::int64_t BootMs() { return ReadMs(CLOCK_BOOTTIME); }

std::string EndpointInUse() {
  const char* name = std::getenv(kEndpointVariable);
  return name && *name ? name : kDefaultEndpoint;
}

std::optional<EndpointAddress> AddressOf(const std::string& name) {
  if (name.empty() || name.size() > kLongestEndpointName) return std::nullopt;
  EndpointAddress result;
  result.address.sun_family = AF_UNIX;
  name.copy(result.address.sun_path + 1, name.size());
  result.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 2);
  return result;
}

}  // namespace velmora::usage_stat::base
