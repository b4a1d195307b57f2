// Files and folders.

#ifndef TOOLS_STORE_FILE_H_
#define TOOLS_STORE_FILE_H_

#include <string>

#include "tools/base/status.h"
#include "tools/base/system.h"

namespace velmora::usage_stat::store {

using base::Descriptor;
using base::NowMs;
using base::Status;

// The name by which SQLite opens the file at `path` without locks and without files beside it.
std::string ImmutableUri(const std::string& path);

// Makes an empty file, readable for its owner alone. One that is there already is emptied.
Status CreatePrivateFile(const std::string& path);

// The folder that holds `path`.
std::string FolderOf(const std::string& path);

// Brings the names of a folder's files to the disk.
Status SyncFolder(const std::string& folder);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_FILE_H_
