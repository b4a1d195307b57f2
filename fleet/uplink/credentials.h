// How the device proves to the broker who it is: a key that never leaves it, and a certificate that
// the maker's authority gives for it.

#ifndef FLEET_UPLINK_CREDENTIALS_H_
#define FLEET_UPLINK_CREDENTIALS_H_

#include <cstdint>
#include <string>

#include "tools/base/status.h"

namespace velmora::usage_stat::uplink {

// Where they are kept, in PEM format.
struct CredentialFiles {
  std::string key;
  std::string certificate;
};

struct Certificate {
  std::string name;                // its common name
  std::int64_t not_before_ms = 0;  // since the Unix epoch, like the next
  std::int64_t not_after_ms = 0;
};

// A request, in PEM format, that the key of this device be certified as that of `name`. The key is
// made when there is none, readable for its owner alone; later requests are for the same key.
base::Status MakeRequest(const std::string& name, const CredentialFiles& files,
                         std::string* request);

// Reads the first certificate in the file at `path`.
base::Status ReadCertificate(const std::string& path, Certificate* certificate);

// Puts `pem`, the certificate and those between it and the authority, in its place, once it is seen
// to be that of our name and key and to hold at `now_ms`.
base::Status InstallCertificate(const std::string& pem, const std::string& name,
                                const CredentialFiles& files, std::int64_t now_ms);

// Whether a broker can be expected to take us for `name` at `now_ms`; if not, why.
base::Status CheckCredentials(const std::string& name, const CredentialFiles& files,
                              std::int64_t now_ms);

// Overwrites and removes both files. They may be missing.
base::Status DestroyCredentials(const CredentialFiles& files);

}  // namespace velmora::usage_stat::uplink

#endif  // FLEET_UPLINK_CREDENTIALS_H_
