#include "tools/collector/collector.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "tools/store/schema.h"

namespace velmora::usage_stat::collector {

// A record waits for others for half of the interval; the other half is the commit's own.
Collector::Collector(const Options& options)
    : options_(options), intake_(options.commit_interval / 2) {}

base::Status Collector::Start() {
  RETURN_IF_ERROR(endpoint_.Bind(options_.endpoint));
  if (options_.store) {
    RETURN_IF_ERROR(OpenDatabase());
    housekeeper_.emplace(options_.database_path, options_.archive_directory, options_.retention);
  }
  if (options_.print != Format::kNone) view_.emplace();
  sorter_.emplace(options_.print, view_ ? &*view_ : nullptr);
  keeping_ = std::thread([this] { KeepAll(); });
  receiving_ = std::thread([this] { ReceiveAll(); });
  return {};
}

Summary Collector::Stop() {
  is_stopping_ = true;
  endpoint_.Shut();
  receiving_.join();
  intake_.Close();
  keeping_.join();
  housekeeper_.reset();
  if (writer_) {
    if (const base::Status status = writer_->Finish(); !status.ok()) {
      Tell("cannot note the end of this run: " + status.message);
    }
    writer_.reset();
  }
  const Summary summary = sorter_->summary();
  sorter_.reset();
  view_.reset();
  return summary;
}

base::Status Collector::OpenDatabase() {
  const auto open = [this] {
    return store::Writer::Open(options_.database_path, options_.endpoint, &writer_);
  };
  base::Status status = open();
  if (!store::IsDamage(status)) return status;
  status = SetAside(status.message);
  return status.ok() ? open() : status;
}

base::Status Collector::SetAside(const std::string& damage) {
  writer_.reset();
  std::string moved_path;
  base::Status status = store::SetAside(options_.database_path, &moved_path);
  if (status.ok()) {
    Tell("the database is damaged (" + damage + "): it is kept as " + moved_path +
         ", and a new one is begun");
  }
  return status;
}

void Collector::ReceiveAll() {
  for (;;) {
    // Asked before the socket is found empty: what came until the stop is received.
    const bool is_stopping = is_stopping_;
    Datagram datagram;
    switch (endpoint_.Receive(&datagram)) {
      case Endpoint::Result::kDatagram:
        if (!options_.allow_any && !options_.allowed_uids.contains(datagram.sender.uid)) {
          datagram.is_refused = true;
          datagram.bytes = {};
        }
        intake_.Put(std::move(datagram));
        break;
      case Endpoint::Result::kEmpty:
        if (is_stopping) return;
        endpoint_.Wait();
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
    Commit(batch);
    if (sorter_->TakeRotationRequest()) housekeeper_->RequestRotation();
  }
}

void Collector::Commit(const store::Batch& batch) {
  constexpr std::chrono::milliseconds kLongestPause{1000};
  for (std::chrono::milliseconds pause{20};; pause = std::min(2 * pause, kLongestPause)) {
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
      trouble_.Met("cannot write the database: " + status.message +
                   "; nothing more is received until it can be written");
    }
    std::this_thread::sleep_for(pause);
  }
  trouble_.Over();
}

}  // namespace velmora::usage_stat::collector
