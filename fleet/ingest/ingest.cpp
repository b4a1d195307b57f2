#include <fmt/format.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "fleet/ingest/commands.h"
#include "fleet/ingest/ledger.h"
#include "tools/base/system.h"
#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::fleet {

using base::Status;

namespace {

constexpr int kPatienceMs = 10'000;          // with a broker that is asked for something
constexpr int kIdleMs = 1000;                // how long an ending signal may go unnoticed
constexpr std::size_t kMessagesAtOnce = 32;  // in one transaction
constexpr std::int64_t kTidyMs = 3'600'000;  // between looks for days to drop
constexpr std::int64_t kLongestPauseMs = 30'000;

volatile sig_atomic_t g_ended = 0;

void Tell(const std::string& line) { Complain("usage-stat-fleet", line); }

// Pauses that grow while something is away.
class Pause {
 public:
  void Wait() {
    for (std::int64_t left = pause_ms_; left > 0 && !g_ended; left -= 100) {
      const timespec tenth{0, 100'000'000};
      nanosleep(&tenth, nullptr);
    }
    pause_ms_ = std::min(2 * pause_ms_, kLongestPauseMs);
  }
  void Reset() { pause_ms_ = kFirstMs; }

 private:
  static constexpr std::int64_t kFirstMs = 200;
  std::int64_t pause_ms_ = kFirstMs;
};

class Ingester {
 public:
  explicit Ingester(const IngestOptions& options) : options_(options) {}

  // Opens what is not open. The broker comes last: nothing is followed that can't be kept.
  Status Prepare() {
    if (!ledger_) {
      auto ledger = std::make_unique<Ledger>();
      RETURN_IF_ERROR(Ledger::Open(options_.conninfo, options_.tombstones, ledger.get()));
      std::int64_t released = 0;
      RETURN_IF_ERROR(ledger->Replay(&released));
      if (released > 0) Tell("records read again from the quarantine: " + std::to_string(released));
      ledger_ = std::move(ledger);
    }
    if (!channel_) {
      std::unique_ptr<Channel> channel;
      RETURN_IF_ERROR(Channel::Open(options_.broker, kPatienceMs, &channel));
      const std::string filter = UpTopic("+");
      RETURN_IF_ERROR(channel->Follow(
          options_.group.empty() ? filter : "$share/" + options_.group + "/" + filter,
          kPatienceMs));
      channel_ = std::move(channel);
      (void)std::puts("ready");
      (void)std::fflush(stdout);
    }
    return {};
  }

  // Takes what has come, and answers it.
  Status Step() {
    if (base::BootMs() >= next_tidy_ms_) {
      // What can't be tidied up keeps nobody's batches away.
      next_tidy_ms_ = base::BootMs() + kTidyMs;
      if (Status status = Tidy(); !status.ok()) {
        if (!ledger_) return status;
        Tell("cannot drop old days: " + status.message);
      }
    }
    std::vector<Message> messages;
    if (Status status = channel_->Receive(kIdleMs, kMessagesAtOnce, &messages); !status.ok()) {
      channel_.reset();
      return status;
    }
    std::vector<Delivery> deliveries;
    for (Message& message : messages) {
      std::string name = NameInUpTopic(message.topic);
      if (!name.empty()) deliveries.push_back({std::move(name), std::move(message.payload)});
    }
    if (deliveries.empty()) return {};
    std::vector<Reply> replies;
    if (Status status = ledger_->Take(deliveries, &replies); !status.ok()) {
      if (!ledger_->database().is_connected()) ledger_.reset();
      return status;
    }
    for (const Reply& reply : replies) {
      if (Status status = channel_->Send(DownTopic(reply.name), EncodeReceipt(reply.receipt));
          !status.ok()) {
        channel_.reset();
        return status;
      }
    }
    return {};
  }

  void Finish() {
    if (channel_) channel_->Close();
    if (!ledger_) return;
    for (const auto& [outcome, tally] : ledger_->tallies()) {
      Tell(
          fmt::format("{}: {} batches, {} records", NameOf(outcome), tally.batches, tally.records));
    }
  }

 private:
  Status Tidy() {
    std::int64_t dropped = 0;
    std::int64_t kept = 0;
    Status status = ledger_->Retire(options_.keep_days, &dropped, &kept);
    if (!status.ok() && !ledger_->database().is_connected()) ledger_.reset();
    if (dropped > 0) Tell("days dropped: " + std::to_string(dropped));
    if (kept > 0) {
      Tell("days that are due to be dropped, but not exported: " + std::to_string(kept));
    }
    return status;
  }

  const IngestOptions& options_;
  std::unique_ptr<Ledger> ledger_;
  std::unique_ptr<Channel> channel_;
  std::int64_t next_tidy_ms_ = 0;
};

}  // namespace

int Ingest(const IngestOptions& options) {
  struct sigaction action {};
  action.sa_handler = [](int) { g_ended = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  (void)signal(SIGPIPE, SIG_IGN);

  Ingester ingester(options);
  Pause pause;
  std::string told;
  while (!g_ended) {
    Status status = ingester.Prepare();
    if (status.ok()) status = ingester.Step();
    if (status.ok()) {
      pause.Reset();
      told.clear();
      continue;
    }
    // The same trouble is told once.
    if (status.message != told && !g_ended) Tell(told = status.message);
    pause.Wait();
  }
  ingester.Finish();
  return kOk;
}

}  // namespace velmora::usage_stat::fleet
