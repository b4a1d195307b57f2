#include "tools/store/file.h"

#include <cerrno>
#include <chrono>
#include <cstring>

namespace velmora::usage_stat::store {

Status ErrnoStatus(const std::string& what) {
  return Status::Failed(what + ": " + std::strerror(errno));
}

std::string ImmutableUri(const std::string& path) {
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      uri += {'%', kHex[c >> 4], kHex[c & 0xf]};
    } else {
      uri += c;
    }
  }
  return uri + "?immutable=1";
}

std::int64_t NowMs() {
  using std::chrono::milliseconds;
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace velmora::usage_stat::store
