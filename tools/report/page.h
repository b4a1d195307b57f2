// A summary as one HTML page that needs nothing else: no network, no other file, and only for the
// charts a script.

#ifndef TOOLS_REPORT_PAGE_H_
#define TOOLS_REPORT_PAGE_H_

#include <string>

#include "tools/report/summary.h"

namespace velmora::usage_stat::report {

std::string RenderPage(const Summary& summary);

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_PAGE_H_
