// The collector's end of the channel: an abstract datagram socket.

#ifndef TOOLS_COLLECTOR_ENDPOINT_H_
#define TOOLS_COLLECTOR_ENDPOINT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/base/status.h"
#include "tools/base/system.h"
#include "tools/store/row.h"

namespace velmora::usage_stat::collector {

// One datagram as the endpoint delivers it.
struct Datagram {
  std::string bytes;     // at most kKeptBytes; empty when it is refused or off
  std::size_t size = 0;  // as it was sent
  store::Sender sender;
  std::int64_t received_ms = 0;  // milliseconds since the Unix epoch
  bool is_refused = false;       // its sender may not send
  bool is_off = false;           // it came while statistics were switched off
};

// How much of a datagram is kept at most, as evidence.
constexpr std::size_t kKeptBytes = std::size_t{256} * 1024;

class Endpoint {
 public:
  enum class Result { kDatagram, kEmpty, kFailed };

  // Takes the address NUL, `name`, NUL. Fails when another process has it.
  base::Status Bind(const std::string& name);

  // Takes the next datagram, if there is one. The bytes of a sender for whom `may_send` is false
  // are never kept: many large ones wait as long as the database does. kFailed: errno tells.
  Result Receive(const std::function<bool(const store::Sender&)>& may_send, Datagram* datagram);

  // Waits until there is a datagram, nothing more can come, or `other` is readable. -1: no other.
  void Wait(int other) const;

  // Refuses what is sent from now on. Every datagram whose sender was told that it arrived can
  // still be received. From any thread.
  void Shut();

 private:
  base::Descriptor socket_;
  std::vector<char> buffer_ = std::vector<char>(kKeptBytes);
};

// Sends "READY=1" to the socket that the environment variable NOTIFY_SOCKET names, as systemd's
// services of Type=notify do. Does nothing when nobody waits for it.
void AnnounceReadiness();

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_ENDPOINT_H_
