// Which records of which file: the options that several subcommands share.

#ifndef TOOLS_INSPECTOR_SELECTION_H_
#define TOOLS_INSPECTOR_SELECTION_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/store/reader.h"

namespace CLI {
class App;
}

namespace velmora::usage_stat::inspector {

// Adds --database, which `path` then holds, or its default.
void AddDatabaseOption(CLI::App* command, std::string* path);

// Adds -o with `formats`, of which the first is the default.
void AddOutputOption(CLI::App* command, std::string* output,
                     const std::vector<std::string>& formats);

// Adds -n, which `command` explains, and sets `count` from it.
void AddCountOption(CLI::App* command, std::optional<std::int64_t>* count,
                    const std::string& description);

// Adds --since and --until, checked, and sets the range of `query` from them.
void AddRangeOptions(CLI::App* command, store::Query* query);

// Adds --event, --app and --book, checked, and narrows `query` by them.
void AddFilterOptions(CLI::App* command, store::Query* query);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_SELECTION_H_
