#include "src/events/keymapping.h"

#include <common_utilities/serialization_utils.h>

#include "src/stat_event/check.h"

using velmora::utilities::SerializationUtils;

int SerializeKeyMapping(int16_t type, const std::vector<Keymapping>& mapping, std::ostream& out) {
  int err = SerializationUtils::SerializeInt16(type, out);
  STAT_RETURN_UNLESS(0 == err, VM_FAILED);
  err = SerializationUtils::SerializeInt16(static_cast<short>(mapping.size()), out);
  STAT_RETURN_UNLESS(0 == err, VM_FAILED);
  for (const Keymapping& record : mapping) {
    err = SerializationUtils::SerializeChar(static_cast<char>(record.key), out);
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);
    err = SerializationUtils::SerializeChar(static_cast<char>(record.kind), out);
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);
    err = SerializationUtils::SerializeInt16(record.action, out);
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);
  }
  return 0;
}

int DeserializeKeyMapping(std::istream& in, int16_t type, std::vector<Keymapping>* mapping) {
  STAT_RETURN_UNLESS(mapping, VM_FAILED);
  // The result of this first read is deliberately not tested: a list that ends before its number
  // reports a wrong number, or for list 0 an unreadable count.
  short actual_type = 0;
  SerializationUtils::DeserializeInt16(in, &actual_type);
  STAT_RETURN_UNLESS(actual_type == type, VM_FAILED);

  short count = 0;
  int err = SerializationUtils::DeserializeInt16(in, &count);
  if (count < 1) return err;

  for (short i = 0; i < count; ++i) {
    char first = 0;
    char second = 0;
    short action = 0;
    err = SerializationUtils::DeserializeChar(in, &first);
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);
    err = SerializationUtils::DeserializeChar(in, &second);
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);
    err = SerializationUtils::DeserializeInt16(in, &action);
    STAT_RETURN_UNLESS(0 == err, VM_FAILED);
    // The first byte counts as signed on every machine, so one of 0x80 or more takes 1 away from
    // the second. Key codes in stored records are rebuilt by this rule.
    const int key_code = static_cast<std::int8_t>(first) + 256 * static_cast<std::uint8_t>(second);
    mapping->push_back(Keymapping::FromKeyCode(key_code, action));
  }
  return 0;
}
