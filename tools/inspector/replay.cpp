// usage-stat replay: a captured session runs again, and the quarantine is read again.

#include <common_utilities/message_client.h>
#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "src/stat_event/event.h"
#include "src/usage_stat_client/statistics_client.h"
#include "tools/base/system.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/captured.h"
#include "tools/inspector/functions.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/record.h"
#include "tools/store/file.h"
#include "tools/store/reader.h"
#include "tools/store/schema.h"
#include "tools/store/writer.h"

namespace velmora::usage_stat::inspector {

namespace {

using base::Status;
using records::Record;

struct Options {
  std::string file;
  std::string database;
  std::string endpoint;
  std::string speed = "1";
  bool raw = false;
  bool quarantine = false;
};

// ---- Sending again ----

struct Captured {
  std::string datagram;
  Record record;
};

// Holds the original distances between records, divided by a factor.
class Pace {
 public:
  // At most this factor; without a limit for 0.
  explicit Pace(double speed) : speed_(speed) {}

  void AwaitTurnOf(long long timestamp_ms) {
    if (speed_ == 0) return;
    if (!is_started_) {
      is_started_ = true;
      latest_ms_ = timestamp_ms;
      start_ = std::chrono::steady_clock::now();
    }
    // A clock that went back meanwhile must not make the rest come late, nor one that was set from
    // 1970 to today make it wait for decades: no pause that a user made is longer than this.
    constexpr long long kLongestPauseMs = 24LL * 60 * 60 * 1000;
    const bool is_ahead = timestamp_ms > latest_ms_;
    const auto step_ms = is_ahead ? static_cast<unsigned long long>(timestamp_ms) -
                                        static_cast<unsigned long long>(latest_ms_)
                                  : 0;
    if (step_ms <= kLongestPauseMs) passed_ms_ += static_cast<double>(step_ms) / speed_;
    latest_ms_ = timestamp_ms;
    std::this_thread::sleep_until(start_ +
                                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                      std::chrono::duration<double, std::milli>(passed_ms_)));
  }

 private:
  double speed_;
  bool is_started_ = false;
  std::chrono::steady_clock::time_point start_;
  long long latest_ms_ = 0;
  double passed_ms_ = 0;
};

int SendBytes(const std::string& datagram) {
  utilities::MessageClient client;
  const int error =
      client.Init(kStatisticsEndpoint, sizeof(kStatisticsEndpoint), kLargestStatisticsMessage);
  if (error != 0) return error;
  return client.SendMessage(datagram.data(), static_cast<unsigned int>(datagram.size()));
}

// `datagram` with the time of now.
std::string Renewed(std::string datagram) {
  constexpr std::size_t kTimestampOffset = 2;
  auto now = static_cast<std::uint64_t>(base::NowMs());
  for (std::size_t i = 0; i < sizeof(now); ++i, now >>= 8) {
    datagram[kTimestampOffset + i] = static_cast<char>(now & 0xFF);
  }
  return datagram;
}

// Sends through the exported function if one sends exactly this record. `is_raw` tells that there
// was none.
int SendAgain(const Captured& captured, bool* is_raw) {
  if (const Function* sender = FindSender(captured.record.event)) {
    const auto arguments = ArgumentsFor(*sender, records::FieldsOf(captured.record));
    const CallResult result = sender->invoke(*sender, arguments);
    if (result.error.empty()) return result.value.get<int>();
    // The record holds what no caller could have passed, such as a text with a NUL.
  }
  *is_raw = true;
  return SendBytes(Renewed(captured.datagram));
}

// Tries again while the collector stays busy, which at full speed is no reason to lose a record.
int SendPatiently(const Options& options, const Captured& captured, bool* is_raw) {
  constexpr int kTries = 100;  // of a tenth of a second each
  int error = EAGAIN;
  for (int i = 0; i < kTries && error == EAGAIN; ++i) {
    error = options.raw ? SendBytes(captured.datagram) : SendAgain(captured, is_raw);
  }
  return error;
}

// What a collector wrote about its own life is no part of a session.
bool IsCollectorsOwn(const Record& record) {
  return record.type >= EventFactory::kNewJournalFile &&
         record.type <= EventFactory::kDeleteArchive;
}

int Replay(const Options& options, double speed) {
  std::vector<std::string> datagrams;
  if (const Status status = ReadCaptured(options.file, &datagrams); !status.ok()) {
    return Complain(kFailed, status.message);
  }
  UseEndpoint(options.endpoint);
  Pace pace(speed);
  std::size_t by_function = 0;
  std::size_t by_bytes = 0;
  std::size_t failed = 0;
  std::size_t left_out = 0;
  for (const std::string& datagram : datagrams) {
    const auto decoded = records::Decode(datagram);
    const auto* record = std::get_if<Record>(&decoded);
    if (!options.raw && (!record || IsCollectorsOwn(*record))) {
      ++left_out;
      continue;
    }
    if (record) pace.AwaitTurnOf(record->timestamp);
    bool is_raw = options.raw;
    const int error = SendPatiently(options, {datagram, record ? *record : Record{}}, &is_raw);
    if (error == ECONNREFUSED) {
      return Complain(kFailed,
                      fmt::format("no collector listens on \"{}\"; {} of {} records sent",
                                  base::EndpointInUse(), by_function + by_bytes, datagrams.size()));
    }
    ++(error != 0 ? failed : is_raw ? by_bytes : by_function);
    if (error > 0) Complain(kFailed, std::string("a record was not sent: ") + std::strerror(error));
  }
  Print("{} sent through exported functions, {} as bytes, {} left out, {} failed\n", by_function,
        by_bytes, left_out, failed);
  return failed == 0 ? kOk : kFailed;
}

// ---- The quarantine ----

// Moves `rows` to the records and empties it. A collector that is just committing is waited for.
Status Release(store::Connection* connection, std::vector<store::Reread>* rows,
               std::int64_t* released) {
  constexpr int kTries = 10;  // each waits for a second
  Status status;
  std::int64_t now_released = 0;
  for (int i = 0; i < kTries; ++i) {
    status = store::Release(connection, *rows, &now_released);
    if ((status.code & 0xff) != SQLITE_BUSY) break;
  }
  if (status.ok()) *released += now_released;
  rows->clear();
  return status;
}

int ReplayQuarantine(const Options& options) {
  constexpr std::size_t kRowsAtOnce = 100;  // between which a collector gets its turn
  std::unique_ptr<store::Reader> reader;
  store::Connection connection;
  Status status = store::ActAsOwnerOf(options.database);
  if (status.ok()) status = store::Reader::Open(options.database, &reader);
  if (status.ok()) status = store::OpenForWriting(options.database, &connection, nullptr);
  if (!status.ok()) return Complain(kFailed, status.message);

  std::int64_t held = 0;
  std::int64_t released = 0;
  std::vector<store::Reread> readable;
  const auto reread = [&](const store::QuarantineRow& row) {
    ++held;
    const auto decoded = records::Decode(row.raw);
    if (const auto* record = std::get_if<Record>(&decoded)) {
      store::Reread& found = readable.emplace_back();
      found.row = row;
      found.record.type = record->type;
      found.record.event = record->event;
      found.record.timestamp_ms = record->timestamp;
      found.record.fields = records::Dump(record->values);
    }
    if (readable.size() == kRowsAtOnce) status = Release(&connection, &readable, &released);
    return status.ok();
  };
  const Status reading = reader->ForEachQuarantined(reread);
  if (status.ok()) status = Release(&connection, &readable, &released);
  if (status.ok()) status = reading;
  Print("{} of {} moved from the quarantine to the records\n", released, held);
  return status.ok() ? kOk : Complain(kFailed, status.message);
}

// The factor that `text` stands for, 0 for "max"; negative when it stands for none.
double SpeedOf(const std::string& text) {
  if (text == "max") return 0;
  char* end = nullptr;
  const double speed = std::strtod(text.c_str(), &end);
  return end != text.c_str() && *end == '\0' && speed > 0 && speed <= 1e6 ? speed : -1;
}

int Run(const Options& options) {
  if (options.quarantine) return ReplayQuarantine(options);
  if (options.file.empty()) return Complain(kUsage, "replay what? Name a FILE, or --quarantine");
  const double speed = SpeedOf(options.speed);
  if (speed < 0) return Complain(kUsage, "--speed is a factor above 0, or max");
  return Replay(options, speed);
}

}  // namespace

void AddReplay(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command =
      line->AddCommand("replay", "Send captured records again, or read the quarantine again");
  command.Argument(
      "FILE", "A database, an archive, or lines from list -o json or -o raw; - for standard input",
      &options->file);
  command.Flag("--raw", "Send the very bytes, timestamps included, also of damaged records",
               &options->raw);
  command.Option("--speed", "FACTOR",
                 "Pace: a factor of the original one, or max for no waiting (default: 1)",
                 &options->speed);
  AddEndpointOption(command, &options->endpoint);
  command.Flag("--quarantine",
               "Decode the quarantine again, and move what now reads into the records with its "
               "receive time and sender",
               &options->quarantine);
  command.Exclude("--quarantine", "FILE");
  AddDatabaseOption(command, &options->database);
  command.Footer(
      "Without --raw, records go through the exported functions where one sends exactly such a\n"
      "record, and as bytes with the time of now where none does. Records that a collector wrote\n"
      "about itself, and damaged ones, are left out.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
