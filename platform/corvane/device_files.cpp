#include "corvane/device_files.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace corvane {
namespace {

constexpr std::size_t kPiece = 4096;  // of a file that doesn't know its size

std::int64_t Nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

UniqueFd::~UniqueFd() {
  if (valid()) close(fd_);
}

std::string HostPath(const char* device_path) {
  const char* root = secure_getenv("CORVANE_ROOT");
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

FileState::FileState(const struct stat& status)
    : device(status.st_dev),
      inode(status.st_ino),
      size(status.st_size),
      modified(Nanoseconds(status.st_mtim)),
      changed(Nanoseconds(status.st_ctim)) {}

bool FileState::IsSettled() const {
  constexpr std::int64_t kLongestTick = 1'000'000'000;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return Nanoseconds(now) - changed > kLongestTick;
}

std::optional<FileState> StateOf(const char* device_path) {
  struct stat status = {};
  if (stat(HostPath(device_path).c_str(), &status) != 0) return std::nullopt;
  return FileState(status);
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
  text->clear();
  struct stat status = {};
  if (fstat(fd, &status) != 0) return errno;
  const auto size =
      static_cast<std::size_t>(std::clamp<off_t>(status.st_size, 0, static_cast<off_t>(max_size)));
  while (text->size() < max_size) {
    // With room for more than the file says it has, the first read shows that this was all.
    const std::size_t filled = text->size();
    const std::size_t room =
        std::min(std::max(kPiece, size - std::min(size, filled) + 1), max_size - filled);
    text->resize(filled + room);
    const ssize_t got = read(fd, text->data() + filled, room);
    const int error = errno;
    const auto added = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    text->resize(filled + added);
    if (got == -1 && error != EINTR) return error;
    if (got == 0 || (text->size() == size && added < room)) break;
  }
  return 0;
}

}  // namespace corvane
