// Captured records, from whatever they were kept in.

#ifndef TOOLS_INSPECTOR_CAPTURED_H_
#define TOOLS_INSPECTOR_CAPTURED_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::inspector {

// The datagram that `text` has: digits, or a JSON object with them under "raw", as list prints it,
// or "hex", as a test vector has it. Nothing for anything else.
std::optional<std::string> DatagramIn(std::string_view text);

// Reads the datagrams of a database, of an archive, or of lines as usage-stat list writes them with
// -o json or -o raw; - is standard input, which holds lines.
base::Status ReadCaptured(const std::string& path, std::vector<std::string>* datagrams);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_CAPTURED_H_
