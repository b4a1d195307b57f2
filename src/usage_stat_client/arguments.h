// How arguments of the C interface become fields of a record.

#ifndef USAGE_STAT_CLIENT_ARGUMENTS_H_
#define USAGE_STAT_CLIENT_ARGUMENTS_H_

#include <cstdint>
#include <string>

namespace velmora::usage_stat {

// A copy of `text`, which the caller must not pass as null: null raises std::logic_error. Assigning
// the pointer itself would read through it.
//
// Where an entry function copies such a text before it makes its event, it does so on purpose: with
// null no event comes about and no clock is read, as the device's applications have always seen it.
inline std::string RequiredText(const char* text) { return std::string(text); }

// What travels of an enumeration: its low byte, whatever its value.
constexpr char LowByte(int value) { return static_cast<char>(value & 0xFF); }

// `byte` widened with its sign. Unsigned, since it is for shifting, which is then defined for all.
constexpr std::uint32_t WidenedWithSign(std::int8_t byte) {
  return static_cast<std::uint32_t>(std::int32_t{byte});
}

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_ARGUMENTS_H_
