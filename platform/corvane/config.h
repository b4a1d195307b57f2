// Configuration files as the rest of the platform library reads them.

#ifndef PLATFORM_CORVANE_CONFIG_H_
#define PLATFORM_CORVANE_CONFIG_H_

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

using ConfigValues = std::map<std::string, std::string, std::less<>>;

// The keys and values of a configuration text. Lines that are no assignment are skipped.
ConfigValues ParseConfig(std::string_view text);

// Reads the configuration file at a path of the device; one that can't be read counts as empty.
ConfigValues ReadConfigFile(const char* device_path);

// The values of the file that describes this device, read afresh.
ConfigValues ReadDeviceConfig();

// The value of `key`, or null.
const std::string* Find(const ConfigValues& values, std::string_view key);

// The whole of `text` as a decimal int, if that is what it is.
std::optional<int> ParseInt(std::string_view text);

// The value of `key` as an int, or `default_value` when there is none that fits.
int IntOf(const ConfigValues& values, std::string_view key, int default_value);

}  // namespace corvane

#endif  // PLATFORM_CORVANE_CONFIG_H_
