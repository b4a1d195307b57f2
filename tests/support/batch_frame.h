// Messages around a content that no encoder would write.

#ifndef USAGE_STAT_TESTS_SUPPORT_BATCH_FRAME_H_
#define USAGE_STAT_TESTS_SUPPORT_BATCH_FRAME_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace usage_stat_test {

// A batch message whose frame holds `content` uncompressed and declares `declared` bytes. Only for
// contents that fit one block, which is 128 KiB.
inline std::string MessageAround(std::string_view content, std::uint64_t declared) {
  std::string message = "USB\1\x28\xb5\x2f\xfd\xe0";
  for (int shift = 0; shift < 64; shift += 8) {
    message.push_back(static_cast<char>(declared >> shift & 0xff));
  }
  const std::uint64_t block = content.size() << 3 | 1;  // the last one, raw
  for (int shift = 0; shift < 24; shift += 8) {
    message.push_back(static_cast<char>(block >> shift & 0xff));
  }
  return message.append(content);
}

inline std::string MessageAround(std::string_view content) {
  return MessageAround(content, content.size());
}

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_BATCH_FRAME_H_
