// The subcommands of usage-stat-uplink by which a person decides what leaves: consent, status,
// forget; and policy, by which a maker looks at one.

#ifndef FLEET_CONSENT_COMMANDS_H_
#define FLEET_CONSENT_COMMANDS_H_

#include <functional>
#include <string>

#include "tools/base/status.h"
#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::consent {

// Where a subcommand finds what it works on.
struct DeviceOptions {
  DeviceOptions();  // the device's own

  std::string folder;    // of the uplink's state
  std::string database;  // of the collector
  std::string policy;
};
void AddDeviceOptions(Command command, DeviceOptions* options);

// The exit code of `run`, whose failure is told on standard error.
int Exit(const std::function<base::Status()>& run);

void AddConsent(CommandLine* line);
void AddStatus(CommandLine* line);
void AddForget(CommandLine* line);
void AddPolicy(CommandLine* line);

}  // namespace velmora::usage_stat::consent

#endif  // FLEET_CONSENT_COMMANDS_H_
