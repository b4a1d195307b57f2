// The one socket that the process keeps open between messages.
//
// Opening and closing a socket costs several times what sending a small message does, so the first
// message opens a socket for all that follow. It is unconnected: which collector gets a message is
// decided by name at each send, whether that collector has been restarted in between or not.

#ifndef COMMON_UTILITIES_KEPT_SOCKET_H_
#define COMMON_UTILITIES_KEPT_SOCKET_H_

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

namespace velmora::utilities {

// One message to one endpoint.
struct Datagram {
  const sockaddr* address;
  socklen_t address_length;
  const char* data;
  std::size_t size;
};

// Returns a descriptor that ends with exec, or -1 with `errno` set.
inline int OpenDatagramSocket() { return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); }

// Returns 0 or a positive errno value; never raises SIGPIPE.
inline int SendDatagram(int descriptor, const Datagram& datagram, int flags) {
  const ssize_t sent = sendto(descriptor, datagram.data, datagram.size, flags | MSG_NOSIGNAL,
                              datagram.address, datagram.address_length);
  return sent < 0 ? errno : 0;
}

// Sends without waiting, from any thread. Returns 0 or a positive errno value. Apart from
// ECONNREFUSED a failure may be one of the socket alone (there is none at the moment, its buffer is
// full, something has shut it down), which says nothing about the receiver: a fresh socket may get
// through.
int SendOnKeptSocket(const Datagram& datagram);

}  // namespace velmora::utilities

#endif  // COMMON_UTILITIES_KEPT_SOCKET_H_
