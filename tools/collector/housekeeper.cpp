#include "tools/collector/housekeeper.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "tools/store/archive.h"
#include "tools/store/reader.h"
#include "tools/store/recover.h"
#include "tools/store/schema.h"
#include "tools/store/upgrade.h"

namespace velmora::usage_stat::collector {

namespace {

// When what failed is tried again, at first.
constexpr std::chrono::seconds kRetry{10};

constexpr std::chrono::minutes kRotationPause{1};

// How often age is looked at, and the whole file.
constexpr std::chrono::hours kAgeRound{6};
constexpr std::chrono::hours kCheckRound{24};

// When something is due that may fail for a moment or for ever: then it is tried again, but less
// and less often.
class Due {
 public:
  using Clock = std::chrono::steady_clock;

  bool is_now() const { return Clock::now() >= next_; }
  Clock::time_point next() const { return next_; }
  bool is_set() const { return next_ != Clock::time_point::max(); }
  // From now on, though not before `earliest`.
  void Begin(Clock::time_point earliest = {}) {
    pause_ = kRetry;
    next_ = std::max(Clock::now(), earliest);
  }
  void End(Clock::time_point again = Clock::time_point::max()) {
    pause_ = kRetry;
    next_ = again;
  }
  void Fail() {
    next_ = Clock::now() + pause_;
    pause_ = std::min<std::chrono::seconds>(2 * pause_, kAgeRound);
  }

 private:
  std::chrono::seconds pause_ = kRetry;
  Clock::time_point next_ = Clock::time_point::max();
};

}  // namespace

Housekeeper::Housekeeper(std::string database_path, std::string archive_directory,
                         store::Retention retention, std::function<void(const Damage&)> on_damage)
    : database_path_(std::move(database_path)),
      archive_directory_(std::move(archive_directory)),
      retention_(retention),
      on_damage_(std::move(on_damage)),
      thread_([this] { Run(); }) {}

Housekeeper::~Housekeeper() {
  {
    const std::lock_guard lock(mutex_);
    is_ending_ = true;
  }
  wake_.notify_one();
  has_retained_.notify_all();
  thread_.join();
}

std::int64_t Housekeeper::Opened(bool check) {
  const std::lock_guard lock(mutex_);
  is_opened_ = true;
  is_check_wanted_ = is_check_wanted_ || check;
  wake_.notify_one();
  return ++opened_;
}

void Housekeeper::RequestRotation() {
  const std::lock_guard lock(mutex_);
  is_rotation_wanted_ = true;
  wake_.notify_one();
}

void Housekeeper::RequestCheck() {
  const std::lock_guard lock(mutex_);
  is_check_wanted_ = true;
  wake_.notify_one();
}

void Housekeeper::Committed(std::int64_t bytes) {
  if (!limits_size()) return;
  const std::int64_t look_after =
      std::max<std::int64_t>(retention_.max_bytes / 64, std::int64_t{64} * 1024);
  const std::int64_t wait_after =
      std::max<std::int64_t>(retention_.max_bytes / 8, std::int64_t{1024} * 1024);
  constexpr std::chrono::seconds kLongestWait{1};
  std::unique_lock lock(mutex_);
  committed_bytes_ += bytes;
  if (committed_bytes_ < look_after) return;
  wake_.notify_one();
  has_retained_.wait_for(lock, kLongestWait,
                         [&] { return committed_bytes_ < wait_after || is_ending_; });
}

bool Housekeeper::IsEnding() {
  const std::lock_guard lock(mutex_);
  return is_ending_;
}

void Housekeeper::Run() {
  const std::int64_t look_after =
      std::max<std::int64_t>(retention_.max_bytes / 64, std::int64_t{64} * 1024);
  const bool has_retention = retention_.keep_days > 0 || limits_size();
  Due preparing;
  Due rotation;
  Due age;
  auto next_check = Clock::now() + kCheckRound;
  Clock::time_point next_rotation;
  bool is_adoption_due = false;
  std::unique_lock lock(mutex_);
  const auto has_work = [&] {
    return is_ending_ || is_opened_ || is_rotation_wanted_ || is_check_wanted_ ||
           (limits_size() && committed_bytes_ >= look_after);
  };
  // A check that is due is not put off: after an end in order nobody would look again.
  while (!is_ending_ || is_rotation_wanted_ || is_check_wanted_) {
    auto next = std::min({next_check, rotation.next(), preparing.next()});
    if (has_retention) next = std::min(next, age.next());
    wake_.wait_until(lock, next, has_work);
    const bool is_opened = std::exchange(is_opened_, false);
    database_ = opened_;
    const bool is_full = limits_size() && committed_bytes_ >= look_after;
    const bool is_check_due = std::exchange(is_check_wanted_, false) || Clock::now() >= next_check;
    // What is asked for after a failure joins what is tried again anyway.
    if (std::exchange(is_rotation_wanted_, false) && !rotation.is_set()) {
      rotation.Begin(next_rotation);
    }
    if (is_full) {
      committed_bytes_ = 0;
      has_retained_.notify_all();
    }
    lock.unlock();
    if (is_opened) {
      is_adoption_due |= is_check_due;
      preparing.Begin();
      age.Begin();
    }
    if (preparing.is_now()) Prepare(&is_adoption_due) ? preparing.End() : preparing.Fail();
    if (rotation.is_now()) {
      const bool is_done = Rotate();
      is_done ? rotation.End() : rotation.Fail();
      if (is_done) next_rotation = Clock::now() + kRotationPause;
    }
    const bool is_age_due = age.is_now();
    if (has_retention && (is_full || is_age_due)) {
      const bool is_done = Retain(is_age_due);
      if (is_age_due) is_done ? age.End(Clock::now() + kAgeRound) : age.Fail();
    }
    if (is_check_due) {
      Check();
      next_check = Clock::now() + kCheckRound;
    }
    lock.lock();
    has_retained_.notify_all();
  }
}

bool Housekeeper::Prepare(bool* is_adoption_due) {
  std::vector<std::string> adopted;
  std::vector<std::string> problems;
  std::vector<std::string> damages;
  base::Status status = store::FinishArchives(database_path_);
  if (status.ok() && *is_adoption_due) {
    status = store::AdoptArchives(database_path_, archive_directory_, &adopted, &problems);
    *is_adoption_due = !status.ok();
  }
  if (status.ok()) {
    status = store::GoOnUpgrading(
        database_path_, archive_directory_, [this] { return IsEnding(); }, &damages);
  }
  for (const std::string& path : adopted) Tell("the archive " + path + " belongs to it now");
  for (const std::string& damage : damages) Tell(damage);
  // There may be any number of strangers' files.
  Flood flood;
  for (const std::string& problem : problems) flood.Tell("an archive is left aside: " + problem);
  flood.Flush();
  Handle(status, "older files can't be put in order", &preparing_trouble_);
  return status.ok();
}

bool Housekeeper::Rotate() {
  std::vector<store::Archive> archives;
  const base::Status status = store::ArchiveRecords(database_path_, archive_directory_, &archives);
  Handle(status, "cannot archive", &rotation_trouble_);
  return status.ok();
}

bool Housekeeper::Retain(bool by_age) {
  // At the first start there is nothing to delete from yet.
  std::error_code unknown;
  const auto found = std::filesystem::status(database_path_, unknown).type();
  if (found == std::filesystem::file_type::not_found) return true;
  store::Retention due = retention_;
  if (!by_age) due.keep_days = 0;
  const base::Status status = store::ApplyRetention(database_path_, due);
  Handle(status, "cannot delete old records", &retention_trouble_);
  return status.ok();
}

// A look at every page, in a connection of its own: what is damaged is found before it is needed.
void Housekeeper::Check() {
  std::unique_ptr<store::Reader> reader;
  base::Status status = store::Reader::Open(database_path_, &reader);
  if (status.ok()) status = store::CheckPages(&reader->connection());
  reader.reset();
  if (store::IsDamage(status)) TellDamage(status);
}

void Housekeeper::Handle(const base::Status& status, const char* what, Trouble* trouble) {
  if (status.ok()) return trouble->Over();
  if (store::IsDamage(status)) return TellDamage(status);
  const bool begins = trouble->Met(std::string(what) + ": " + status.message);
  // Rows that the tables don't allow are damage, too: a check tells. A disk that is full is not
  // worth many.
  const bool is_constraint = (status.code & 0xff) == SQLITE_CONSTRAINT;
  if (is_constraint || (begins && store::MayHideDamage(status))) Check();
}

void Housekeeper::TellDamage(const base::Status& status) {
  on_damage_({status.message, database_});
}

}  // namespace velmora::usage_stat::collector
