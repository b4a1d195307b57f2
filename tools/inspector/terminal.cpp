#include "tools/inspector/terminal.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::inspector {

namespace {

[[noreturn]] void EndOutput() {
  // Buffered text that could not be written must not be tried again at exit.
  if (errno == EPIPE) std::_Exit(kOk);
  std::perror("usage-stat: cannot write");
  std::_Exit(kFailed);
}

bool IsColourful() {
  static const bool is_colourful = [] {
    const char* no_color = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) != 0 && (!no_color || !*no_color);
  }();
  return is_colourful;
}

}  // namespace

void Write(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) EndOutput();
}

void Flush() {
  if (std::fflush(stdout) != 0) EndOutput();
}

int Complain(int exit_code, std::string_view message) {
  Flush();
  return usage_stat::Complain("usage-stat", message, exit_code);
}

std::string Coloured(Colour colour, std::string_view text) {
  if (!IsColourful()) return std::string(text);
  constexpr std::array<int, 5> kCodes = {1, 2, 31, 32, 33};
  return fmt::format("\x1b[{}m{}\x1b[0m", kCodes[static_cast<std::size_t>(colour)], text);
}

}  // namespace velmora::usage_stat::inspector
