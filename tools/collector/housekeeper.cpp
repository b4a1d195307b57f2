#include "tools/collector/housekeeper.h"

#include <chrono>
#include <utility>
#include <vector>

#include "tools/store/archive.h"

namespace velmora::usage_stat::collector {

namespace {

// How often age and size are looked at, and a failed rotation is tried again.
constexpr std::chrono::seconds kRound{10};

constexpr std::chrono::minutes kRotationPause{1};

}  // namespace

Housekeeper::Housekeeper(std::string database_path, std::string archive_directory,
                         store::Retention retention)
    : database_path_(std::move(database_path)),
      archive_directory_(std::move(archive_directory)),
      retention_(retention),
      thread_([this] { Run(); }) {}

Housekeeper::~Housekeeper() {
  {
    const std::lock_guard lock(mutex_);
    is_ending_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void Housekeeper::RequestRotation() {
  const std::lock_guard lock(mutex_);
  is_rotation_wanted_ = true;
  wake_.notify_one();
}

void Housekeeper::Run() {
  if (const base::Status status = store::FinishArchives(database_path_); !status.ok()) {
    rotation_trouble_.Met("cannot finish the archive that was begun: " + status.message);
  }
  std::unique_lock lock(mutex_);
  bool is_rotation_due = false;
  while (!is_ending_ || is_rotation_wanted_) {
    is_rotation_due |= std::exchange(is_rotation_wanted_, false);
    lock.unlock();
    if (is_rotation_due) is_rotation_due = !Rotate();
    Retain();
    lock.lock();
    wake_.wait_for(lock, kRound, [this] { return is_ending_ || is_rotation_wanted_; });
  }
}

bool Housekeeper::Rotate() {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_rotation_) return false;
  std::vector<store::Archive> archives;
  const base::Status status = store::ArchiveRecords(database_path_, archive_directory_, &archives);
  if (status.ok()) {
    next_rotation_ = now + kRotationPause;
    rotation_trouble_.Over();
  } else {
    rotation_trouble_.Met("cannot archive: " + status.message);
  }
  return status.ok();
}

void Housekeeper::Retain() {
  if (retention_.keep_days == 0 && retention_.max_bytes == 0) return;
  const base::Status status = store::ApplyRetention(database_path_, retention_);
  if (status.ok()) {
    retention_trouble_.Over();
  } else {
    retention_trouble_.Met("cannot delete old records: " + status.message);
  }
}

}  // namespace velmora::usage_stat::collector
