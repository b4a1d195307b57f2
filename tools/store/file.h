// Files and folders.

#ifndef TOOLS_STORE_FILE_H_
#define TOOLS_STORE_FILE_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "tools/base/status.h"
#include "tools/base/system.h"

namespace velmora::usage_stat::store {

using base::Descriptor;
using base::NowMs;
using base::Status;

// The name by which SQLite opens the file at `path` without locks and without files beside it.
std::string ImmutableUri(const std::string& path);

// What records are kept in is readable for its owner and its group.
constexpr mode_t kFileMode = 0640;
constexpr mode_t kFolderMode = 0750;

// Makes an empty file with kFileMode. One that is there already is emptied.
Status CreatePrivateFile(const std::string& path);

// Has root act as the owner of the folder that holds the database at `path`, from now on: whoever
// owns a folder can lead whoever trusts it to any other file. Does nothing for anybody else.
Status ActAsOwnerOf(const std::string& path);

// What `path` stands for when it is a symbolic link, or a chain of them, whether that exists or
// not; else the absolute path. What belongs to a file lies beside the file, not beside a link.
std::string TargetOf(const std::string& path);

// The folder that holds the target of `path`.
std::string FolderOf(const std::string& path);

// The paths of what `folder` holds, in order; when it can't be read, as far as it can.
std::vector<std::string> FilesIn(const std::string& folder);

// A file that is made under another name and gets its own when it is complete: nobody ever meets
// a half of it. One process at a time makes it, others wait. What one leaves behind that was killed
// the next one removes.
class NewFile {
 public:
  NewFile() = default;
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Makes an empty file beside `path`.
  Status Begin(const std::string& path);
  // Gives it the name `path`, in the place of what has it.
  Status Place();

  const std::string& name() const { return name_; }

  // Removes what a killed process left behind of the file at `path`.
  static void RemoveLeft(const std::string& path);

 private:
  bool Lock(int how);
  void Remove();

  std::string path_;
  std::string name_;
  Descriptor file_;  // locked
};

// Brings the names of a folder's files to the disk.
Status SyncFolder(const std::string& folder);

// Removes a file for good, on the disk: what an unlinked one held could still be found there, so it
// is overwritten first. Of a symbolic link the link alone goes. One that is not there is no
// failure.
Status ShredFile(const std::string& path);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_FILE_H_
