// The smallest collector: prints every record that applications send, and the pages that they turn.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "src/events/events.h"

using velmora::usage_stat::ChangePageEvent;
using velmora::usage_stat::Event;

int main() {
  constexpr char kEndpoint[] = "\0usage_stat_event1";  // with the NUL at its end, which counts
  constexpr std::size_t kEnvelope = 10;                // bytes of a type code and a timestamp

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kEndpoint, sizeof kEndpoint);
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (bind(socket, reinterpret_cast<sockaddr*>(&address),
           offsetof(sockaddr_un, sun_path) + sizeof kEndpoint) != 0) {
    std::perror("cannot listen; does another collector run?");
    return 1;
  }

  std::string datagram(102400, '\0');  // no record is longer
  for (ssize_t size; (size = recv(socket, datagram.data(), datagram.size(), 0)) >= 0;) {
    const std::string record = datagram.substr(0, static_cast<std::size_t>(size));
    std::istringstream in(record);
    // Two types have a shorter record too, which only its own class reads; this is one of them.
    ChangePageEvent turn;
    in.seekg(kEnvelope);
    if (record.size() == 28 && record.compare(0, 2, "\xf0\x07") == 0 &&
        turn.ReadStateFromStream(in) == 0) {
      std::printf("from page %d to %d\n", turn.c_, turn.d_);
    } else {
      std::istringstream whole(record);
      const std::unique_ptr<Event> event(Event::CreateFromStream(whole));
      if (event != nullptr) std::printf("a record of type %d\n", static_cast<int>(event->type_));
    }
    std::fflush(stdout);
  }
  std::perror("cannot receive");
  return 1;
}
