// usage-stat status: what was received and what became of it, as a balance sheet that adds up.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/balance.h"
#include "tools/inspector/listeners.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/record.h"
#include "tools/store/archive.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::Json;
using store::NameOf;
using store::Outcome;

struct Options {
  std::string database;
  std::string output;
};

struct Sizes {
  std::int64_t database = 0;  // with the files that SQLite keeps beside it
  std::int64_t archives = 0;
  std::size_t archive_count = 0;
};

base::Status ReadSizes(const std::string& path, store::Reader* reader, Sizes* sizes) {
  for (const char* suffix : {"", "-wal", "-shm"}) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path + suffix, error);
    if (!error) sizes->database += static_cast<std::int64_t>(size);
  }
  std::vector<store::Archive> archives;
  base::Status status = reader->ReadArchives(&archives);
  for (const store::Archive& archive : archives) {
    if (archive.state != store::ArchiveState::kComplete) continue;
    sizes->archives += archive.bytes;
    ++sizes->archive_count;
  }
  return status;
}

// Whether the process of a run has its endpoint. Process numbers alone tell nothing: a collector
// tends to get the same one at each start of a device.
bool Listens(const store::Run& run) {
  const Listener listener = FindListener(run.endpoint);
  const auto is_its_own = [&run](const Holder& holder) { return holder.pid == run.pid; };
  const bool lives = kill(static_cast<pid_t>(run.pid), 0) == 0 || errno == EPERM;
  // Another user's process does not show what it holds.
  return lives && listener.is_bound &&
         (listener.holders.empty() || std::ranges::any_of(listener.holders, is_its_own));
}

// How a run stands or ended. Whoever came later on its endpoint found that free.
const char* StateOf(const RunBalance& run) {
  if (run.run.ended_ms) return "ended";
  return run.is_latest && Listens(run.run) ? "running" : "killed";
}

// ---- As text ----

std::string Reasons(const std::map<std::string, std::int64_t>& counts) {
  std::string text;
  for (const auto& [reason, count] : counts) {
    if (count != 0) text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, reason);
  }
  return text.empty() ? "" : Printable("  (" + text + ")");
}

std::int64_t SumOf(const std::map<std::string, std::int64_t>& counts) {
  return Outcomes{0, counts, {}, 0}.Sum();
}

std::string Verdict(bool adds_up) {
  return adds_up ? Coloured(Colour::kGreen, "adds up") : Coloured(Colour::kRed, "does not add up");
}

std::string Span(std::int64_t ms) {
  const std::int64_t s = ms / 1000;
  if (s < 60) return fmt::format("{}.{:03} s", s, ms % 1000);
  if (s < 86400) return fmt::format("{}:{:02}:{:02} h", s / 3600, s / 60 % 60, s % 60);
  return fmt::format("{} days {} h", s / 86400, s / 3600 % 24);
}

void PrintOutcomes(std::string_view title, const Outcomes& outcomes) {
  Print("{:<14} {:>10} stored  {:>8} quarantined  {:>8} refused{}{}{}\n", title, outcomes.stored,
        SumOf(outcomes.quarantined), SumOf(outcomes.refused),
        outcomes.off > 0 ? fmt::format("  {:>8} off", outcomes.off) : "",
        Reasons(outcomes.quarantined), Reasons(outcomes.refused));
}

void PrintRuns(const Balance& balance) {
  constexpr std::size_t kMost = 10;
  Print("\n{}\n", Coloured(Colour::kBold, "Runs of the collector"));
  const std::size_t left_out = balance.runs.size() - std::min(balance.runs.size(), kMost);
  if (left_out > 0) Print("  {} earlier ones, which -o json tells of\n", left_out);
  for (std::size_t i = left_out; i < balance.runs.size(); ++i) {
    const RunBalance& row = balance.runs[i];
    const store::Run& run = row.run;
    if (row.gap_ms) {
      Print("  {}\n", Coloured(Colour::kYellow,
                               fmt::format("gap of {} in which nobody is known to have listened",
                                           Span(*row.gap_ms))));
    }
    Print("  {} to {}  pid {}, {}: {} received, {}\n", LocalTime(run.started_ms),
          LocalTime(run.ended_ms.value_or(run.last_commit_ms)), run.pid, StateOf(row), run.received,
          Verdict(row.adds_up()));
  }
}

void PrintText(const Options& options, const Balance& balance, const Sizes& sizes) {
  Print("{} {}\n", Coloured(Colour::kBold, "Database"), Printable(options.database));
  Print("  {}, and {} in {}\n", base::Plural(sizes.database, "byte"),
        base::Plural(sizes.archives, "byte"), base::Plural(sizes.archive_count, "archive"));
  if (balance.last) {
    Print("  last record {}, {}\n", LocalTime(balance.last->received_ms),
          Printable(balance.last->event));
  }
  Print("  {} came in the last minute, {} in the last hour, {} in the last day{}\n",
        base::Plural(balance.last_minute, "record"), balance.last_hour, balance.last_day,
        balance.archived > 0 ? ", archived ones apart" : "");
  if (balance.received == 0) {
    Write("  no application has sent anything yet; usage-stat doctor says what is in the way\n");
  }

  Print("\n{}\n", Coloured(Colour::kBold, "Received and what became of it"));
  Print("{:<14} {:>10}\n", "received", balance.received);
  PrintOutcomes("became", balance.total);
  for (const auto& [uid, outcomes] : balance.senders) {
    PrintOutcomes(fmt::format("  from uid {}", uid), outcomes);
  }
  Print("{:<14} {:>10}  {}\n", "sum", balance.total.Sum(),
        Verdict(balance.total.Sum() == balance.received));

  Print("\n{}\n", Coloured(Colour::kBold, "Kept"));
  Print(
      "  {} and {} in quarantine = {} stored + {} quarantined + {} by the collector "
      "itself - {} archived - {} deleted: {}\n",
      base::Plural(balance.records, "record"), balance.in_quarantine, balance.total.stored,
      SumOf(balance.total.quarantined), balance.own, balance.archived, balance.deleted,
      Verdict(balance.records + balance.in_quarantine == balance.expected_rows()));
  PrintRuns(balance);
}

// ---- As JSON ----

Json ToJson(const Outcomes& outcomes) {
  return {{NameOf(Outcome::kStored), outcomes.stored},
          {NameOf(Outcome::kQuarantined), SumOf(outcomes.quarantined)},
          {NameOf(Outcome::kRefused), SumOf(outcomes.refused)},
          {NameOf(Outcome::kOff), outcomes.off},
          {"quarantined_by_kind", outcomes.quarantined},
          {"refused_by_reason", outcomes.refused}};
}

void PrintJson(const Options& options, const Balance& balance, const Sizes& sizes) {
  Json senders = Json::array();
  for (const auto& [uid, outcomes] : balance.senders) {
    senders.push_back(ToJson(outcomes));
    senders.back()["uid"] = uid;
  }
  Json runs = Json::array();
  for (const RunBalance& row : balance.runs) {
    const store::Run& run = row.run;
    Json json = ToJson(row.outcomes);
    json["pid"] = run.pid;
    json["endpoint"] = run.endpoint;
    json["state"] = StateOf(row);
    json["started"] = run.started_ms;
    json["last_commit"] = run.last_commit_ms;
    json["ended"] = run.ended_ms ? Json(*run.ended_ms) : Json();
    json["gap_before"] = row.gap_ms ? Json(*row.gap_ms) : Json();
    json["received"] = run.received;
    runs.push_back(json);
  }
  Json json = {{"database", options.database},
               {"database_bytes", sizes.database},
               {"archives", sizes.archive_count},
               {"archive_bytes", sizes.archives},
               {"received", balance.received}};
  json.update(ToJson(balance.total));
  json["senders"] = senders;
  json["runs"] = runs;
  json["records"] = balance.records;
  json["in_quarantine"] = balance.in_quarantine;
  json.update(Json{{NameOf(Outcome::kOwn), balance.own},
                   {NameOf(Outcome::kArchived), balance.archived},
                   {NameOf(Outcome::kDeleted), balance.deleted}});
  json["adds_up"] = balance.adds_up();
  json["last_received"] = balance.last ? Json(balance.last->received_ms) : Json();
  json["last_event"] = balance.last ? Json(balance.last->event) : Json();
  json["last_minute"] = balance.last_minute;
  json["last_hour"] = balance.last_hour;
  json["last_day"] = balance.last_day;
  Print("{}\n", records::Dump(json, 2));
}

int Run(const Options& options) {
  std::unique_ptr<store::Reader> reader;
  Balance balance;
  Sizes sizes;
  base::Status status = store::Reader::Open(options.database, &reader);
  if (status.ok()) status = ReadBalance(reader.get(), base::NowMs(), &balance);
  if (status.ok()) status = ReadSizes(options.database, reader.get(), &sizes);
  if (!status.ok()) return Complain(kFailed, status.message);
  (options.output == "json" ? PrintJson : PrintText)(options, balance, sizes);
  return balance.adds_up() ? kOk : kFailed;
}

}  // namespace

void AddStatus(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("status", "Show what was received and what became of it");
  AddDatabaseOption(command, &options->database);
  AddOutputOption(command, &options->output, {"text", "json"});
  command.Footer("Exit code 1 when the numbers do not add up.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
