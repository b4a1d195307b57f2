#include "fleet/uplink/visit.h"

#include <fmt/format.h>
#include <ini.h>
#include <openssl/rand.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "fleet/consent/device.h"
#include "fleet/uplink/outbox.h"
#include "src/measurements/statistics_switch.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/records/text.h"

namespace velmora::usage_stat::uplink {

using base::Status;
using Effect = Outbox::Effect;

namespace {

constexpr std::int64_t kMinuteMs = 60'000;
constexpr std::int64_t kHourMs = 60 * kMinuteMs;
constexpr std::int64_t kDayMs = std::int64_t{24} * 60 * kMinuteMs;
constexpr int kConnectPatienceMs = 30'000;
// After so many refusals of one batch it is tried once a day.
constexpr std::int64_t kRefusalsInARow = 3;

// That the fleet's answer to a request to be forgotten has come.
constexpr const char* kNoteAnswer = "CREATE TABLE IF NOT EXISTS forgotten(one INTEGER PRIMARY KEY)";
constexpr const char* kCountAnswers =
    "SELECT count(*) FROM sqlite_master WHERE name = 'forgotten' AND type = 'table'";

// A random number from 0 to `below` - 1, so that a fleet does not come all at once.
std::int64_t Jitter(std::int64_t below) {
  std::uint64_t number = 0;
  (void)RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number);
  return below <= 0 ? 0 : static_cast<std::int64_t>(number % static_cast<std::uint64_t>(below));
}

// When to come again after so many failures in a row: from a minute on, twice as long each time, a
// day at most; half of it by chance.
std::int64_t PauseMs(std::int64_t failures) {
  constexpr std::int64_t kMostDoublings = 11;
  const std::int64_t pause = std::min(kMinuteMs << std::min(failures, kMostDoublings), kDayMs);
  return pause / 2 + Jitter(pause / 2);
}

// ---- Configuration ----

Status SetNumber(std::string_view text, std::int64_t least, std::int64_t most,
                 std::int64_t* value) {
  const auto number = base::ParseWhole<std::int64_t>(text);
  if (!number || *number < least || *number > most) {
    return Status::Failed(fmt::format("\"{}\" is no number from {} to {}", text, least, most));
  }
  *value = *number;
  return {};
}

Status Set(std::string_view key, std::string_view value, SendConfig* config) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
  std::int64_t number = 0;
  fleet::BrokerOptions& broker = config->broker;
  if (key == "host") return broker.host = value, Status();
  if (key == "ca") return broker.ca_file = value, Status();
  if (key == "certificate") return config->credentials.certificate = value, Status();
  if (key == "key") return config->credentials.key = value, Status();
  if (key == "renew_days") return SetNumber(value, 0, 3650, &config->renew_days);
  if (key == "port") {
    RETURN_IF_ERROR(SetNumber(value, 1, 65'535, &number));
    broker.port = static_cast<int>(number);
    return {};
  }
  if (key == "minimum_records") return SetNumber(value, 1, kMost, &config->minimum_records);
  if (key == "longest_age_days") return SetNumber(value, 0, 365, &config->longest_age_days);
  // A batch has to fit into a day.
  constexpr std::int64_t kLeastDaily = 300'000;
  if (key == "daily_bytes") return SetNumber(value, kLeastDaily, kMost, &config->daily_bytes);
  if (key == "receipt_wait_s") return SetNumber(value, 1, 3600, &config->receipt_wait_s);
  if (key == "batch_records") {
    RETURN_IF_ERROR(SetNumber(value, 1, 65'536, &number));
    config->batch.records = static_cast<std::size_t>(number);
    return {};
  }
  return Status::Failed(fmt::format("there is no setting \"{}\"", key));
}

// ---- A visit ----

class Visit {
 public:
  Visit(const SendConfig& config, consent::State* state, Outbox* outbox)
      : config_(config), state_(state), outbox_(outbox), visits_(outbox->visits()) {}

  // What became of it; its trace stands in the outbox afterwards.
  Status Run() {
    const std::int64_t now_ms = base::NowMs();
    const std::int64_t refusals = outbox_->pending() ? outbox_->pending()->refusals : 0;
    visits_.last_ms = now_ms;
    if (visits_.day != now_ms / kDayMs) visits_.day = now_ms / kDayMs, visits_.sent_bytes = 0;
    Status status = Drain();
    if (is_forgotten_) return Vanish();
    visits_.trouble = status.message;
    if (status.ok()) {
      visits_.failures = 0;
      visits_.next_ms = is_spent_ ? (visits_.day + 1) * kDayMs + Jitter(kHourMs) : 0;
      visits_.last_success_ms = now_ms;
    } else {
      const bool gave_up = outbox_->pending() && outbox_->pending()->refusals >= kRefusalsInARow &&
                           outbox_->pending()->refusals > refusals;
      visits_.next_ms = now_ms + (gave_up ? kDayMs : PauseMs(visits_.failures));
      ++visits_.failures;
    }
    if (Status saved = outbox_->Save(visits_); status.ok()) return saved;
    return status;
  }

 private:
  Status Connect() {
    name_ = fleet::ToText(*state_->name());
    fleet::BrokerOptions broker = config_.broker;
    broker.client_id = name_;
    if (!broker.ca_file.empty()) {
      RETURN_IF_ERROR(CheckCredentials(name_, config_.credentials, base::NowMs()));
      broker.certificate_file = config_.credentials.certificate;
      broker.key_file = config_.credentials.key;
    }
    RETURN_IF_ERROR(fleet::Channel::Open(broker, kConnectPatienceMs, &channel_));
    return channel_->Follow(fleet::DownTopic(name_), kConnectPatienceMs);
  }

  Status Drain() {
    if (state_->is_forgetting()) return AskToForget();
    fleet::Batch question;
    RETURN_IF_ERROR(outbox_->Ask(&question));
    if (question.store_first == 0) return {};  // nothing waits
    RETURN_IF_ERROR(Connect());
    std::string message;
    if (std::string problem = fleet::Encode(question, &message); !problem.empty()) {
      return Status::Failed(problem);
    }
    Effect effect = Effect::kNone;
    RETURN_IF_ERROR(Exchange(question, message, &effect));
    while ((effect == Effect::kGoOn || effect == Effect::kMoved) && IsStatisticsEnabled()) {
      Prepared prepared;
      RETURN_IF_ERROR(outbox_->Prepare(config_.batch, base::NowMs(), &prepared));
      if (prepared.message.empty()) break;
      if (visits_.sent_bytes + static_cast<std::int64_t>(prepared.message.size()) >
          config_.daily_bytes) {
        is_spent_ = true;
        Tell("that is enough for today");
        break;
      }
      RETURN_IF_ERROR(Exchange(prepared.batch, prepared.message, &effect));
    }
    channel_->Close();
    if (effect == Effect::kRefused) return Status::Failed("the fleet refuses the batch");
    if (effect == Effect::kLater) return Status::Failed("the fleet can't take the batch yet");
    return {};
  }

  // Sends a batch and waits for its receipt.
  Status Exchange(const fleet::Batch& batch, const std::string& message, Effect* effect) {
    // Noted before it leaves: who is killed over and over must not send without end.
    visits_.sent_bytes += static_cast<std::int64_t>(message.size());
    RETURN_IF_ERROR(outbox_->Save(visits_));
    RETURN_IF_ERROR(channel_->Send(fleet::UpTopic(name_), message));
    const std::int64_t end_ms = base::BootMs() + config_.receipt_wait_s * 1000;
    for (*effect = Effect::kNone; *effect == Effect::kNone;) {
      fleet::Receipt receipt;
      bool is_there = false;
      RETURN_IF_ERROR(Await(end_ms, batch, &receipt, &is_there));
      if (is_there) RETURN_IF_ERROR(outbox_->Take(receipt, batch, effect));
    }
    is_forgotten_ = *effect == Effect::kForgotten;
    if (*effect == Effect::kMoved && !batch.is_question()) {
      Tell(fmt::format("records {} to {}: {} sent in {} bytes", batch.after + 1, batch.through,
                       batch.records.size(), message.size()));
    }
    return {};
  }

#ifdef USAGE_STAT_TRUST_BROKER
  // What must not be done: to take the broker's word for the fleet's. A rig is built like this to
  // show that it would see the loss.
  Status Await(std::int64_t end_ms, const fleet::Batch& batch, fleet::Receipt* receipt,
               bool* is_there) {
    std::vector<fleet::Message> messages;
    ++expected_;
    while (channel_->taken() < expected_) {
      RETURN_IF_ERROR(channel_->Receive(100, 1, &messages));
      if (base::BootMs() >= end_ms) return Status::Failed("waited in vain for the broker");
    }
    const auto answer = batch.is_question() ? fleet::Answer::kCursor : fleet::Answer::kStored;
    *receipt = {batch.id, answer, batch.store, batch.through};
    *is_there = true;
    return {};
  }
  std::uint64_t expected_ = 0;
#else
  // The next receipt, whatever it answers.
  Status Await(std::int64_t end_ms, const fleet::Batch&, fleet::Receipt* receipt, bool* is_there) {
    while (received_.empty()) {
      const std::int64_t left_ms = end_ms - base::BootMs();
      if (left_ms <= 0) {
        return Status::Failed(
            "no receipt: the fleet is away, or the broker does not let our batches through");
      }
      RETURN_IF_ERROR(channel_->Receive(static_cast<int>(left_ms), 1, &received_));
    }
    *is_there = fleet::DecodeReceipt(received_.front().payload, receipt);
    received_.erase(received_.begin());
    return {};
  }
#endif

  Status AskToForget() {
    std::int64_t answers = 0;
    RETURN_IF_ERROR(state_->connection()->Read(kCountAnswers, &answers));
    is_forgotten_ = answers > 0;
    if (is_forgotten_) return {};
    if (Status status = Connect(); !status.ok()) {
      return Status::Failed("the request to be forgotten waits: " + status.message);
    }
    fleet::Batch request;
    if (RAND_bytes(request.id.data(), static_cast<int>(request.id.size())) != 1) {
      return Status::Failed("the system gives no random numbers");
    }
    Effect effect = Effect::kNone;
    RETURN_IF_ERROR(Exchange(request, fleet::EncodeForget(request.id), &effect));
    channel_->Close();
    return effect == Effect::kForgotten ? Status() : Status::Failed("the fleet does not forget");
  }

  // The fleet has forgotten the device, and now the device itself does. Its state goes last: until
  // then it tells whoever is killed in between that there is nobody left to be asked.
  Status Vanish() {
    RETURN_IF_ERROR(state_->connection()->Execute(kNoteAnswer));
    RETURN_IF_ERROR(DestroyCredentials(config_.credentials));
    return state_->Forgotten();
  }

  static void Tell(const std::string& line) {
    if (isatty(STDOUT_FILENO) == 1) fmt::print("{}\n", line);
  }

  const SendConfig& config_;
  consent::State* const state_;
  Outbox* const outbox_;
  Visits visits_;
  std::string name_;
  std::unique_ptr<fleet::Channel> channel_;
  std::vector<fleet::Message> received_;
  bool is_forgotten_ = false;
  bool is_spent_ = false;  // what may be sent today
};

// ---- The commands ----

// Everything that a look at the device needs. Later members go first.
struct Device {
  std::unique_ptr<consent::State> state;
  consent::Policy policy;
  std::unique_ptr<Outgoing> outgoing;
  std::unique_ptr<Outbox> outbox;
};

Status OpenDevice(const SendOptions& options, consent::State::Mode mode, Device* device) {
  const bool can_write = mode == consent::State::Mode::kWrite;
  RETURN_IF_ERROR(consent::State::Open(consent::StatePath(options.folder), mode, &device->state));
  RETURN_IF_ERROR(consent::Policy::Load(options.policy, &device->policy));
  if (can_write) RETURN_IF_ERROR(consent::LookAt(options.database, device->state.get()));
  RETURN_IF_ERROR(
      Outgoing::Open(options.database, device->state.get(), device->policy, &device->outgoing));
  return Outbox::Open(device->state.get(), device->outgoing.get(), can_write, &device->outbox);
}

// Whether it is time for a visit, and if not, why.
bool IsDue(const SendConfig& config, const Device& device, std::int64_t now_ms, std::string* why) {
  const Visits& visits = device.outbox->visits();
  // A clock that went back must not put the next visit off for years.
  if (now_ms < visits.next_ms && visits.next_ms - now_ms <= 2 * kDayMs) {
    *why = visits.trouble.empty() ? "today's bytes are spent"
                                  : "the last visit failed, and its pause is not over";
    return false;
  }
  if (device.state->is_forgetting()) return true;
  const std::uint64_t waiting = device.outbox->waiting();
  if (waiting == 0) {
    *why = "nothing waits";
    return false;
  }
  if (device.outbox->pending() || waiting >= static_cast<std::uint64_t>(config.minimum_records)) {
    return true;
  }
  const std::int64_t since_ms = std::max(visits.last_success_ms, device.state->since_ms());
  *why = "too little waits, and not for long enough";
  return now_ms - since_ms >= config.longest_age_days * kDayMs || since_ms > now_ms;
}

// Tells that the certificate is to be renewed; empty when it is not, or is none.
std::string ExpiryOf(const SendConfig& config, std::int64_t now_ms) {
  Certificate certificate;
  if (config.broker.ca_file.empty() || access(config.credentials.certificate.c_str(), F_OK) != 0 ||
      !ReadCertificate(config.credentials.certificate, &certificate).ok() ||
      certificate.not_after_ms > now_ms + config.renew_days * kDayMs) {
    return {};
  }
  return fmt::format("the certificate expires at {}: renew it (usage-stat-uplink csr)",
                     records::LocalTime(certificate.not_after_ms));
}

Status SendOnce(const SendOptions& options, const SendConfig& config) {
  {
    // Without consent nothing is written and nobody is called.
    std::unique_ptr<consent::State> state;
    RETURN_IF_ERROR(consent::State::Open(consent::StatePath(options.folder),
                                         consent::State::Mode::kRead, &state));
    const bool may_send = state->level() != consent::Level::kNone && IsStatisticsEnabled();
    if (!may_send && !state->is_forgetting()) return {};
  }
  Device device;
  RETURN_IF_ERROR(OpenDevice(options, consent::State::Mode::kWrite, &device));
  if (const std::string expiry = ExpiryOf(config, base::NowMs()); !expiry.empty()) {
    Complain("usage-stat-uplink", expiry);
  }
  std::string why;
  if (!options.at_once && !IsDue(config, device, base::NowMs(), &why)) return {};
  return Visit(config, device.state.get(), device.outbox.get()).Run();
}

int Send(const SendOptions& options) {
  return consent::Exit([&]() -> Status {
    RETURN_IF_ERROR(consent::ActAsOwnerOf(options.folder));
    SendConfig config;
    RETURN_IF_ERROR(ReadConfig(options, &config));
    if (options.loop_s == 0) return SendOnce(options, config);
    for (;;) {
      if (const Status status = SendOnce(options, config); !status.ok()) {
        Complain("usage-stat-uplink", status.message);
      }
      const std::int64_t pause_ms = options.loop_s * 1000 - Jitter(options.loop_s * 100);
      const timespec pause{static_cast<time_t>(pause_ms / 1000),
                           static_cast<long>(pause_ms % 1000 * 1'000'000)};
      nanosleep(&pause, nullptr);
    }
  });
}

// Tells how the uplink fares; a failure when somebody should look after it.
Status Diagnose(const SendOptions& options) {
  RETURN_IF_ERROR(consent::ActAsOwnerOf(options.folder));
  SendConfig config;
  RETURN_IF_ERROR(ReadConfig(options, &config));
  {
    // Before anything was agreed to, and after the device was forgotten, there is nothing to open.
    std::unique_ptr<consent::State> state;
    RETURN_IF_ERROR(consent::State::Open(consent::StatePath(options.folder),
                                         consent::State::Mode::kRead, &state));
    if (state->level() == consent::Level::kNone && !state->is_forgetting()) {
      fmt::print("no consent: nothing leaves\n");
      return {};
    }
  }
  Device device;
  RETURN_IF_ERROR(OpenDevice(options, consent::State::Mode::kRead, &device));
  const std::int64_t now_ms = base::NowMs();
  const Visits& visits = device.outbox->visits();
  const auto ago = [&](std::int64_t ms) {
    return ms == 0 ? std::string("never") : fmt::format("{} min ago", (now_ms - ms) / kMinuteMs);
  };
  fmt::print("broker        {}:{}{}\n", config.broker.host, config.broker.port,
             config.broker.ca_file.empty() ? ", WITHOUT TLS" : "");
  fmt::print("waiting       {} numbers\n", device.outbox->waiting());
  fmt::print("last visit    {}, last good one {}\n", ago(visits.last_ms),
             ago(visits.last_success_ms));
  fmt::print("sent today    {} of {} bytes\n",
             visits.day == now_ms / kDayMs ? visits.sent_bytes : 0, config.daily_bytes);
  std::string why;
  bool is_due = IsDue(config, device, now_ms, &why);
  if (!IsStatisticsEnabled()) {
    is_due = false;
    why = "statistics are switched off, and nothing leaves while they are";
  }
  fmt::print("next visit    {}\n", is_due ? "is due" : "not yet: " + why);
  for (const std::string& problem : device.outgoing->problems())
    fmt::print("{}\n", records::Printable(problem));
  if (const auto& pending = device.outbox->pending(); pending && pending->refusals > 0) {
    fmt::print("refused       numbers {} to {}, {} times\n", pending->after + 1, pending->through,
               pending->refusals);
  }
  if (!config.broker.ca_file.empty()) {
    const std::string name = fleet::ToText(*device.state->name());
    if (Status status = CheckCredentials(name, config.credentials, now_ms); !status.ok()) {
      return Status::Failed(device.state->is_forgetting()
                                ? "the request to be forgotten waits: " + status.message +
                                      "; or have the fleet's operators forget " + name
                                : status.message);
    }
    Certificate certificate;
    RETURN_IF_ERROR(ReadCertificate(config.credentials.certificate, &certificate));
    fmt::print("certificate   of {}, until {}\n", certificate.name,
               records::LocalTime(certificate.not_after_ms));
  }
  if (!visits.trouble.empty()) return Status::Failed(visits.trouble);
  const std::string expiry = ExpiryOf(config, now_ms);
  return expiry.empty() ? Status() : Status::Failed(expiry);
}

// ---- The certificate ----

// Opens the state for reading, as its owner; fails without a name that could be certified.
Status OpenNamed(const SendOptions& options, std::string* name) {
  RETURN_IF_ERROR(consent::ActAsOwnerOf(options.folder));
  std::unique_ptr<consent::State> state;
  RETURN_IF_ERROR(consent::State::Open(consent::StatePath(options.folder),
                                       consent::State::Mode::kRead, &state));
  if (!state->name()) {
    return Status::Failed("nothing was agreed to: this device has no name to be certified");
  }
  *name = fleet::ToText(*state->name());
  return {};
}

Status PrintRequest(const SendOptions& options) {
  SendConfig config;
  std::string name;
  std::string request;
  RETURN_IF_ERROR(OpenNamed(options, &name));
  RETURN_IF_ERROR(ReadConfig(options, &config));
  const std::int64_t now_ms = base::NowMs();
  if (options.if_due && CheckCredentials(name, config.credentials, now_ms).ok() &&
      ExpiryOf(config, now_ms).empty()) {
    return Status::Failed("the certificate need not be renewed yet");
  }
  RETURN_IF_ERROR(MakeRequest(name, config.credentials, &request));
  fmt::print("{}", request);
  return {};
}

Status TakeCertificate(const SendOptions& options) {
  // Before root becomes somebody who may not read it.
  constexpr std::size_t kMost = 65'536;
  std::string pem(kMost, '\0');
  std::FILE* file = options.file.empty() ? stdin : std::fopen(options.file.c_str(), "r");
  if (!file) return Status::Errno("cannot open " + options.file);
  pem.resize(std::fread(pem.data(), 1, pem.size(), file));
  if (file != stdin) (void)std::fclose(file);
  SendConfig config;
  std::string name;
  RETURN_IF_ERROR(OpenNamed(options, &name));
  RETURN_IF_ERROR(ReadConfig(options, &config));
  return InstallCertificate(pem, name, config.credentials, base::NowMs());
}

}  // namespace

std::string DefaultConfigPath() { return "/etc/usage-stat/uplink.conf"; }

Status ReadConfig(const SendOptions& options, SendConfig* config) {
  const std::string& path = options.config;
  config->credentials = {options.folder + "/device.key", options.folder + "/device.pem"};
  struct Reading {
    SendConfig* config;
    Status status;
  } reading{config, {}};
  const int line = ini_parse(
      path.c_str(),
      [](void* self, const char*, const char* key, const char* value) {
        auto* into = static_cast<Reading*>(self);
        Status status = Set(key, value, into->config);
        const bool ok = status.ok();
        if (into->status.ok()) into->status = std::move(status);
        return ok ? 1 : 0;
      },
      &reading);
  if (line < 0) return Status::Errno("cannot read " + path);
  if (!reading.status.ok()) {
    return Status::Failed(fmt::format("{}:{}: {}", path, line, reading.status.message));
  }
  if (line > 0) return Status::Failed(fmt::format("{}:{}: no setting", path, line));
  return {};
}

namespace {

std::shared_ptr<SendOptions> AddOptions(Command command) {
  auto options = std::make_shared<SendOptions>();
  consent::AddDeviceOptions(command, options.get());
  command.Option("--config", "FILE",
                 "How to reach the fleet (default: /etc/usage-stat/uplink.conf)", &options->config);
  return options;
}

}  // namespace

void AddSend(CommandLine* line) {
  Command command = line->AddCommand("send", "Visit the fleet, if a visit is due");
  const auto options = AddOptions(command);
  command.Flag("--now", "Whether a visit is due or not", &options->at_once);
  command.Option("--loop", "SECONDS", "Look again and again, about so often", 1, 86'400,
                 &options->loop_s);
  command.OnRun([options] { return Send(*options); });
}

void AddCsr(CommandLine* line) {
  Command command =
      line->AddCommand("csr", "Print a request for a certificate; make the key if there is none");
  const auto options = AddOptions(command);
  command.Flag("--if-due", "Fail, and print none, while the certificate need not be renewed",
               &options->if_due);
  command.OnRun([options] { return consent::Exit([&] { return PrintRequest(*options); }); });
}

void AddCertificate(CommandLine* line) {
  Command command = line->AddCommand("certificate", "Check a certificate and put it in its place");
  const auto options = AddOptions(command);
  command.Argument("FILE", "In PEM format; standard input without it", &options->file);
  command.OnRun([options] { return consent::Exit([&] { return TakeCertificate(*options); }); });
}

void AddDoctor(CommandLine* line) {
  Command command = line->AddCommand("doctor", "Tell how the last visits went");
  const auto options = AddOptions(command);
  command.OnRun([options] { return consent::Exit([&] { return Diagnose(*options); }); });
}

}  // namespace velmora::usage_stat::uplink
