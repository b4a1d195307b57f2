// The smallest collector: prints the records that applications send, and the pages that they turn.

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include "src/events/events.h"

using namespace velmora::usage_stat;

int main() {
  const sockaddr_un endpoint{AF_UNIX, "\0usage_stat_event1"};  // with the NUL at its end: 19 bytes
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  const auto* address = reinterpret_cast<const sockaddr*>(&endpoint);
  if (bind(socket, address, offsetof(sockaddr_un, sun_path) + 19) != 0) {
    std::perror("cannot listen; does another collector run?");
    return 1;
  }
  static char record[102400];  // no record is longer
  for (ssize_t size; (size = recv(socket, record, sizeof record, 0)) >= 0; std::fflush(stdout)) {
    std::istringstream in(std::string(record, static_cast<std::size_t>(size)));
    ChangePageEvent turn;  // one of the two types that have a shorter record as well
    if (size == 28 && std::memcmp(record, "\xf0\x07", 2) == 0 && in.seekg(10) &&
        turn.ReadStateFromStream(in) == 0) {
      std::printf("from page %d to %d\n", turn.c_, turn.d_);
    } else if (const std::unique_ptr<Event> event(Event::CreateFromStream(in)); event) {
      std::printf("a record of type %d\n", static_cast<int>(event->type_));
    }
  }
  return 1;
}
