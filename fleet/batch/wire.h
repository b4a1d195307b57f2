// The pieces that batches and receipts are made of: bytes and variable-length numbers.

#ifndef FLEET_BATCH_WIRE_H_
#define FLEET_BATCH_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::usage_stat::fleet {

// Maps signed numbers to unsigned ones so that those near 0 stay small: 0, -1, 1, -2, ...
constexpr std::uint64_t ZigZag(std::int64_t value) {
  return (static_cast<std::uint64_t>(value) << 1) ^ (value < 0 ? ~std::uint64_t{0} : 0);
}
constexpr std::int64_t UnZigZag(std::uint64_t value) {
  return static_cast<std::int64_t>((value >> 1) ^ (std::uint64_t{0} - (value & 1)));
}

// Appends `value`, seven bits a byte, lowest first; every byte but the last has its top bit set.
inline void PutNumber(std::uint64_t value, std::string* out) {
  while (value >= 0x80) {
    out->push_back(static_cast<char>(static_cast<std::uint8_t>(value | 0x80)));
    value >>= 7;
  }
  out->push_back(static_cast<char>(static_cast<std::uint8_t>(value)));
}
inline void PutSigned(std::int64_t value, std::string* out) { PutNumber(ZigZag(value), out); }

// Takes pieces from the front of some bytes. Once one was not there, failed() stays true and
// everything taken is zero or empty.
class WireReader {
 public:
  explicit WireReader(std::string_view bytes) : rest_(bytes) {}

  bool failed() const { return failed_; }
  std::size_t left() const { return rest_.size(); }

  std::string_view Bytes(std::uint64_t size) {
    if (failed_ || size > rest_.size()) return Fail();
    const std::string_view taken = rest_.substr(0, static_cast<std::size_t>(size));
    rest_.remove_prefix(taken.size());
    return taken;
  }

  std::uint8_t Byte() {
    const std::string_view byte = Bytes(1);
    return byte.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(byte.front());
  }

  // A number that doesn't fit 64 bits fails.
  std::uint64_t Number() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
      const std::uint64_t byte = Byte();
      if (failed_ || (shift == 63 && byte > 1)) break;
      value |= (byte & 0x7f) << shift;
      if (byte < 0x80) return value;
    }
    Fail();
    return 0;
  }
  std::int64_t Signed() { return UnZigZag(Number()); }

  // A number of things that each take at least one byte of what is left.
  std::size_t Count() {
    const std::uint64_t count = Number();
    if (count > rest_.size()) Fail();
    return failed_ ? 0 : static_cast<std::size_t>(count);
  }

 private:
  std::string_view Fail() {
    failed_ = true;
    rest_ = {};
    return {};
  }

  std::string_view rest_;
  bool failed_ = false;
};

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_BATCH_WIRE_H_
