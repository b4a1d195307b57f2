// Configuration files as the rest of the platform library reads them.

#ifndef PLATFORM_CORVANE_CONFIG_H_
#define PLATFORM_CORVANE_CONFIG_H_

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "corvane/device_files.h"

namespace corvane {

using ConfigValues = std::map<std::string, std::string, std::less<>>;

// The keys and values of a configuration text. Lines that are no assignment are skipped.
ConfigValues ParseConfig(std::string_view text);

// A configuration file at a path of the device. For one thread at a time.
class ConfigFile {
 public:
  explicit ConfigFile(std::string device_path) : path_(std::move(device_path)) {}

  // The values that the file holds now; one that can't be read counts as empty. It is parsed only
  // when it may have changed since the last call.
  std::shared_ptr<const ConfigValues> Read();

 private:
  std::string path_;
  std::optional<FileState> state_;  // of `values_`, once that is settled
  std::shared_ptr<const ConfigValues> values_;
};

// The values of the file that describes this device, as it is now.
std::shared_ptr<const ConfigValues> ReadDeviceConfig();

// The value of `key`, or null.
const std::string* Find(const ConfigValues& values, std::string_view key);

// The whole of `text` as a decimal int, if that is what it is.
std::optional<int> ParseInt(std::string_view text);

// The value of `key` as an int, or `default_value` when there is none that fits.
int IntOf(const ConfigValues& values, std::string_view key, int default_value);

}  // namespace corvane

#endif  // PLATFORM_CORVANE_CONFIG_H_
