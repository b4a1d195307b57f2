// What became of an operation. Nothing here throws for what the world does: files, sockets and
// strangers' bytes fail by a status that can't be overlooked.

#ifndef TOOLS_BASE_STATUS_H_
#define TOOLS_BASE_STATUS_H_

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace velmora::usage_stat::base {

// Success, or a code and a message for people: one line without a line end.
struct [[nodiscard]] Status {
  // 0 is success. Who has codes of its own, such as the database's, says so where it returns them;
  // everybody else fails with kFailed.
  static constexpr int kFailed = 1;

  int code = 0;
  std::string message;

  bool ok() const { return code == 0; }

  static Status Failed(std::string message) { return {kFailed, std::move(message)}; }
  // `what`, such as "cannot open FILE", and the text of errno.
  static Status Errno(const std::string& what) {
    return Failed(what + ": " + std::strerror(errno));
  }
};

}  // namespace velmora::usage_stat::base

// Evaluates a Status and returns it from the calling function when it is a failure.
#define RETURN_IF_ERROR(expression)                                       \
  do {                                                                    \
    ::velmora::usage_stat::base::Status returned_if_error = (expression); \
    if (!returned_if_error.ok()) return returned_if_error;                \
  } while (false)

#endif  // TOOLS_BASE_STATUS_H_
