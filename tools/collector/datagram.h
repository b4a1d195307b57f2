// One datagram as the endpoint delivers it.

#ifndef TOOLS_COLLECTOR_DATAGRAM_H_
#define TOOLS_COLLECTOR_DATAGRAM_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/store/row.h"

namespace velmora::usage_stat::collector {

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

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_DATAGRAM_H_
