#include <corvane/corvane.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "src/measurements/key_actions.h"
#include "src/measurements/measurements.h"

namespace velmora::usage_stat {

namespace {

constexpr int kButtons = 32;
constexpr int kSecondList = 0x100;
constexpr std::int16_t kNoAction = 0;  // the code of "KA_none"

// The code of the action that the platform calls `name`, without regard to its leading character;
// kNoAction when no such action is known.
std::int16_t ActionCode(const char* name) {
  if (!name || !*name) return kNoAction;
  for (const KeyAction& action : kKeyActions) {
    if (std::strcmp(action.name, name + 1) == 0) return action.code;
  }
  return kNoAction;
}

// What one mapping set assigns to each button. Codes, since the names are the platform's and may be
// gone when it is asked for another set.
struct AssignedActions {
  explicit AssignedActions(int set) {
    const char* first_names[kButtons] = {};
    const char* second_names[kButtons] = {};
    GetKeyMappingEx(set, first_names, second_names, kButtons);
    std::transform(std::begin(first_names), std::end(first_names), first, ActionCode);
    std::transform(std::begin(second_names), std::end(second_names), second, ActionCode);
  }

  std::int16_t first[kButtons];
  std::int16_t second[kButtons];
};

}  // namespace

int KeyboradMappingMeasurement::Measure() {
  int set = 0;
  for (std::vector<Keymapping>& mapping : event_.mappings_) FillList(set++, &mapping);
  return 0;
}

void KeyboradMappingMeasurement::FillList(int set, std::vector<Keymapping>* mapping) {
  const AssignedActions requested(set);
  const AssignedActions set_0(0);
  const unsigned int buttons = QueryDeviceButtons();

  // Set 0 takes precedence over the set asked for, which fills only the places where set 0 assigns
  // nothing: lists 1 and 2 are complete views, not differences.
  const auto append = [mapping](int key_code, std::int16_t from_set_0,
                                std::int16_t from_requested) {
    const std::int16_t action = from_set_0 != kNoAction ? from_set_0 : from_requested;
    if (action != kNoAction) mapping->push_back(Keymapping::FromKeyCode(key_code, action));
  };
  for (int n = 0; n < kButtons; ++n) {
    if ((buttons >> n & 1U) == 0) continue;
    append(n, set_0.first[n], requested.first[n]);
    append(n + kSecondList, set_0.second[n], requested.second[n]);
  }
}

}  // namespace velmora::usage_stat
