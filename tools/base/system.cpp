#include "tools/base/system.h"

#include <fcntl.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>

namespace velmora::usage_stat::base {

namespace {

std::int64_t ReadMs(clockid_t clock) {
  timespec now{};
  (void)clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

std::int64_t NowMs() { return ReadMs(CLOCK_REALTIME); }

std::int64_t BootMs() { return ReadMs(CLOCK_BOOTTIME); }

Status ReplaceFile(const std::string& path, std::string_view text, mode_t mode) {
  const std::string temporary = path + ".new";
  (void)unlink(temporary.c_str());
  const Descriptor file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
  const std::string folder = path.substr(0, path.find_last_of('/') + 1);
  const Descriptor directory(
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!file.is_open() || !directory.is_open() || fchmod(file.get(), mode) != 0 ||
      write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      fsync(file.get()) != 0 || rename(temporary.c_str(), path.c_str()) != 0 ||
      fsync(directory.get()) != 0) {
    Status status = Status::Errno("cannot write " + path);
    (void)unlink(temporary.c_str());
    return status;
  }
  return {};
}

std::string EndpointInUse() {
  const char* name = std::getenv(kEndpointVariable);
  return name && *name ? name : kDefaultEndpoint;
}

std::optional<EndpointAddress> AddressOf(const std::string& name) {
  if (name.empty() || name.size() > kLongestEndpointName) return std::nullopt;
  EndpointAddress result;
  result.address.sun_family = AF_UNIX;
  name.copy(result.address.sun_path + 1, name.size());
  result.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 2);
  return result;
}

}  // namespace velmora::usage_stat::base
