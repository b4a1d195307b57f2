#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "corvane/config.h"
#include "corvane/corvane.h"
#include "corvane/device_files.h"
#include "corvane/log.h"

namespace corvane {
namespace {

constexpr std::size_t kMinIdSize = 16;
constexpr std::size_t kMaxIdSize = 64;

std::optional<unsigned char> HexDigit(char digit) {
  constexpr std::string_view kLower = "0123456789abcdef";
  constexpr std::string_view kUpper = "0123456789ABCDEF";
  const std::size_t value = std::min(kLower.find(digit), kUpper.find(digit));
  if (value == std::string_view::npos) return std::nullopt;
  return static_cast<unsigned char>(value);
}

// The bytes that an even number of hex digits stands for, if their number is one of an id.
std::optional<std::string> ParseId(std::string_view hex) {
  if (hex.size() % 2 != 0 || hex.size() < 2 * kMinIdSize || hex.size() > 2 * kMaxIdSize) {
    return std::nullopt;
  }
  std::string id;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const auto high = HexDigit(hex[i]);
    const auto low = HexDigit(hex[i + 1]);
    if (!high || !low) return std::nullopt;
    id.push_back(static_cast<char>(*high * 16 + *low));
  }
  return id;
}

// An id that stays the same on this machine. The machine's own id is confidential and must not
// leave it, so what is reported is a keyed hash from which it can't be found.
std::optional<std::string> IdOfMachine() {
  std::string text;
  if (ReadRegularFile("/etc/machine-id", 4096, &text) != 0) return std::nullopt;
  const auto machine_id = ParseId(std::string_view(text).substr(0, text.find('\n')));
  if (!machine_id) return std::nullopt;
  constexpr std::string_view kPurpose = "libcorvane device id";
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash = {};
  if (!HMAC(EVP_sha256(), machine_id->data(), static_cast<int>(machine_id->size()),
            reinterpret_cast<const unsigned char*>(kPurpose.data()), kPurpose.size(), hash.data(),
            nullptr)) {
    return std::nullopt;
  }
  return std::string(hash.begin(), hash.begin() + kMinIdSize);
}

std::string DeviceId() {
  const auto values = ReadDeviceConfig();
  if (const std::string* hex = Find(*values, "device_id"); hex) {
    if (auto id = ParseId(*hex)) return *id;
    CORVANE_LOG(kLogError, "device_id is not %zu to %zu hex digits in pairs and was ignored",
                2 * kMinIdSize, 2 * kMaxIdSize);
  }
  return IdOfMachine().value_or(std::string(kMinIdSize, '\0'));
}

std::string TextFact(std::string_view key, const char* default_value) {
  const auto values = ReadDeviceConfig();
  const std::string* text = Find(*values, key);
  return text ? *text : default_value;
}

// What the last call of each kind returned on this thread.
struct ReturnedFacts {
  std::string id;
  std::string serial_number;
  std::string model;
  std::string software_version;
  std::string partner_name;
};
thread_local ReturnedFacts returned;

}  // namespace
}  // namespace corvane

using corvane::returned;

const unsigned char* GetDeviceID(void) {
  returned.id = corvane::DeviceId();
  return reinterpret_cast<const unsigned char*>(returned.id.data());
}

const char* GetSerialNumber(void) {
  returned.serial_number = corvane::TextFact("serial_number", "");
  return returned.serial_number.c_str();
}

// The default has the family's prefix and no model number: an unknown model.
const char* GetDeviceModel(void) {
  returned.model = corvane::TextFact("model", "Velmora VR-Host");
  return returned.model.c_str();
}

const char* GetSoftwareVersion(void) {
  returned.software_version = corvane::TextFact("software_version", "0.0.0");
  return returned.software_version.c_str();
}

int GetCustomizedPartner(void) {
  return corvane::IntOf(*corvane::ReadDeviceConfig(), "partner_number", 0);
}

const char* GetCustomizedPartnerName(void) {
  returned.partner_name = corvane::TextFact("partner_name", "");
  return returned.partner_name.c_str();
}
