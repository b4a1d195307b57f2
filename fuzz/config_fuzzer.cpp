// Feeds any bytes to the parser of configuration files.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "corvane/config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const auto& [key, value] : corvane::ParseConfig(text)) {
    corvane::ParseInt(value);
    if (key.size() + value.size() > size) {
      abort();  // a parser that adds text has read past its line
    }
  }
  return 0;
}
