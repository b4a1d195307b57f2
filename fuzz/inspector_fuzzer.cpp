// Runs the inspector's decode command on any input and looks at what a terminal would get.

#include <CLI/CLI.hpp>
#include <algorithm>
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
size_t g_size = 0;

bool IsTrick(char c) { return static_cast<unsigned char>(c) < ' ' && c != '\n'; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC", 1);
  stdout = open_memstream(&g_printed, &g_size);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char* const output = data[0] % 2 == 0 ? "text" : "json";
  const char* const form = data[0] % 4 < 2 ? "--raw" : "-";
  std::stringbuf input(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  std::cin.clear();
  std::cin.rdbuf(&input);

  CLI::App app;
  int exit_code = -1;
  inspector::AddDecode(&app, &exit_code);
  const char* arguments[] = {"usage-stat", "decode", "-o", output, form};
  app.parse(static_cast<int>(std::size(arguments)), arguments);
  inspector::Flush();

  if (exit_code != inspector::kOk && exit_code != inspector::kFailed) abort();
  if (exit_code == inspector::kOk && g_size == 0) abort();
  if (std::any_of(g_printed, g_printed + g_size, IsTrick)) abort();
  rewind(stdout);
  return 0;
}
