// JSON as records are written in it. Declares the type only: values need the library's own header.

#ifndef TOOLS_RECORDS_JSON_H_
#define TOOLS_RECORDS_JSON_H_

#include <nlohmann/json_fwd.hpp>

namespace velmora::usage_stat::records {

using Json = nlohmann::ordered_json;  // fields keep their order on the wire

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_JSON_H_
