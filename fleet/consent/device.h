// The device around the consent: whose state it is, and how far its records go.

#ifndef FLEET_CONSENT_DEVICE_H_
#define FLEET_CONSENT_DEVICE_H_

#include <cstdint>
#include <string>

#include "fleet/consent/state.h"
#include "tools/base/status.h"

namespace velmora::usage_stat::consent {

// The folder of the uplink's state when nobody says otherwise: $STATE_DIRECTORY, which systemd sets
// for a service, else /var/lib/usage-stat-uplink.
std::string DefaultStateFolder();

// The state's file in `folder`.
std::string StatePath(const std::string& folder);

// The policy that was shipped: /etc/usage-stat/policy.json, or what the build was told.
std::string DefaultPolicyPath();

// Makes this process the owner of `folder` for good, if it is root: what it writes there then
// belongs to the uplink. Refuses everybody else but the owner. A folder that is missing belongs to
// nobody: only reading, which finds nothing, goes on.
base::Status ActAsOwnerOf(const std::string& folder);

// Reads how far the records of the database at `path` go; nothing for one that is missing.
base::Status ReadNumbers(const std::string& path, Numbers* numbers);

// Tells it of the database at `path`.
State::ReceivedSince ReceivedSinceIn(const std::string& path);

// Has `state` look at the database at `path`.
base::Status LookAt(const std::string& path, State* state);

}  // namespace velmora::usage_stat::consent

#endif  // FLEET_CONSENT_DEVICE_H_
