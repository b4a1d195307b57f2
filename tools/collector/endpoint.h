// The collector's end of the channel: an abstract datagram socket.

#ifndef TOOLS_COLLECTOR_ENDPOINT_H_
#define TOOLS_COLLECTOR_ENDPOINT_H_

#include <functional>
#include <string>
#include <vector>

#include "tools/base/status.h"
#include "tools/base/system.h"
#include "tools/collector/datagram.h"

namespace velmora::usage_stat::collector {

class Endpoint {
 public:
  enum class Result { kDatagram, kEmpty, kFailed };

  // Takes the address NUL, `name`, NUL. Fails when another process has it.
  base::Status Bind(const std::string& name);

  // Takes the next datagram, if there is one. The bytes of a sender for whom `may_send` is false
  // are never kept: many large ones wait as long as the database does. kFailed: errno tells.
  Result Receive(const std::function<bool(const store::Sender&)>& may_send, Datagram* datagram);

  // Waits until there is a datagram, or nothing more can come.
  void Wait() const;

  // Refuses what is sent from now on. Every datagram whose sender was told that it arrived can
  // still be received. From any thread.
  void Shut();

 private:
  base::Descriptor socket_;
  std::vector<char> buffer_ = std::vector<char>(kKeptBytes);
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_ENDPOINT_H_
