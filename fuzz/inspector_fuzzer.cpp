// Runs the inspector's decode command on any input and looks at what a terminal would get.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "tools/inspector/commands.h"
#include "tools/inspector/terminal.h"

namespace inspector = velmora::usage_stat::inspector;

namespace {

// Standard output as a file in memory.
char* g_printed = nullptr;
std::size_t g_size = 0;

bool IsTrick(char c) { return static_cast<unsigned char>(c) < ' ' && c != '\n'; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC", 1);
  stdout = open_memstream(&g_printed, &g_size);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const char* const output = data[0] % 2 == 0 ? "text" : "json";
  const char* const form = data[0] % 4 < 2 ? "--raw" : "-";
  std::stringbuf input(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  std::cin.clear();
  std::cin.rdbuf(&input);

  velmora::usage_stat::CommandLine line("usage-stat", "", "");
  inspector::AddDecode(&line);
  const char* arguments[] = {"usage-stat", "decode", "-o", output, form};
  const int exit_code = line.Run(static_cast<int>(std::size(arguments)), arguments);
  inspector::Flush();

  using velmora::usage_stat::kFailed;
  using velmora::usage_stat::kOk;
  if (exit_code != kOk && exit_code != kFailed) abort();
  if (exit_code == kOk && g_size == 0) abort();
  if (std::any_of(g_printed, g_printed + g_size, IsTrick)) abort();
  rewind(stdout);
  return 0;
}
