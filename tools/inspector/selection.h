// Which records of which file, and which collector: the options that several subcommands share.

#ifndef TOOLS_INSPECTOR_SELECTION_H_
#define TOOLS_INSPECTOR_SELECTION_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/command_line/command_line.h"
#include "tools/store/reader.h"

namespace velmora::usage_stat::inspector {

// Adds --database, which `path` then holds, or its default.
void AddDatabaseOption(Command command, std::string* path);

// Adds --endpoint, which is empty when nobody gives it.
void AddEndpointOption(Command command, std::string* endpoint);

// Leads everything that this process sends to `endpoint`; leaves things as they are when it is
// empty.
void UseEndpoint(const std::string& endpoint);

// Adds -o with `formats`, of which the first is the default.
void AddOutputOption(Command command, std::string* output, const std::vector<std::string>& formats);

// Adds -n, which `command` explains, and sets `count` from it.
void AddCountOption(Command command, std::optional<std::int64_t>* count,
                    const std::string& description);

// Adds --since and --until, checked, and sets the range of `query` from them.
void AddRangeOptions(Command command, store::Query* query);

// Adds --event, --app and --book, checked, and narrows `query` by them.
// `book` holds the book as it was called; FindBook tells which it is.
void AddFilterOptions(Command command, store::Query* query, std::string* book);

// Narrows `query` to the book called `name`, if that isn't empty: by its id, a path of the device,
// or a title or file name that the records of `database` have. Fails when several books are called
// so.
base::Status FindBook(const std::string& database, const std::string& name, store::Query* query);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_SELECTION_H_
