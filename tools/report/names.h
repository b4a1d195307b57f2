// Names that people know for the numbers in records.

#ifndef TOOLS_REPORT_NAMES_H_
#define TOOLS_REPORT_NAMES_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::usage_stat::report {

// The applications that share the id, such as "acontent.app, notes.app"; "application 99" when no
// table has it.
std::string ApplicationName(std::int64_t id);

// What a setting's value is called in the public header, such as "covers" for 2 of `library_view`;
// empty when it has no name there.
std::string_view SettingValueName(std::string_view field, std::int64_t value);

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_NAMES_H_
