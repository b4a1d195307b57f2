// Rotation, retention, upgrades and checks, on a thread of its own beside the writing. It wakes up
// only when there is something to do.

#ifndef TOOLS_COLLECTOR_HOUSEKEEPER_H_
#define TOOLS_COLLECTOR_HOUSEKEEPER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "tools/base/status.h"
#include "tools/collector/notices.h"
#include "tools/store/retention.h"

namespace velmora::usage_stat::collector {

class Housekeeper {
 public:
  // What is wrong with a database, and which one it was, as Opened() counts them.
  struct Damage {
    std::string what;
    std::int64_t database = 0;
  };

  // `on_damage` is called, on the housekeeper's thread, when the database is found to be damaged.
  Housekeeper(std::string database_path, std::string archive_directory, store::Retention retention,
              std::function<void(const Damage&)> on_damage);
  // Ends after what is under way.
  ~Housekeeper();
  Housekeeper(const Housekeeper&) = delete;
  Housekeeper& operator=(const Housekeeper&) = delete;

  // A database was opened. What came before is finished; with `check` archives are adopted, and the
  // file is looked through. Returns how many were opened so far.
  std::int64_t Opened(bool check);

  // Asks for an archive of what has been committed. Requests that come within a minute of the last
  // archive are served together after it: an application gone wild must not make a file for each.
  void RequestRotation();

  // Asks for a look at every page.
  void RequestCheck();

  // Tells that so many bytes were committed. Waits while deleting lags far behind: a flood must not
  // grow the database without bound.
  void Committed(std::int64_t bytes);

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  // False when there is something left to do; also of the adoption of archives, should that be due.
  bool Prepare(bool* is_adoption_due);
  // False when it failed.
  bool Rotate();
  // False when not all could be deleted.
  bool Retain(bool by_age);
  void Check();
  // Tells of a failure, and of damage to whom it concerns.
  void Handle(const base::Status& status, const char* what, Trouble* trouble);
  void TellDamage(const base::Status& status);
  bool limits_size() const { return retention_.max_bytes > 0; }
  bool IsEnding();

  const std::string database_path_;
  const std::string archive_directory_;
  const store::Retention retention_;
  const std::function<void(const Damage&)> on_damage_;
  Trouble preparing_trouble_{"older files are in order"};
  Trouble rotation_trouble_{"archiving works again"};
  Trouble retention_trouble_{"deleting of old records works again"};

  std::int64_t database_ = 0;  // the one that is looked after now

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable has_retained_;
  std::int64_t opened_ = 0;
  bool is_opened_ = false;
  bool is_check_wanted_ = false;
  bool is_rotation_wanted_ = false;
  std::int64_t committed_bytes_ = 0;  // since deleting last looked
  bool is_ending_ = false;
  std::thread thread_;
};

}  // namespace velmora::usage_stat::collector

#endif  // TOOLS_COLLECTOR_HOUSEKEEPER_H_
