#include "common_utilities/message_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kept_socket.h"

namespace velmora::utilities {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

// Replaces the text of every endpoint's name: a private endpoint for tests and demonstrations.
constexpr const char* kEndpointVariable = "VELMORA_MESSAGE_ENDPOINT";

// A stuck collector must not freeze a page turn.
constexpr std::chrono::milliseconds kLongestWait{100};

class ErrnoKeeper {
 public:
  ErrnoKeeper() : value_(errno) {}
  ~ErrnoKeeper() { errno = value_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int value_;
};

// Best effort: where the system's default buffer is smaller than the message, ask for more.
void MakeRoomForMessage(int descriptor, std::size_t size) {
  int room = 0;
  socklen_t length = sizeof(room);
  constexpr std::size_t kOverhead = 1024;  // the kernel counts its own bookkeeping in
  const int wanted = static_cast<int>(std::min<std::size_t>(size + kOverhead, INT_MAX));
  if (getsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &room, &length) == 0 && room < wanted) {
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof(wanted));
  }
}

// Waits for a full receiver inside the send itself: only there does the kernel wake an unconnected
// sender, and only there does it find a collector that was restarted in the meantime.
int SendWaiting(int descriptor, const Datagram& datagram) {
  const auto deadline = steady_clock::now() + kLongestWait;
  for (;;) {
    const auto left = std::chrono::ceil<microseconds>(deadline - steady_clock::now());
    if (left <= microseconds::zero()) return SendDatagram(descriptor, datagram, MSG_DONTWAIT);
    timeval timeout{};
    timeout.tv_usec = static_cast<suseconds_t>(left.count());
    if (setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) != 0) {
      return errno;
    }
    if (const int error = SendDatagram(descriptor, datagram, 0); error != EINTR) return error;
  }
}

int SendOnFreshSocket(const Datagram& datagram) {
  const int descriptor = OpenDatagramSocket();
  if (descriptor < 0) return errno;
  MakeRoomForMessage(descriptor, datagram.size);
  const int error = SendWaiting(descriptor, datagram);
  close(descriptor);
  return error;
}

}  // namespace

MessageClient::MessageClient() : address_(), address_length_(0), capacity_(0) {}

// The socket belongs to the process, not to the client.
MessageClient::~MessageClient() = default;

int MessageClient::Init(const char* name, unsigned int name_length, unsigned int capacity) {
  if (!name || name_length == 0) return EINVAL;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::size_t length = name_length;
  const char* const text = secure_getenv(kEndpointVariable);
  const bool is_replaced = text && *text != '\0';
  if (is_replaced) {
    length = std::strlen(text) + 2;  // one NUL before the text and one after it
  }
  if (length > sizeof(address.sun_path)) return ENAMETOOLONG;
  if (is_replaced) {
    std::memcpy(address.sun_path + 1, text, length - 2);
  } else {
    std::memcpy(address.sun_path, name, length);
  }

  static_assert(sizeof(address) == kAddressSize);
  static_assert(alignof(sockaddr_un) <= 8);
  std::memcpy(address_, &address, sizeof(address));
  address_length_ = static_cast<unsigned int>(offsetof(sockaddr_un, sun_path) + length);
  capacity_ = capacity;
  return 0;
}

int MessageClient::SendMessage(const char* data, unsigned int size) {
  if (address_length_ == 0) return ENOTCONN;
  if (!data && size != 0) return EINVAL;
  if (size > capacity_) return EMSGSIZE;
  const ErrnoKeeper errno_keeper;
  const Datagram datagram = {reinterpret_cast<const sockaddr*>(address_), address_length_, data,
                             size};
  const int error = SendOnKeptSocket(datagram);
  if (error == 0 || error == ECONNREFUSED) return error;
  const int fresh_error = SendOnFreshSocket(datagram);
  // Without a descriptor to wait on, what the kept socket met is the truth about the receiver.
  const bool out_of_descriptors = fresh_error == EMFILE || fresh_error == ENFILE;
  return out_of_descriptors && error == EAGAIN ? EAGAIN : fresh_error;
}

}  // namespace velmora::utilities
