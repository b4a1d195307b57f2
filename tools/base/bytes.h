// Numbers as bytes, whatever the machine's own order is.

#ifndef TOOLS_BASE_BYTES_H_
#define TOOLS_BASE_BYTES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::usage_stat::base {

// The number that all of `bytes` are, the most significant one first; of more than eight, the last
// eight.
inline std::uint64_t BigEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<std::uint8_t>(byte);
  return number;
}

// The number that all of `bytes` are, the least significant one first; of more than eight, the
// first eight.
inline std::uint64_t LittleEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes.size(); i > 0; --i) {
    number = number << 8 | static_cast<std::uint8_t>(bytes[i - 1]);
  }
  return number;
}

// Appends the lowest `size` bytes of `number`, 8 at most, the most significant one first.
inline void PutBigEndian(std::uint64_t number, std::size_t size, std::string* out) {
  for (std::size_t i = size; i > 0; --i) {
    out->push_back(static_cast<char>(static_cast<std::uint8_t>(number >> (8 * (i - 1)))));
  }
}

// The same with the least significant one first.
inline void PutLittleEndian(std::uint64_t number, std::size_t size, std::string* out) {
  for (std::size_t i = 0; i < size; ++i) {
    out->push_back(static_cast<char>(static_cast<std::uint8_t>(number >> (8 * i))));
  }
}

}  // namespace velmora::usage_stat::base

#endif  // TOOLS_BASE_BYTES_H_
