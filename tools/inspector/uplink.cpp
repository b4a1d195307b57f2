// usage-stat uplink: what may leave this device. That is a program of its own, which this one
// starts: on a device whose records never leave it may be missing.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/command_line/command_line.h"
#include "tools/inspector/terminal.h"

namespace velmora::usage_stat::inspector {

namespace {

constexpr const char* kProgram = "usage-stat-uplink";

int Run(std::vector<std::string>* words) {
  std::vector<char*> arguments = {const_cast<char*>(kProgram)};
  if (words->empty()) words->emplace_back("status");
  for (std::string& word : *words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  execvp(kProgram, arguments.data());
  if (errno == ENOENT) {
    return Complain(kFailed,
                    fmt::format("{} is not installed: nothing leaves this device", kProgram));
  }
  return Complain(kFailed, fmt::format("cannot start {}: {}", kProgram, std::strerror(errno)));
}

}  // namespace

void AddUplink(CommandLine* line) {
  auto words = std::make_shared<std::vector<std::string>>();
  Command command = line->AddCommand("uplink", "Decide and show what may leave this device");
  command.TakeRest(words.get());
  command.Footer(
      "usage-stat uplink consent LEVEL, status, preview, forget, policy: see "
      "usage-stat-uplink(8).");
  command.OnRun([words] { return Run(words.get()); });
}

}  // namespace velmora::usage_stat::inspector
