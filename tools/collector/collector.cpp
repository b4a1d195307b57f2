#include "tools/collector/collector.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "tools/store/schema.h"

namespace velmora::usage_stat::collector {

namespace {

// What a batch takes in the database, roughly.
std::int64_t BytesOf(const store::Batch& batch) {
  constexpr std::size_t kRow = 32;
  std::size_t bytes = 0;
  for (const auto& row : batch.records) bytes += kRow + row.fields.size() + row.raw.size();
  for (const auto& row : batch.quarantine) bytes += kRow + row.reason.size() + row.raw.size();
  return static_cast<std::int64_t>(bytes);
}

}  // namespace

// A record waits for others for half of the interval; the other half is the commit's own.
Collector::Collector(const Options& options)
    : options_(options), intake_(options.commit_interval / 2) {}

base::Status Collector::Start() {
  RETURN_IF_ERROR(endpoint_.Bind(options_.endpoint));
  if (options_.store) {
    housekeeper_.emplace(options_.database_path, options_.archive_directory, options_.retention,
                         [this](const Housekeeper::Damage& damage) { NoteDamage(damage); });
    watch_.emplace(options_.database_path);
    RETURN_IF_ERROR(OpenDatabase());
  }
  if (options_.print != Format::kNone) view_.emplace();
  sorter_.emplace(options_.print, view_ ? &*view_ : nullptr);
  keeping_ = std::thread([this] { KeepAll(); });
  receiving_ = std::thread([this] { ReceiveAll(); });
  return {};
}

Totals Collector::Stop() {
  // The socket is shut before anybody is told: what was accepted until then is still received.
  endpoint_.Shut();
  stop_by_ = Clock::now() + kPatience;
  is_stopping_ = true;
  receiving_.join();
  intake_.Close();
  keeping_.join();
  housekeeper_.reset();
  // What it has met by now is acted upon: after an end in order nobody looks again.
  if (!damage_.what.empty() && damage_.database == database_) {
    if (const base::Status status = SetAside(damage_.what); !status.ok()) Tell(status.message);
  }
  if (writer_) {
    if (const base::Status status = writer_->Finish(); !status.ok()) {
      Tell("cannot note the end of this run: " + status.message);
    }
    writer_.reset();
  }
  Totals totals = sorter_->totals();
  totals.lost = lost_;
  sorter_.reset();
  view_.reset();
  return totals;
}

base::Status Collector::OpenDatabase() {
  const auto open = [this] {
    return store::Writer::Open(options_.database_path, options_.endpoint, &writer_,
                               options_.archive_directory);
  };
  base::Status status = open();
  if (store::IsDamage(status)) {
    status = SetAside(status.message);
    if (status.ok()) status = open();
  }
  if (status.ok()) database_ = housekeeper_->Opened(writer_->wants_check());
  if (status.ok()) watch_->Renew();
  return status;
}

void Collector::NoteDamage(const Housekeeper::Damage& damage) {
  {
    const std::lock_guard lock(damage_mutex_);
    damage_ = damage;
  }
  intake_.Interrupt();
}

void Collector::HandleDamage() {
  Housekeeper::Damage damage;
  {
    const std::lock_guard lock(damage_mutex_);
    std::swap(damage, damage_);
  }
  if (damage.what.empty()) return;
  if (damage.database != database_) {
    // What it was found in has been replaced meanwhile: the present one must not pay for it.
    database_ = housekeeper_->Opened(true);
    return;
  }
  base::Status status = SetAside(damage.what);
  if (status.ok()) status = OpenDatabase();
  if (!status.ok()) trouble_.Met("cannot begin a new database: " + status.message);
}

base::Status Collector::SetAside(const std::string& damage) {
  writer_.reset();
  std::string moved_path;
  base::Status status = store::SetAside(options_.database_path, &moved_path);
  if (status.ok()) {
    Tell("the database is damaged (" + damage + "): it is kept as " + moved_path +
         ", and a new one is begun; usage-stat recover may save what it still holds");
  }
  return status;
}

void Collector::ReceiveAll() {
  const auto may_send = [this](const store::Sender& sender) {
    return options_.allow_any || options_.allowed_uids.contains(sender.uid);
  };
  for (;;) {
    // Asked before the socket is found empty: what came until the stop is received.
    const bool is_stopping = is_stopping_;
    Datagram datagram;
    switch (endpoint_.Receive(may_send, &datagram)) {
      case Endpoint::Result::kDatagram:
        if (!datagram.is_refused && !switch_.Lets(datagram)) {
          datagram.is_off = true;
          datagram.bytes = {};
        }
        intake_.Put(std::move(datagram));
        break;
      case Endpoint::Result::kEmpty:
        if (is_stopping) return;
        endpoint_.Wait(watch_ ? watch_->descriptor() : -1);
        if (watch_ && watch_->HasLostAName()) intake_.Interrupt();
        break;
      case Endpoint::Result::kFailed:
        Tell(std::string("cannot receive: ") + std::strerror(errno));
        if (is_stopping) return;
        std::this_thread::sleep_for(std::chrono::seconds(1));
        break;
    }
  }
}

void Collector::KeepAll() {
  std::vector<Datagram> datagrams;
  while (intake_.Take(&datagrams)) {
    const store::Batch batch = sorter_->Sort(&datagrams);
    if (!options_.store) continue;
    // Without datagrams too: a file that lost its name is looked at before it is needed.
    Commit(batch, static_cast<std::int64_t>(datagrams.size()));
    if (sorter_->TakeRotationRequest()) housekeeper_->RequestRotation();
  }
}

void Collector::Commit(const store::Batch& batch, std::int64_t datagrams) {
  constexpr std::chrono::milliseconds kLongestPause{1000};
  for (std::chrono::milliseconds pause{20};; pause = std::min(2 * pause, kLongestPause)) {
    HandleDamage();
    base::Status status;
    if (!writer_) status = OpenDatabase();
    if (status.ok()) status = writer_->Commit(batch);
    if (status.ok()) break;
    if (store::IsMoved(status)) {
      Tell(status.message + ": what stands there now is used, or a new one is begun");
      writer_.reset();
      status = {};
    } else if (store::IsDamage(status)) {
      status = SetAside(status.message);
    }
    if (!status.ok()) {
      const bool names_it = status.message.find(options_.database_path) != std::string::npos;
      const bool begins = trouble_.Met(
          "cannot write the database" + (names_it ? std::string() : " " + options_.database_path) +
          ": " + status.message + "; nothing more is received until it can be written");
      if (begins && store::MayHideDamage(status)) housekeeper_->RequestCheck();
      if (datagrams == 0) return;  // the next one tries again
    }
    if (is_stopping_ && Clock::now() >= stop_by_.load()) {
      lost_ += datagrams;
      return;
    }
    std::this_thread::sleep_for(pause);
  }
  trouble_.Over();
  housekeeper_->Committed(BytesOf(batch));
}

}  // namespace velmora::usage_stat::collector
