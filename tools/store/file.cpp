#include "tools/store/file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

namespace velmora::usage_stat::store {

Status ErrnoStatus(const std::string& what) {
  return Status::Failed(what + ": " + std::strerror(errno));
}

std::string ImmutableUri(const std::string& path) {
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      uri += {'%', kHex[c >> 4], kHex[c & 0xf]};
    } else {
      uri += c;
    }
  }
  return uri + "?immutable=1";
}

Status CreatePrivateFile(const std::string& path) {
  const Descriptor file(
      open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file.is_open()) return ErrnoStatus("cannot create " + path);
  return {};
}

std::string FolderOf(const std::string& path) {
  return std::filesystem::absolute(path).parent_path();
}

Status SyncFolder(const std::string& folder) {
  const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor.is_open() || fsync(descriptor.get()) != 0) {
    return ErrnoStatus("cannot write the folder " + folder);
  }
  return {};
}

std::int64_t NowMs() {
  using std::chrono::milliseconds;
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace velmora::usage_stat::store
