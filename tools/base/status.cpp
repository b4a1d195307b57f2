#include "tools/base/status.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace velmora::usage_stat::base {

Status Status::Failed(std::string message) { return {kFailed, std::move(message)}; }

Status Status::Errno(const std::string& what) { return Failed(what + ": " + std::strerror(errno)); }

}  // namespace velmora::usage_stat::base
