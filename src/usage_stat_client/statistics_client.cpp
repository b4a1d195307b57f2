#include "src/usage_stat_client/statistics_client.h"

#include <common_utilities/message_client.h>

#include <algorithm>
#include <climits>
#include <ostream>

#include "src/usage_stat_client/record_buffer.h"

namespace velmora::usage_stat {

int StaticsticsClient::SendEvent(Event* event) {
  utilities::MessageClient client;
  RecordBuffer record;
  std::ostream stream(&record);
  // The record comes first: an event that can't be written never touches the transport.
  int err = event->WriteToStream(stream);
  if (err != 0) {
    STAT_LOG(1, "[pid:%d] err:[%d] ", err);
    return err;
  }
  err = client.Init(kStatisticsEndpoint, sizeof(kStatisticsEndpoint), kLargestStatisticsMessage);
  if (err != 0) {
    STAT_LOG(1, "[pid:%d] err:[%d] ", err);
    return err;
  }
  // A size beyond the type is one beyond the limit as well; it must not wrap around to a small one.
  const std::size_t size = std::min<std::size_t>(record.size(), UINT_MAX);
  return client.SendMessage(record.data(), static_cast<unsigned int>(size));
}

int SendOrLog(Event* event, int line, const char* signature) {
  const int err = StaticsticsClient::SendEvent(event);
  if (err != 0) {
    vm_print_log2(1, STAT_UNIT, line, signature, "[pid:%d] err:[%d] ", g_process_pid, err);
  }
  return err;
}

}  // namespace velmora::usage_stat
