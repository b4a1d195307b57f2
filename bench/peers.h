// The other ways to tell a local daemon that something happened, each with a receiver of its own
// that takes what arrives and throws it away.

#ifndef BENCH_PEERS_H_
#define BENCH_PEERS_H_

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child.h"

namespace bench {

using usage_stat_test::Child;

// A child process that takes all datagrams from the address, and polls while ReceiversStayAwake().
std::unique_ptr<Child> DrainDatagrams(const sockaddr* address, socklen_t length);
// The same at the abstract endpoint NUL, `endpoint`, NUL.
std::unique_ptr<Child> DrainEndpoint(const std::string& endpoint);

struct Sender {
  std::string name;
  std::function<void()> call;
};

// What any sender of `bytes` to `endpoint` must do at least: read the clock, and hand the bytes to
// the kernel on a socket that is open already.
Sender Floor(const std::string& endpoint, const std::string& bytes);
// The same with a look at the descriptor before, whether it is still the one that was opened.
Sender FloorWithLook(const std::string& endpoint, const std::string& bytes);
// The same as the floor with a socket opened, connected and closed for each message.
Sender PlainSocketContract(const std::string& endpoint, const std::string& bytes);

// What applications use instead: the journal, syslog, a D-Bus signal and a statsd counter, sending
// the fields of a page turn. Journal and syslog have fixed addresses in the file system, so their
// receivers need /run and /dev to be this process's own; see in-private-mounts.
std::vector<Sender> StartPeers();

}  // namespace bench

#endif  // BENCH_PEERS_H_
