// One message to one endpoint, and the two system calls that every way of sending it shares.

#ifndef COMMON_UTILITIES_DATAGRAM_H_
#define COMMON_UTILITIES_DATAGRAM_H_

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>

namespace velmora::utilities {

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

}  // namespace velmora::utilities

#endif  // COMMON_UTILITIES_DATAGRAM_H_
