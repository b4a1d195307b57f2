// One key assignment, and a list of them on the wire.
//
// These stand at global scope: the signature texts in log lines carry no namespace.

#ifndef EVENTS_KEYMAPPING_H_
#define EVENTS_KEYMAPPING_H_

#include <cstdint>
#include <iosfwd>
#include <vector>

struct Keymapping {
  std::int8_t key;      // button index, 0 to 31
  std::int8_t kind;     // 0: the key's first action list, 1: its second
  std::int16_t action;  // action code

  // The assignment whose key code, button index plus 256 times the list number, is the low 16 bits
  // of `key_code`.
  static Keymapping FromKeyCode(int key_code, std::int16_t action) {
    return {static_cast<std::int8_t>(key_code), static_cast<std::int8_t>(key_code >> 8), action};
  }
};

// Writes `mapping` as list number `type`. 0 on success, VM_FAILED on a failed step, which is
// logged.
int SerializeKeyMapping(std::int16_t type, const std::vector<Keymapping>& mapping,
                        std::ostream& out);

// Appends the list number `type` that `in` holds to `mapping`. 0 on success; VM_FAILED, logged, for
// a null `mapping`, another list number or a failed record; the primitive's own result, not logged,
// when the count can't be read.
int DeserializeKeyMapping(std::istream& in, std::int16_t type, std::vector<Keymapping>* mapping);

#endif  // EVENTS_KEYMAPPING_H_
