#ifndef USAGE_STAT_CLIENT_LOW_BYTE_H_
#define USAGE_STAT_CLIENT_LOW_BYTE_H_

namespace velmora::usage_stat {

// What travels of an enumeration: its low byte, whatever its value.
constexpr char LowByte(int value) { return static_cast<char>(value & 0xFF); }

}  // namespace velmora::usage_stat

#endif  // USAGE_STAT_CLIENT_LOW_BYTE_H_
