// Tells when a file lost its name: one that was removed or moved takes along what is written to it.

#ifndef TOOLS_COLLECTOR_FOLDER_WATCH_H_
#define TOOLS_COLLECTOR_FOLDER_WATCH_H_

#include <string>

#include "tools/base/system.h"

namespace velmora::usage_stat::collector {

// Looks at the folder of the database at `path` for the names of it and of the files beside it.
// What is written to them wakes nobody up. From any thread.
class FolderWatch {
 public:
  explicit FolderWatch(const std::string& path);

  // Looks at the folder in which the database is now. Where the system has nothing to look with,
  // nothing is ever told.
  void Renew();

  // Whether one of the names has gone since this was last asked.
  bool HasLostAName();

  // Becomes readable when a name in the folder has gone; -1 when nothing is ever told.
  int descriptor() const { return events_.get(); }

 private:
  const std::string path_;
  const base::Descriptor events_;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_FOLDER_WATCH_H_
