#include "tools/collector/readiness.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tools/base/system.h"

namespace velmora::usage_stat::collector {

void AnnounceReadiness() {
  const char* name = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string_view path(name ? name : "");
  if (path.empty() || path.size() >= sizeof(address.sun_path)) return;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path.front() == '@') address.sun_path[0] = '\0';
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

  constexpr std::string_view kReady = "READY=1";
  const base::Descriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  (void)sendto(manager.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), length);
}

}  // namespace velmora::usage_stat::collector
