#include "tools/collector/options.h"

#include <unistd.h>

#include <cstdlib>

#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/command_line/command_line.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::collector {

namespace {

// An empty database takes some pages already; a limit below them would delete everything.
std::string TakeSizeLimit(std::uint64_t bytes, std::int64_t* limit) {
  constexpr auto kLeast = std::uint64_t{1024} * 1024;
  if (bytes != 0 && (bytes < kLeast || bytes > INT64_MAX)) {
    return "the size must be 0 or at least 1M";
  }
  *limit = static_cast<std::int64_t>(bytes);
  return {};
}

std::string TakeUid(const std::string& text, std::set<std::int64_t>* uids) {
  constexpr std::uint32_t kLargest = 4294967294;
  const auto uid = base::ParseWhole<std::uint32_t>(text);
  if (!uid || *uid > kLargest) return "\"" + text + "\" is no user id";
  uids->insert(*uid);
  return {};
}

// What the options leave open.
void Complete(Options* options) {
  if (options->endpoint.empty()) options->endpoint = base::EndpointInUse();
  if (options->database_path.empty()) options->database_path = store::DefaultDatabasePath();
  if (options->archive_directory.empty()) {
    options->archive_directory = store::DefaultArchiveDirectory(options->database_path);
  }
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int* exit_code) {
  Options options;
  options.allowed_uids = {0, geteuid()};
  std::int64_t interval_ms = options.commit_interval.count();
  bool no_store = false;
  std::string format;
  bool is_complete = false;

  CommandLine line("usage-stat-collector",
                   "Collects usage records from the applications of this device.",
                   USAGE_STAT_VERSION);
  Command command = line.main();
  command.Option("--endpoint", "NAME",
                 std::string("Listen on the abstract socket of this name (default: the environment "
                             "variable ") +
                     base::kEndpointVariable + ", else " + base::kDefaultEndpoint + ")",
                 &options.endpoint);
  command.Option("--database", "PATH",
                 "Keep the records in this file (default: the environment variable "
                 "USAGE_STAT_DATABASE, else records.db in $STATE_DIRECTORY, else "
                 "/var/lib/usage-stat/records.db)",
                 &options.database_path);
  command.Flag("--no-store", "Keep nothing", &no_store);
  command.Exclude("--no-store", "--database");
  command.Choice("--print", "FORMAT", "Show each record on standard output", {"text", "json"},
                 &format);
  command.Option("--commit-interval", "MS",
                 "Milliseconds after which a received record is in the database at the latest, as "
                 "long as the disk keeps up (default: 50)",
                 1, 60'000, &interval_ms);
  command.RepeatedOption(
      "--allow-uid", "UID",
      "Take records from this user too, beside root and the collector's own; may be given again",
      [&options](const std::string& text) { return TakeUid(text, &options.allowed_uids); });
  command.Flag("--allow-any", "Take records from every user", &options.allow_any);
  command.Option("--archive-dir", "FOLDER",
                 "Put archives into this folder (default: archives, beside the database)",
                 &options.archive_directory);
  command.Option("--keep-days", "DAYS",
                 "Delete what was received more days ago than this (default: 0, keep)", 0, 36'500,
                 &options.retention.keep_days);
  command.SizeOption("--max-size",
                     "Delete the oldest once database and archives exceed this size, such as 64M; "
                     "at least 1M (default: 0, no limit)",
                     [&options](std::uint64_t bytes) {
                       return TakeSizeLimit(bytes, &options.retention.max_bytes);
                     });
  command.Footer(
      "SIGTERM and SIGINT end it when everything received is kept; a second one ends it at once.");
  command.OnRun([&is_complete] {
    is_complete = true;
    return kOk;
  });
  *exit_code = line.Run(argc, argv);
  if (!is_complete) return std::nullopt;

  if (!format.empty()) options.print = format == "json" ? Format::kJson : Format::kText;
  options.store = !no_store;
  options.commit_interval = std::chrono::milliseconds(interval_ms);
  Complete(&options);
  return options;
}

}  // namespace velmora::usage_stat::collector
