// Files and their owners.

#ifndef TOOLS_STORE_FILE_H_
#define TOOLS_STORE_FILE_H_

#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// An open descriptor that is closed with its owner.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  ~Descriptor() { Reset(); }
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset();
    descriptor_ = std::exchange(other.descriptor_, -1);
    return *this;
  }

  bool is_open() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  void Reset() {
    if (is_open()) close(std::exchange(descriptor_, -1));
  }

 private:
  int descriptor_ = -1;
};

// `what` and the text of errno.
Status ErrnoStatus(const std::string& what);

// The name by which SQLite opens the file at `path` without locks and without files beside it.
std::string ImmutableUri(const std::string& path);

// Makes an empty file, readable for its owner alone. One that is there already is emptied.
Status CreatePrivateFile(const std::string& path);

// The folder that holds `path`.
std::string FolderOf(const std::string& path);

// Brings the names of a folder's files to the disk.
Status SyncFolder(const std::string& folder);

// Milliseconds since the Unix epoch.
std::int64_t NowMs();

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_FILE_H_
