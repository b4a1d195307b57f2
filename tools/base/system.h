// What the operating system gives: descriptors, clocks, and the endpoint of the records.

#ifndef TOOLS_BASE_SYSTEM_H_
#define TOOLS_BASE_SYSTEM_H_

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "src/usage_stat_client/statistics_client.h"
#include "tools/base/status.h"

namespace velmora::usage_stat::base {

// An open descriptor that is closed with its owner.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() { Reset(); }
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset();
    descriptor_ = std::exchange(other.descriptor_, -1);
    return *this;
  }

  bool is_open() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  void Reset() {
    if (is_open()) close(std::exchange(descriptor_, -1));
  }

 private:
  int descriptor_ = -1;
};

// Milliseconds since the Unix epoch, as far as anybody has set the clock.
std::int64_t NowMs();

// Milliseconds since the device was started, sleep included. Nobody can set it.
std::int64_t BootMs();

// ---- Files ----

// Puts a file with `text` in the place of `path`, on the disk and all at once: whoever reads it
// finds the old or the new one. Uses `path`.new meanwhile.
Status ReplaceFile(const std::string& path, std::string_view text, mode_t mode);

// ---- The endpoint ----

// The environment variable that leads the transport to another endpoint.
inline constexpr const char* kEndpointVariable = "VELMORA_MESSAGE_ENDPOINT";

// The endpoint that the library sends to: the text between the two NULs of an abstract name.
inline constexpr const char* kDefaultEndpoint = kStatisticsEndpoint + 1;

// The largest message that the library sends, in bytes.
inline constexpr std::size_t kLargestMessage = kLargestStatisticsMessage;

// The text of the endpoint in use: the variable's, or the default.
std::string EndpointInUse();

// The address of the endpoint NUL, `name`, NUL.
struct EndpointAddress {
  sockaddr_un address{};
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};
inline constexpr std::size_t kLongestEndpointName = sizeof(sockaddr_un::sun_path) - 2;

// Nothing for a name that is empty or longer than kLongestEndpointName bytes.
std::optional<EndpointAddress> AddressOf(const std::string& name);

}  // namespace velmora::usage_stat::base

#endif  // TOOLS_BASE_SYSTEM_H_
