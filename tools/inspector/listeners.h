// Who listens on an endpoint.

#ifndef TOOLS_INSPECTOR_LISTENERS_H_
#define TOOLS_INSPECTOR_LISTENERS_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora::usage_stat::inspector {

// A process that holds a listening socket.
struct Holder {
  pid_t pid = 0;
  uid_t uid = 0;
  std::string program;  // name of its file; of the process where that can't be read
};

struct Listener {
  bool is_bound = false;        // somebody has the endpoint's name
  std::vector<Holder> holders;  // those that this user may see
};

// Looks the endpoint up among the kernel's sockets, and its socket among the processes'
// descriptors.
Listener FindListener(const std::string& endpoint);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_LISTENERS_H_
