// The device's file system as seen from this machine.

#ifndef PLATFORM_CORVANE_DEVICE_FILES_H_
#define PLATFORM_CORVANE_DEVICE_FILES_H_

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
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

// Which file a path leads to, and when it was last touched: two equal states of which the first is
// settled are those of one content.
struct FileState {
  explicit FileState(const struct stat& status);
  // Whether a later change is certain to show: file systems keep times by the ticks of a clock.
  bool IsSettled() const;
  bool operator==(const FileState&) const = default;

  dev_t device;
  ino_t inode;
  off_t size;
  std::int64_t modified;  // nanoseconds
  std::int64_t changed;
};

// Empty when there is no such file.
std::optional<FileState> StateOf(const char* device_path);

// Reads a regular file of at most `max_size` bytes. Returns 0 or an errno value (EFBIG for a larger
// file); on failure `*text` is empty.
int ReadRegularFile(const char* device_path, std::size_t max_size, std::string* text);

// Reads a file that stands at its start until its end or until `*text` holds `max_size` bytes.
// Returns 0 or an errno value.
int ReadUpTo(int fd, std::size_t max_size, std::string* text);

}  // namespace corvane

#endif  // PLATFORM_CORVANE_DEVICE_FILES_H_
