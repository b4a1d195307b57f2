// What people see: output that survives a closed pipe, and colours where they make sense.

#ifndef TOOLS_INSPECTOR_TERMINAL_H_
#define TOOLS_INSPECTOR_TERMINAL_H_

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/records/text.h"

namespace velmora::usage_stat::inspector {

using records::LocalTime;
using records::Printable;
using records::PrintableJson;

// Writes to standard output. Ends the program when nothing more can be written: quietly when its
// reader has gone, as failed when, say, the disk is full.
void Write(std::string_view text);
template <class... Arguments>
void Print(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  Write(fmt::format(format, std::forward<Arguments>(arguments)...));
}
void Flush();

// Writes "usage-stat: `message`" to standard error and returns `exit_code`.
int Complain(int exit_code, std::string_view message);

// `text` in colour when standard output is a terminal and NO_COLOR is not set.
enum class Colour { kBold, kDim, kRed, kGreen, kYellow };
std::string Coloured(Colour colour, std::string_view text);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_TERMINAL_H_
