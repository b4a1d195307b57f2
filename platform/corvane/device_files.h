// The device's file system as seen from this machine.

#ifndef PLATFORM_CORVANE_DEVICE_FILES_H_
#define PLATFORM_CORVANE_DEVICE_FILES_H_

#include <cstddef>
#include <string>
#include <utility>

namespace corvane {

// Owns one file descriptor; -1 stands for none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd();

  int get() const { return fd_; }
  bool valid() const { return fd_ != -1; }
  // Gives up ownership.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

// Where a path of the device lies on this machine: an absolute one below the folder that the
// environment variable CORVANE_ROOT names, if any; a relative one where it says.
std::string HostPath(const char* device_path);

// Opens a regular file for reading and never waits for anything else: a FIFO, a terminal, a socket
// or a folder is refused. On failure the result is invalid and `*error` holds the errno value.
UniqueFd OpenRegularFile(const char* device_path, int* error);

// Reads a regular file of at most `max_size` bytes. Returns 0 or an errno value (EFBIG for a larger
// file); on failure `*text` is empty.
int ReadRegularFile(const char* device_path, std::size_t max_size, std::string* text);

// Reads from where `fd` stands until its end or until `*text` holds `max_size` bytes. Returns 0 or
// an errno value.
int ReadUpTo(int fd, std::size_t max_size, std::string* text);

}  // namespace corvane

#endif  // PLATFORM_CORVANE_DEVICE_FILES_H_
