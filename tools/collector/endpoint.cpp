#include "tools/collector/endpoint.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace velmora::usage_stat::collector {

namespace {

// The kernel's word on who sent a message. Without one it is nobody.
store::Sender SenderOf(msghdr* message) {
  constexpr std::int64_t kNobody = 65534;
  for (cmsghdr* part = CMSG_FIRSTHDR(message); part; part = CMSG_NXTHDR(message, part)) {
    if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS) {
      ucred credentials{};
      std::memcpy(&credentials, CMSG_DATA(part), sizeof(credentials));
      return {credentials.pid, credentials.uid};
    }
  }
  return {0, kNobody};
}

}  // namespace

base::Status Endpoint::Bind(const std::string& name) {
  const auto address = base::AddressOf(name);
  if (!address) {
    return base::Status::Failed("the endpoint's name must have 1 to " +
                                std::to_string(base::kLongestEndpointName) + " bytes");
  }
  socket_ = base::Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket_.is_open()) return base::Status::Errno("cannot create a socket");
  // Before the address is known to anybody, so that no datagram comes without its sender.
  const int on = 1;
  if (setsockopt(socket_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) {
    return base::Status::Errno("cannot ask for the senders' credentials");
  }
  if (bind(socket_.get(), address->get(), address->length) != 0) {
    if (errno == EADDRINUSE) {
      return base::Status::Failed("another process listens on the endpoint " + name);
    }
    return base::Status::Errno("cannot bind the endpoint " + name);
  }
  return {};
}

Endpoint::Result Endpoint::Receive(const std::function<bool(const store::Sender&)>& may_send,
                                   Datagram* datagram) {
  // Room for the credentials and nothing more: descriptors that a stranger sends along do not fit,
  // so the kernel closes them instead of opening them here.
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  iovec part{buffer_.data(), buffer_.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);

  ssize_t size = 0;
  do {
    size = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);
  } while (size < 0 && errno == EINTR);
  if (size < 0) return errno == EAGAIN ? Result::kEmpty : Result::kFailed;

  datagram->size = static_cast<std::size_t>(size);
  datagram->sender = SenderOf(&message);
  datagram->is_refused = !may_send(datagram->sender);
  if (!datagram->is_refused) {
    datagram->bytes.assign(buffer_.data(), std::min(datagram->size, buffer_.size()));
  }
  datagram->received_ms = base::NowMs();
  return Result::kDatagram;
}

void Endpoint::Wait(int other) const {
  std::array<pollfd, 2> waiting{{{socket_.get(), POLLIN, 0}, {other, POLLIN, 0}}};
  (void)poll(waiting.data(), waiting.size(), -1);
}

void Endpoint::Shut() { (void)shutdown(socket_.get(), SHUT_RD); }

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
