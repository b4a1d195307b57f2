// A receiver for tests: a real datagram socket on an endpoint that no other test uses.

#ifndef USAGE_STAT_TESTS_SUPPORT_RECEIVER_H_
#define USAGE_STAT_TESTS_SUPPORT_RECEIVER_H_

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace usage_stat_test {

// The variable that leads every MessageClient of the process, and of its children, to an endpoint.
constexpr const char* kEndpointVariable = "VELMORA_MESSAGE_ENDPOINT";

class Receiver {
 public:
  // Listens on a new private endpoint.
  Receiver() : Receiver(UniqueEndpoint()) {}
  // Listens on the endpoint with this text, as the collector's --endpoint takes it.
  explicit Receiver(std::string endpoint) : endpoint_(std::move(endpoint)) { Start(); }
  ~Receiver() {
    Stop();
    if (announced_) unsetenv(kEndpointVariable);
  }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  static std::string UniqueEndpoint() {
    static std::atomic<int> count{0};
    return "usage_stat_test." + std::to_string(getpid()) + "." + std::to_string(++count);
  }

  const std::string& endpoint() const { return endpoint_; }
  // The name as MessageClient::Init takes it, both NULs included.
  std::string name() const { return '\0' + endpoint_ + '\0'; }
  int descriptor() const { return descriptor_; }

  // Leads everything that the process sends here, until the receiver is destroyed.
  void Announce() {
    setenv(kEndpointVariable, endpoint_.c_str(), 1);
    announced_ = true;
  }

  // A collector that ends, and one that (re)starts.
  void Stop() {
    if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
  }
  void Start() {
    Stop();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = name();
    if (path.size() > sizeof(address.sun_path)) {
      throw std::invalid_argument("endpoint too long: " + endpoint_);
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    descriptor_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
      throw std::runtime_error("cannot bind the endpoint " + endpoint_);
    }
  }

  // The next message; nothing when none comes within `wait_ms`. The default only bounds how long a
  // failing test hangs.
  std::optional<std::string> Receive(int wait_ms = 10'000) {
    pollfd waiting{descriptor_, POLLIN, 0};
    if (poll(&waiting, 1, wait_ms) != 1) return std::nullopt;
    std::string message(kLargestMessage, '\0');
    const ssize_t size = recv(descriptor_, message.data(), message.size(), MSG_DONTWAIT);
    if (size < 0) return std::nullopt;
    message.resize(static_cast<std::size_t>(size));
    return message;
  }
  // The next message that has already arrived.
  std::optional<std::string> TryReceive() { return Receive(0); }

 private:
  static constexpr std::size_t kLargestMessage = 256 * 1024;

  std::string endpoint_;
  int descriptor_ = -1;
  bool announced_ = false;
};

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_RECEIVER_H_
