// A private file system of the device for tests, and what the platform library logs meanwhile.

#ifndef USAGE_STAT_TESTS_SUPPORT_DEVICE_ROOT_H_
#define USAGE_STAT_TESTS_SUPPORT_DEVICE_ROOT_H_

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace usage_stat_test {

inline constexpr const char* kGlobalConfig = "/mnt/ext1/system/config/global.cfg";
inline constexpr const char* kDeviceConfig = "/mnt/ext1/system/config/device.cfg";

// A temporary folder that stands for the device's root while it lives, removed with its contents.
class DeviceRoot {
 public:
  DeviceRoot() {
    std::string path = (std::filesystem::temp_directory_path() / "device-XXXXXX").string();
    if (!mkdtemp(path.data())) throw std::system_error(errno, std::generic_category(), "mkdtemp");
    path_ = path;
    setenv("CORVANE_ROOT", path.c_str(), 1);
  }
  ~DeviceRoot() {
    unsetenv("CORVANE_ROOT");
    std::filesystem::remove_all(path_);
  }
  DeviceRoot(const DeviceRoot&) = delete;
  DeviceRoot& operator=(const DeviceRoot&) = delete;

  // Where a path of the device lies; the folders above it are made.
  std::string HostPath(std::string_view device_path) const {
    const std::filesystem::path path = path_ / std::filesystem::path(device_path).relative_path();
    std::filesystem::create_directories(path.parent_path());
    return path.string();
  }
  void Write(std::string_view device_path, std::string_view content) const {
    std::ofstream file(HostPath(device_path), std::ios::binary | std::ios::trunc);
    file << content;
    if (!file.flush()) throw std::runtime_error("can't write a file of the test");
  }

 private:
  std::filesystem::path path_;
};

// Takes the place of standard error while it lives. Its pipe keeps one write apart from the next.
class StderrCapture {
 public:
  StderrCapture() {
    if (pipe2(pipe_.data(), O_DIRECT | O_NONBLOCK | O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    saved_ = dup(STDERR_FILENO);
    dup2(pipe_[1], STDERR_FILENO);
    close(pipe_[1]);
  }
  ~StderrCapture() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    CloseReadEnd();
  }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // What each write since the last call wrote.
  std::vector<std::string> Writes() {
    std::vector<std::string> writes;
    std::array<char, 65536> buffer;
    ssize_t size = 0;
    while ((size = read(pipe_[0], buffer.data(), buffer.size())) > 0) {
      writes.emplace_back(buffer.data(), static_cast<std::size_t>(size));
    }
    return writes;
  }
  // From now on nobody reads.
  void CloseReadEnd() {
    if (pipe_[0] != -1) {
      close(pipe_[0]);
      pipe_[0] = -1;
    }
  }

 private:
  std::array<int, 2> pipe_ = {-1, -1};
  int saved_ = -1;
};

}  // namespace usage_stat_test

#endif  // USAGE_STAT_TESTS_SUPPORT_DEVICE_ROOT_H_
