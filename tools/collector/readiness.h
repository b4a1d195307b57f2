// The word to a service manager that the endpoint is open.

#ifndef TOOLS_COLLECTOR_READINESS_H_
#define TOOLS_COLLECTOR_READINESS_H_

namespace velmora::usage_stat::collector {

// Sends "READY=1" to the socket that the environment variable NOTIFY_SOCKET names, as systemd's
// services of Type=notify do. Does nothing when nobody waits for it.
void AnnounceReadiness();

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_READINESS_H_
