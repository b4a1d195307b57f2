// A summary as one HTML page that needs nothing else: no network, no other file, and only for the
// charts a script.

#ifndef TOOLS_REPORT_PAGE_H_
#define TOOLS_REPORT_PAGE_H_

#include <string>
#include <string_view>

#include "tools/report/summary.h"

namespace velmora::usage_stat::report {

std::string RenderPage(const Summary& summary);

// The page's building blocks; texts of records are hostile until they went through one of these.

// `text` for elements and attributes. Control characters become U+FFFD.
std::string EscapeHtml(std::string_view text);

std::string FormatNumber(std::int64_t number);  // 1,234,567
std::string FormatDuration(std::int64_t ms);    // 12 h 05 min, 7 min, 40 s

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_PAGE_H_
