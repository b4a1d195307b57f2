// The one socket that the process keeps open between messages.
//
// Opening and closing a socket costs several times what sending a small message does, so the first
// message opens a socket for all that follow. It is unconnected: which collector gets a message is
// decided by name at each send, whether that collector has been restarted in between or not.

#ifndef COMMON_UTILITIES_KEPT_SOCKET_H_
#define COMMON_UTILITIES_KEPT_SOCKET_H_

#include "datagram.h"

namespace velmora::utilities {

// Sends without waiting, from any thread. Returns 0 or a positive errno value. Apart from
// ECONNREFUSED a failure may be one of the socket alone (there is none at the moment, its buffer is
// full, something has shut it down), which says nothing about the receiver: a fresh socket may get
// through.
int SendOnKeptSocket(const Datagram& datagram);

}  // namespace velmora::utilities

#endif  // COMMON_UTILITIES_KEPT_SOCKET_H_
