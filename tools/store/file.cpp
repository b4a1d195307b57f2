#include "tools/store/file.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace velmora::usage_stat::store {

namespace fs = std::filesystem;

namespace {

// `path` and what it leads to, link by link.
std::vector<fs::path> StationsOf(const std::string& path) {
  constexpr std::size_t kMost = 40;  // as the kernel
  std::error_code error;
  std::vector<fs::path> stations = {fs::absolute(path, error)};
  // Without a name, or in a working folder that is gone, nothing will be found.
  if (error) stations = {fs::path(".") / path};
  while (stations.size() <= kMost && fs::is_symlink(stations.back(), error)) {
    const fs::path target = fs::read_symlink(stations.back(), error);
    if (error) break;
    const fs::path next = stations.back().parent_path() / target;
    stations.push_back(fs::weakly_canonical(next.parent_path(), error) / next.filename());
    if (error) break;
  }
  return stations;
}

}  // namespace

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
  // A link leads to where its own folder's owner wants: the first of them who is not root.
  for (const fs::path& station : StationsOf(path)) {
    const std::string folder = station.parent_path();
    const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!opened.is_open() || fstat(opened.get(), &status) != 0) {
      return Status::Errno("cannot open the folder of " + path);
    }
    if (status.st_uid == 0) continue;
    if (setgroups(1, &status.st_gid) != 0 || setegid(status.st_gid) != 0 ||
        seteuid(status.st_uid) != 0) {
      return Status::Errno("cannot act as the owner of " + folder);
    }
    return {};
  }
  return {};
}

std::string TargetOf(const std::string& path) { return StationsOf(path).back(); }

std::string FolderOf(const std::string& path) { return StationsOf(path).back().parent_path(); }

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator file(folder, error), end; !error && file != end;
       file.increment(error)) {
    files.push_back(file->path());
  }
  std::ranges::sort(files);
  return files;
}

NewFile::~NewFile() {
  if (file_.is_open()) Remove();
}

bool NewFile::Lock(int how) {
  struct stat named {};
  struct stat locked {};
  while (flock(file_.get(), how) != 0) {
    if (errno != EINTR) return false;
  }
  // Whoever had it may have given it its name, or removed it.
  return stat(name_.c_str(), &named) == 0 && fstat(file_.get(), &locked) == 0 &&
         named.st_dev == locked.st_dev && named.st_ino == locked.st_ino;
}

void NewFile::Remove() {
  for (const char* beside : {"", "-journal", "-wal", "-shm"}) unlink((name_ + beside).c_str());
}

Status NewFile::Begin(const std::string& path) {
  path_ = path;
  name_ = path + ".new";
  do {
    file_ = Descriptor(
        open(name_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode));
    if (!file_.is_open()) return Status::Errno("cannot create " + name_);
  } while (!Lock(LOCK_EX));
  for (const char* beside : {"-journal", "-wal", "-shm"}) unlink((name_ + beside).c_str());
  if (ftruncate(file_.get(), 0) != 0) return Status::Errno("cannot write " + name_);
  return {};
}

Status NewFile::Place() {
  if (rename(name_.c_str(), path_.c_str()) != 0) return Status::Errno("cannot create " + path_);
  file_ = Descriptor();
  return SyncFolder(FolderOf(path_));
}

void NewFile::RemoveLeft(const std::string& path) {
  NewFile left;
  left.name_ = path + ".new";
  left.file_ = Descriptor(open(left.name_.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!left.file_.is_open()) return;
  if (!left.Lock(LOCK_EX | LOCK_NB)) left.file_ = Descriptor();
}

Status SyncFolder(const std::string& folder) {
  const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor.is_open() || fsync(descriptor.get()) != 0) {
    return Status::Errno("cannot write the folder " + folder);
  }
  return {};
}

Status ShredFile(const std::string& path) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) {
    return errno == ENOENT ? Status() : Status::Errno("cannot look at " + path);
  }
  if (S_ISREG(found.st_mode)) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    const std::string zeros(static_cast<std::size_t>(found.st_size), '\0');
    if (!file.is_open() ||
        write(file.get(), zeros.data(), zeros.size()) != static_cast<ssize_t>(zeros.size()) ||
        fsync(file.get()) != 0) {
      return Status::Errno("cannot overwrite " + path);
    }
  }
  if (unlink(path.c_str()) != 0) return Status::Errno("cannot remove " + path);
  return SyncFolder(FolderOf(path));
}

}  // namespace velmora::usage_stat::store
