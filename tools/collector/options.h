// The command line of usage-stat-collector.

#ifndef TOOLS_COLLECTOR_OPTIONS_H_
#define TOOLS_COLLECTOR_OPTIONS_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "tools/store/retention.h"

namespace velmora::usage_stat::collector {

enum class Format { kNone, kText, kJson };

struct Options {
  std::string endpoint;
  std::string database_path;
  std::string archive_directory;
  bool store = true;
  Format print = Format::kNone;
  std::chrono::milliseconds commit_interval{50};
  bool allow_any = false;
  std::set<std::int64_t> allowed_uids;
  store::Retention retention;
};

// Reads the command line and the environment. When there is nothing to run (help, or a mistake,
// both told), the exit code is in `exit_code`.
std::optional<Options> ParseOptions(int argc, char** argv, int* exit_code);

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_OPTIONS_H_
