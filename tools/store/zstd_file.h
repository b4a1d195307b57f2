// Whole files, compressed and back, in bounded memory.

#ifndef TOOLS_STORE_ZSTD_FILE_H_
#define TOOLS_STORE_ZSTD_FILE_H_

#include <string>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Compresses the file at `from` into a new file at `to`, readable for its owner alone, and brings
// that to the disk. A file that was only begun is removed.
Status CompressFile(const std::string& from, const std::string& to);

// The way back, into a file at `to` that may exist. Data that is damaged or ends early fails.
Status DecompressFile(const std::string& from, const std::string& to);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_ZSTD_FILE_H_
