// What people see: output that survives a closed pipe, colours where they make sense, and texts
// from records that can't play tricks on a terminal.

#ifndef TOOLS_INSPECTOR_TERMINAL_H_
#define TOOLS_INSPECTOR_TERMINAL_H_

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/records/record.h"

namespace velmora::usage_stat::inspector {

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

// `text` with every character that a terminal could obey, and every byte that is no UTF-8, written
// as an escape: control characters, and those that change the direction of writing.
std::string Printable(std::string_view text);

// `json` on one line, printable.
std::string PrintableJson(const records::Json& json);

// `text` in colour when standard output is a terminal and NO_COLOR is not set.
enum class Colour { kBold, kDim, kRed, kGreen, kYellow };
std::string Coloured(Colour colour, std::string_view text);

std::string Hex(std::string_view bytes);

// A moment, in local time: "2026-11-24 19:00:49.123".
std::string LocalTime(std::int64_t ms);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_TERMINAL_H_
