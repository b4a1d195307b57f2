#include "tools/collector/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <vector>

#include "tools/store/schema.h"

namespace velmora::usage_stat::collector {

namespace {

constexpr int kUsageError = 2;

// The library's own endpoint, unless its environment names another.
std::string DefaultEndpoint() {
  const char* name = std::getenv("VELMORA_MESSAGE_ENDPOINT");
  return name && *name ? name : "usage_stat_event1";
}

// An empty database takes some pages already; a limit below them would delete everything.
CLI::Validator SizeLimit() {
  constexpr auto kLeast = std::uint64_t{1024} * 1024;
  const auto check = [](const std::string& text) {
    std::uint64_t bytes = 0;
    const bool is_number = CLI::detail::lexical_cast(text, bytes);
    return is_number && (bytes == 0 || (bytes >= kLeast && bytes <= INT64_MAX))
               ? std::string()
               : "the size must be 0 or at least 1M";
  };
  return CLI::Validator(check, "SIZE");
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int* exit_code) {
  Options options;
  std::int64_t interval_ms = options.commit_interval.count();
  std::vector<std::int64_t> uids;
  std::uint64_t max_bytes = 0;
  bool no_store = false;
  std::string format;
  constexpr std::int64_t kLargestUid = 4294967294;

  CLI::App app("Collects usage records from the applications of this device.",
               "usage-stat-collector");
  app.set_version_flag("--version", "usage-stat-collector " USAGE_STAT_VERSION);
  app.add_option("--endpoint", options.endpoint,
                 "Listen on the abstract socket of this name (default: the environment variable "
                 "VELMORA_MESSAGE_ENDPOINT, else usage_stat_event1)")
      ->option_text("NAME");
  auto* database = app.add_option("--database", options.database_path,
                                  "Keep the records in this file (default: the environment "
                                  "variable USAGE_STAT_DATABASE, else records.db in "
                                  "$STATE_DIRECTORY, else /var/lib/usage-stat/records.db)")
                       ->option_text("PATH");
  app.add_flag("--no-store", no_store, "Keep nothing")->excludes(database)->option_text(" ");
  app.add_option("--print", format, "Show each record on standard output")
      ->check(CLI::IsMember({"text", "json"}))
      ->option_text("text|json");
  app.add_option("--commit-interval", interval_ms,
                 "Milliseconds after which a received record is in the database at the latest, as "
                 "long as the disk keeps up (default: 50)")
      ->check(CLI::Range(1, 60'000))
      ->option_text("MS");
  app.add_option("--allow-uid", uids,
                 "Take records from this user too, beside root and the collector's own; may be "
                 "given again")
      ->allow_extra_args(false)
      ->check(CLI::Range(std::int64_t{0}, kLargestUid))
      ->option_text("UID");
  app.add_flag("--allow-any", options.allow_any, "Take records from every user");
  app.add_option("--archive-dir", options.archive_directory,
                 "Put archives into this folder (default: archives, beside the database)")
      ->option_text("FOLDER");
  app.add_option("--keep-days", options.retention.keep_days,
                 "Delete what was received more days ago than this (default: 0, keep)")
      ->check(CLI::Range(0, 36'500))
      ->option_text("DAYS");
  app.add_option("--max-size", max_bytes,
                 "Delete the oldest once database and archives exceed this size, such as 64M; at "
                 "least 1M (default: 0, no limit)")
      ->transform(CLI::AsSizeValue(false))
      ->check(SizeLimit())
      ->option_text("SIZE");
  app.footer(
      "SIGTERM and SIGINT end it when everything received is kept; a second one ends it at once.");

  app.failure_message([](const CLI::App* program, const CLI::Error& error) {
    return program->get_name() + ": " + error.what() + "; see " + program->get_name() + " --help\n";
  });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    *exit_code = app.exit(error) == 0 ? EXIT_SUCCESS : kUsageError;
    return std::nullopt;
  }

  if (!format.empty()) options.print = format == "json" ? Format::kJson : Format::kText;
  options.store = !no_store;
  options.commit_interval = std::chrono::milliseconds(interval_ms);
  options.allowed_uids = {0, geteuid()};
  options.allowed_uids.insert(uids.begin(), uids.end());
  options.retention.max_bytes = static_cast<std::int64_t>(max_bytes);
  if (options.endpoint.empty()) options.endpoint = DefaultEndpoint();
  if (options.database_path.empty()) options.database_path = store::DefaultDatabasePath();
  if (options.archive_directory.empty()) {
    options.archive_directory = store::DefaultArchiveDirectory(options.database_path);
  }
  return options;
}

}  // namespace velmora::usage_stat::collector
