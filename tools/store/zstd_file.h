// Whole files, compressed and back, in bounded memory.

#ifndef TOOLS_STORE_ZSTD_FILE_H_
#define TOOLS_STORE_ZSTD_FILE_H_

#include <string>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Compresses the file at `from` into a new file at `to`, readable for its owner alone, and brings
// that to the disk. A file that was only begun is removed.
Status CompressFile(const std::string& from, const std::string& to);

// Whether `path` names an archive: by its ending, since a look into a database in use would disturb
// the locks of this process's connections to it.
bool IsArchive(const std::string& path);

// Unpacks the archive at `path` into the file at `unpacked_path`, which may exist. Refuses data
// that is damaged, ends early, or goes on beyond what its own first page says about its size, and
// what is no file.
Status UnpackArchive(const std::string& path, const std::string& unpacked_path);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_ZSTD_FILE_H_
