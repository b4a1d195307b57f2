// The device's own setting whether statistics are collected at all.

#ifndef TOOLS_COLLECTOR_SWITCH_H_
#define TOOLS_COLLECTOR_SWITCH_H_

#include <array>
#include <chrono>
#include <cstdint>

#include "tools/collector/endpoint.h"

namespace velmora::usage_stat::collector {

class Switch {
 public:
  // Looks at the setting.
  Switch();

  // Whether `datagram`, which was received just now, is to be kept. What is about collecting itself
  // always is. Looks at the setting again when its file has changed, a millisecond later at the
  // latest, and when `datagram` tells that it has; tells when statistics were switched on or off.
  bool Lets(const Datagram& datagram);

 private:
  using FileState = std::array<std::int64_t, 5>;
  static FileState StateOfFile();
  void Look();

  FileState file_{};
  std::chrono::steady_clock::time_point next_look_;
  bool is_on_ = true;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_SWITCH_H_
