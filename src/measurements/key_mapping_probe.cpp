#include <corvane/corvane.h>

#include <cstring>
#include <optional>

#include "src/measurements/key_actions.h"
#include "src/measurements/measurements.h"

namespace velmora::usage_stat {

namespace {

constexpr int kButtons = 32;
constexpr int kSecondList = 0x100;
constexpr std::int16_t kNoAction = 0;  // the code of "KA_none"

// The names that one mapping set assigns. They belong to the platform.
struct ActionNames {
  explicit ActionNames(int set) { GetKeyMappingEx(set, first, second, kButtons); }

  const char* first[kButtons] = {};
  const char* second[kButtons] = {};
};

// The code of the action that the platform calls `name`, without regard to its leading character;
// nothing when no such action is known.
std::optional<std::int16_t> ActionCode(const char* name) {
  if (!name || !*name) return std::nullopt;
  for (const KeyAction& action : kKeyActions) {
    if (std::strcmp(action.name, name + 1) == 0) return action.code;
  }
  return std::nullopt;
}

// Set 0 takes precedence over the set asked for, which fills only the places where set 0 assigns
// nothing. Readers of the lists rely on that: lists 1 and 2 are complete views, not differences.
std::int16_t PreferredActionCode(const char* set_0_name, const char* requested_name) {
  const std::int16_t code = ActionCode(set_0_name).value_or(kNoAction);
  return code != kNoAction ? code : ActionCode(requested_name).value_or(kNoAction);
}

}  // namespace

int KeyboradMappingMeasurement::Measure() {
  for (int set = 0; set < KeyListCount::kCount; ++set) {
    FillList(set, &event_.mappings_[static_cast<std::size_t>(set)]);
  }
  return 0;
}

void KeyboradMappingMeasurement::FillList(int set, std::vector<Keymapping>* mapping) {
  const ActionNames requested(set);
  const ActionNames set_0(0);
  const unsigned int buttons = QueryDeviceButtons();

  const auto append = [mapping](int key_code, std::int16_t action) {
    if (action != kNoAction) mapping->push_back(Keymapping::FromKeyCode(key_code, action));
  };
  for (int n = 0; n < kButtons; ++n) {
    if ((buttons >> n & 1U) == 0) continue;
    append(n, PreferredActionCode(set_0.first[n], requested.first[n]));
    append(n + kSecondList, PreferredActionCode(set_0.second[n], requested.second[n]));
  }
}

}  // namespace velmora::usage_stat
