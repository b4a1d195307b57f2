// One visit to the fleet: connect, ask, send what waits, take the receipts, end.

#ifndef FLEET_UPLINK_VISIT_H_
#define FLEET_UPLINK_VISIT_H_

#include <cstdint>
#include <string>

#include "fleet/consent/commands.h"
#include "fleet/transport/channel.h"
#include "fleet/uplink/outgoing.h"
#include "tools/base/status.h"
#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::uplink {

// What the configuration file tells; docs/man/usage-stat-uplink.8 describes it.
struct SendConfig {
  fleet::BrokerOptions broker;
  std::int64_t minimum_records = 256;  // a visit is due when so many numbers wait
  std::int64_t longest_age_days = 7;   // or when the last one is so long ago
  std::int64_t daily_bytes = std::int64_t{4} * 1024 * 1024;
  std::int64_t receipt_wait_s = 30;
  Outgoing::Limits batch;
};

// Where it is when nobody says otherwise.
std::string DefaultConfigPath();

// Reads `path`. A key that is not known, and a value that is none, are mistakes.
base::Status ReadConfig(const std::string& path, SendConfig* config);

struct SendOptions : consent::DeviceOptions {
  std::string config = DefaultConfigPath();
  bool at_once = false;  // whether a visit is due or not
  std::int64_t loop_s = 0;
};

// The subcommands send and doctor.
void AddSend(CommandLine* line);
void AddDoctor(CommandLine* line);

}  // namespace velmora::usage_stat::uplink

#endif  // FLEET_UPLINK_VISIT_H_
