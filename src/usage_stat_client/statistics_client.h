// Delivery of one event to the statistics collector.

#ifndef USAGE_STAT_CLIENT_STATISTICS_CLIENT_H_
#define USAGE_STAT_CLIENT_STATISTICS_CLIENT_H_

#include "src/stat_event/check.h"
#include "src/stat_event/event.h"

namespace velmora::usage_stat {

// Where the collector listens. An abstract socket name: the NUL at the front and the one at the end
// both belong to it.
inline constexpr char kStatisticsEndpoint[] = "\0usage_stat_event1";

// The most bytes that one message may have.
inline constexpr unsigned int kLargestStatisticsMessage = 102400;

// Keeps nothing between calls. The class is known by this spelling throughout the system.
class StaticsticsClient {
 public:
  // Sends `event`, which is only read, as one message holding one record. Returns 0 or the first
  // non-zero result met: of writing the record (logged), of the message client's Init (logged) or
  // of its SendMessage (left to the caller to log).
  static int SendEvent(Event* event);
};

// Sends `event` for the exported function whose `signature` is given, and returns the result; one
// that is not 0 is logged under that signature.
int SendOrLog(Event* event, int line, const char* signature);

}  // namespace velmora::usage_stat

// The end of every exported function that sends: the result of sending `event`.
#define STAT_SEND(event) ::velmora::usage_stat::SendOrLog(&(event), __LINE__, STAT_SIGNATURE)

#endif  // USAGE_STAT_CLIENT_STATISTICS_CLIENT_H_
