// Records of a reader who does not exist: what a device's applications would send.

#ifndef TOOLS_REPORT_SAMPLE_SAMPLE_H_
#define TOOLS_REPORT_SAMPLE_SAMPLE_H_

#include <cstdint>
#include <functional>

#include "tools/store/row.h"

namespace velmora::usage_stat::report {

// Hands over the records of `days` days up to `until_ms`, in order of time, the same ones each
// time.
void SampleRecords(int days, std::int64_t until_ms,
                   const std::function<void(store::RecordRow)>& take);

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_SAMPLE_SAMPLE_H_
