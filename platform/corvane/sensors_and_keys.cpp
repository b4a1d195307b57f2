#include <dirent.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/config.h"
#include "corvane/corvane.h"
#include "corvane/device_files.h"
#include "corvane/log.h"

namespace corvane {
namespace {

// An acceleration in milli-g along the screen's axes: x to the right, y up, z towards the reader.
// At rest the axis that points away from the ground reads 1000.
struct Acceleration {
  int x = 0;
  int y = 0;
  int z = 0;
};

// The orientation codes: how far the device is turned clockwise, in quarter turns.
enum Orientation { kUpright = 0, kTurnedRight = 1, kUpsideDown = 2, kTurnedLeft = 3 };

// ---- The accelerometer ----

std::optional<Acceleration> OfAxes(std::optional<int> x, std::optional<int> y,
                                   std::optional<int> z) {
  if (!x || !y || !z) return std::nullopt;
  return Acceleration{*x, *y, *z};
}

std::optional<double> ReadNumber(const std::string& device_path) {
  std::string text;
  if (ReadRegularFile(device_path.c_str(), 4096, &text) != 0) return std::nullopt;
  double number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc() || !std::isfinite(number)) return std::nullopt;
  return number;
}

// One axis of a sensor of the kernel's Industrial I/O subsystem: (raw + offset) * scale is in
// m/s^2; offset and scale stand in a file of the axis or in one for all three.
std::optional<int> ReadAxis(const std::string& sensor, const char* axis) {
  const std::string of_axis = sensor + "/in_accel_" + axis;
  const std::string of_all = sensor + "/in_accel";
  const auto raw = ReadNumber(of_axis + "_raw");
  auto scale = ReadNumber(of_axis + "_scale");
  if (!scale) scale = ReadNumber(of_all + "_scale");
  if (!raw || !scale) return std::nullopt;
  auto offset = ReadNumber(of_axis + "_offset");
  if (!offset) offset = ReadNumber(of_all + "_offset");
  constexpr double kStandardGravity = 9.80665;
  const double milli_g = (*raw + offset.value_or(0)) * *scale * 1000 / kStandardGravity;
  if (!(std::abs(milli_g) < std::numeric_limits<int>::max())) return std::nullopt;
  return static_cast<int>(std::lround(milli_g));
}

std::optional<Acceleration> ReadSensor(const std::string& sensor) {
  return OfAxes(ReadAxis(sensor, "x"), ReadAxis(sensor, "y"), ReadAxis(sensor, "z"));
}

// The reading of the kernel's first accelerometer by name.
std::optional<Acceleration> ReadKernelSensor() {
  const std::string folder = "/sys/bus/iio/devices/";
  const std::unique_ptr<DIR, int (*)(DIR*)> devices(opendir(HostPath(folder.c_str()).c_str()),
                                                    closedir);
  if (!devices) return std::nullopt;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(devices.get())) {
    names.emplace_back(static_cast<const char*>(entry->d_name));
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (name.starts_with("iio:device")) {
      if (const auto reading = ReadSensor(std::string(folder).append(name))) return reading;
    }
  }
  return std::nullopt;
}

// Parses "x,y,z".
std::optional<Acceleration> ParseAcceleration(std::string text) {
  std::erase(text, ' ');
  const std::size_t first = text.find(',');
  const std::size_t second = first == text.npos ? text.npos : text.find(',', first + 1);
  if (second == text.npos) return std::nullopt;
  return OfAxes(ParseInt(text.substr(0, first)),
                ParseInt(text.substr(first + 1, second - first - 1)),
                ParseInt(text.substr(second + 1)));
}

// What device.cfg says wins over the kernel, so that a profile can stand for another device.
std::optional<Acceleration> ReadAcceleration(const ConfigValues& values) {
  const std::string* text = Find(values, "gsensor");
  if (!text) return ReadKernelSensor();
  if (*text == "none") return std::nullopt;
  const auto reading = ParseAcceleration(*text);
  if (!reading) {
    CORVANE_LOG(kLogError, "gsensor is neither none nor three numbers x,y,z: \"%s\"",
                text->c_str());
  }
  return reading;
}

int ScreenOrientation(const ConfigValues& values) { return IntOf(values, "orientation", kUpright); }

// A device that lies flat says nothing about how it is turned: it keeps the screen's orientation.
int OrientationFrom(const Acceleration& reading, const ConfigValues& values) {
  constexpr std::int64_t kLeastTilt = 500;  // milli-g: 30 degrees
  const std::int64_t across = std::abs(std::int64_t{reading.x});
  const std::int64_t along = std::abs(std::int64_t{reading.y});
  if (std::max(across, along) < kLeastTilt) return ScreenOrientation(values);
  if (along >= across) return reading.y > 0 ? kUpright : kUpsideDown;
  return reading.x < 0 ? kTurnedRight : kTurnedLeft;
}

void StoreIfWanted(int value, int* out) {
  if (out) *out = value;
}

// ---- Keys ----

// Points the first `count` of `actions` at what `values` assigns to the buttons in one list of a
// mapping set, or null. There may be more places than there are buttons.
void NameActions(const ConfigValues& values, const std::string& list, const char** actions,
                 int count) {
  constexpr int kButtons = 32;
  if (!actions) return;
  std::fill_n(actions, std::max(count, 0), nullptr);
  for (auto each = values.lower_bound(list); each != values.end(); ++each) {
    const auto& [key, action] = *each;
    if (!key.starts_with(list)) break;
    const std::string_view number = std::string_view(key).substr(list.size());
    const int button = ParseInt(number).value_or(-1);
    if (button < 0 || button >= std::min(count, kButtons)) continue;
    // A number has one spelling only.
    if (!action.empty() && std::to_string(button) == number) actions[button] = action.c_str();
  }
}

// Parses a mask: decimal, or hex after "0x".
std::optional<unsigned int> ParseMask(std::string_view text) {
  const int base = text.starts_with("0x") || text.starts_with("0X") ? 16 : 10;
  text.remove_prefix(base == 16 ? 2 : 0);
  unsigned int mask = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, mask, base);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return mask;
}

}  // namespace
}  // namespace corvane

int ReadGSensor(int* x, int* y, int* z) {
  const auto values = corvane::ReadDeviceConfig();
  const auto reading = corvane::ReadAcceleration(*values);
  if (!reading) return -1;
  corvane::StoreIfWanted(reading->x, x);
  corvane::StoreIfWanted(reading->y, y);
  corvane::StoreIfWanted(reading->z, z);
  return corvane::OrientationFrom(*reading, *values);
}

int GetOrientation(void) { return corvane::ScreenOrientation(*corvane::ReadDeviceConfig()); }

void GetKeyMappingEx(int mapping_set, const char** first_actions, const char** second_actions,
                     int count) {
  // Holds the names that this thread was given last.
  thread_local std::shared_ptr<const corvane::ConfigValues> values;
  values = corvane::ReadDeviceConfig();
  const std::string set = "key." + std::to_string(mapping_set);
  corvane::NameActions(*values, set + ".first.", first_actions, count);
  corvane::NameActions(*values, set + ".second.", second_actions, count);
}

unsigned int QueryDeviceButtons(void) {
  const auto values = corvane::ReadDeviceConfig();
  const std::string* text = corvane::Find(*values, "buttons");
  if (!text) return 0;
  const auto mask = corvane::ParseMask(*text);
  if (!mask) CORVANE_LOG(kLogError, "buttons is no mask of 32 bits: \"%s\"", text->c_str());
  return mask.value_or(0);
}
