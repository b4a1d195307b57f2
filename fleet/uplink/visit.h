// One visit to the fleet: connect, ask, send what waits, take the receipts, end.

#ifndef FLEET_UPLINK_VISIT_H_
#define FLEET_UPLINK_VISIT_H_

#include <cstdint>
#include <string>

#include "fleet/consent/commands.h"
#include "fleet/transport/channel.h"
#include "fleet/uplink/credentials.h"
#include "fleet/uplink/outgoing.h"
#include "tools/base/status.h"
#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::uplink {

// What the configuration file tells; docs/man/usage-stat-uplink.8 describes it.
struct SendConfig {
  fleet::BrokerOptions broker;
  CredentialFiles credentials;         // in the state's folder unless told
  std::int64_t renew_days = 30;        // a certificate that expires sooner is to be renewed
  std::int64_t minimum_records = 256;  // a visit is due when so many numbers wait
  std::int64_t longest_age_days = 7;   // or when the last one is so long ago
  std::int64_t daily_bytes = std::int64_t{4} * 1024 * 1024;
  std::int64_t receipt_wait_s = 30;
  Outgoing::Limits batch;
};

// Where it is when nobody says otherwise.
std::string DefaultConfigPath();

struct SendOptions : consent::DeviceOptions {
  std::string config = DefaultConfigPath();
  bool at_once = false;  // whether a visit is due or not
  bool if_due = false;   // whether a certificate is to be renewed or not
  std::int64_t loop_s = 0;
  std::string file;
};

// Reads the configuration. A key that is not known, and a value that is none, are mistakes.
base::Status ReadConfig(const SendOptions& options, SendConfig* config);

// The subcommands.
void AddSend(CommandLine* line);
void AddDoctor(CommandLine* line);
void AddCsr(CommandLine* line);
void AddCertificate(CommandLine* line);

}  // namespace velmora::usage_stat::uplink

#endif  // FLEET_UPLINK_VISIT_H_
