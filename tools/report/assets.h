// The files that make up a page, built into the program.

#ifndef TOOLS_REPORT_ASSETS_H_
#define TOOLS_REPORT_ASSETS_H_

#include <string_view>

namespace velmora::usage_stat::report::assets {

extern const std::string_view kShell;    // what is around every page, with {{slots}}
extern const std::string_view kDevice;   // sections of a device's page, with {{slots}}
extern const std::string_view kStyle;    // style sheet
extern const std::string_view kScript;   // draws the charts with the library
extern const std::string_view kLibrary;  // chart library
extern const std::string_view kLicence;  // the library's

}  // namespace velmora::usage_stat::report::assets

#endif  // TOOLS_REPORT_ASSETS_H_
