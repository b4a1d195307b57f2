// Rotation and retention, on a thread of its own beside the writing.

#ifndef TOOLS_COLLECTOR_HOUSEKEEPER_H_
#define TOOLS_COLLECTOR_HOUSEKEEPER_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "tools/collector/notices.h"
#include "tools/store/retention.h"

namespace velmora::usage_stat::collector {

class Housekeeper {
 public:
  Housekeeper(std::string database_path, std::string archive_directory, store::Retention retention);
  // Ends after what is under way.
  ~Housekeeper();
  Housekeeper(const Housekeeper&) = delete;
  Housekeeper& operator=(const Housekeeper&) = delete;

  // Asks for an archive of what has been committed. Requests that come within a minute of the last
  // archive are served together after it: an application gone wild must not make a file for each.
  void RequestRotation();

 private:
  void Run();
  // False when there is still something to archive.
  bool Rotate();
  void Retain();

  const std::string database_path_;
  const std::string archive_directory_;
  const store::Retention retention_;
  Trouble rotation_trouble_{"archiving works again"};
  Trouble retention_trouble_{"deleting of old records works again"};

  std::chrono::steady_clock::time_point next_rotation_;

  std::mutex mutex_;
  std::condition_variable wake_;
  bool is_rotation_wanted_ = false;
  bool is_ending_ = false;
  std::thread thread_;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_HOUSEKEEPER_H_
