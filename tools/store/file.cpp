#include "tools/store/file.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace velmora::usage_stat::store {

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
      open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!file.is_open()) return Status::Errno("cannot create " + path);
  return {};
}

Status ActAsOwnerOf(const std::string& path) {
  if (geteuid() != 0) return {};
  const Descriptor folder(open(FolderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status {};
  if (!folder.is_open() || fstat(folder.get(), &status) != 0) {
    return Status::Errno("cannot open the folder of " + path);
  }
  if (status.st_uid == 0) return {};
  if (setgroups(1, &status.st_gid) != 0 || setegid(status.st_gid) != 0 ||
      seteuid(status.st_uid) != 0) {
    return Status::Errno("cannot act as the owner of " + FolderOf(path));
  }
  return {};
}

std::string FolderOf(const std::string& path) {
  return std::filesystem::absolute(path).parent_path();
}

Status SyncFolder(const std::string& folder) {
  const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor.is_open() || fsync(descriptor.get()) != 0) {
    return Status::Errno("cannot write the folder " + folder);
  }
  return {};
}

}  // namespace velmora::usage_stat::store
