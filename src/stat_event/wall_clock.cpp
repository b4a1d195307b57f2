#include "src/stat_event/wall_clock.h"

#include <time.h>

#include <bit>
#include <cstdint>

// Where time_t has 32 bits it ends in 2038, and glibc tells later times from 2.34 on only. To ask
// for a wide time_t when compiling would tie the library to that release, so the function behind it
// is looked for when the library is loaded: a weak symbol of no version, since one of a version
// that is missing keeps a library from being loaded even if it is weak. With an older glibc, events
// are stamped rightly until 2038.
struct WideTime {
  std::int64_t seconds;
  std::int32_t nanoseconds;
  std::int32_t padding;
};
static_assert(std::endian::native == std::endian::little);  // elsewhere the padding comes first
extern "C" [[gnu::weak]] int UsageStatWideClock(clockid_t clock, WideTime* time);
asm(".symver UsageStatWideClock, __clock_gettime64@");

namespace velmora::usage_stat {
namespace {

long long Milliseconds(std::int64_t seconds, long nanoseconds) {
  return seconds * 1000 + nanoseconds / 1'000'000;
}

}  // namespace

long long MillisecondsSinceEpoch() {
  if constexpr (sizeof(time_t) < sizeof(std::int64_t)) {
    WideTime now{};
    if (UsageStatWideClock && UsageStatWideClock(CLOCK_REALTIME, &now) == 0) {
      return Milliseconds(now.seconds, now.nanoseconds);
    }
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return Milliseconds(now.tv_sec, now.tv_nsec);
}

}  // namespace velmora::usage_stat
