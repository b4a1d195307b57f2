// Files and folders.

#ifndef TOOLS_STORE_FILE_H_
#define TOOLS_STORE_FILE_H_

#include <sys/types.h>

#include <string>

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

// The folder that holds `path`.
std::string FolderOf(const std::string& path);

// Brings the names of a folder's files to the disk.
Status SyncFolder(const std::string& folder);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_FILE_H_
