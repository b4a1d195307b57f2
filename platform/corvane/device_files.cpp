#include "corvane/device_files.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace corvane {

UniqueFd::~UniqueFd() {
  if (valid()) close(fd_);
}

std::string HostPath(const char* device_path) {
  const char* root = getenv("CORVANE_ROOT");
  if (!root || device_path[0] != '/') return device_path;
  return std::string(root) + device_path;
}

UniqueFd OpenRegularFile(const char* device_path, int* error) {
  UniqueFd fd(open(HostPath(device_path).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status = {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) {
    *error = errno;
    return {};
  }
  if (!S_ISREG(status.st_mode)) {
    *error = S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP;
    return {};
  }
  *error = 0;
  return fd;
}

int ReadRegularFile(const char* device_path, std::size_t max_size, std::string* text) {
  text->clear();
  int error = 0;
  const UniqueFd fd = OpenRegularFile(device_path, &error);
  if (error == 0) error = ReadUpTo(fd.get(), max_size + 1, text);
  if (error == 0 && text->size() > max_size) error = EFBIG;
  if (error != 0) text->clear();
  return error;
}

int ReadUpTo(int fd, std::size_t max_size, std::string* text) {
  std::array<char, 16384> chunk;
  while (text->size() < max_size) {
    const ssize_t got = read(fd, chunk.data(), std::min(chunk.size(), max_size - text->size()));
    if (got == 0) break;
    if (got > 0) {
      text->append(chunk.data(), static_cast<std::size_t>(got));
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace corvane
