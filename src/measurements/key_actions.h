// The actions that can be assigned to a key, and their codes in records.

#ifndef MEASUREMENTS_KEY_ACTIONS_H_
#define MEASUREMENTS_KEY_ACTIONS_H_

#include <array>
#include <cstdint>

namespace velmora::usage_stat {

struct KeyAction {
  char name[8];
  std::int16_t code;
};

// Searched in this order. A code is the row's position plus 1, except that of "KA_none".
extern const std::array<KeyAction, 62> kKeyActions;

}  // namespace velmora::usage_stat

#endif  // MEASUREMENTS_KEY_ACTIONS_H_
