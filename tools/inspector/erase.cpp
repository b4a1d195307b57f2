// usage-stat erase: deleting for good.

#include "tools/store/erase.h"

#include <memory>
#include <string>

#include "tools/base/text.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/store/file.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::inspector {

namespace {

struct Options {
  std::string database;
  std::string book;
  std::string directory;
  store::Query query;
  std::int64_t number = 0;
  bool all = false;
  bool yes = false;
};

bool IsNarrowed(const store::Query& query) {
  return query.since_ms || query.until_ms || !query.events.empty() || !query.applications.empty() ||
         query.after_id;
}

bool IsBareName(const std::string& book) {
  return !book.empty() && book.find('/') == std::string::npos && !book.starts_with("0x") &&
         !base::ParseWhole<std::int64_t>(book);
}

int Run(Options* options) {
  if (options->number > 0) {
    options->query.after_id = options->number - 1;
    options->query.last_id = options->number;
  }
  if (options->all == (IsNarrowed(options->query) || !options->book.empty())) {
    return Complain(kUsage, "say what to erase: --all, or a choice of records");
  }
  store::Erased erased;
  base::Status status = store::ActAsOwnerOf(options->database);
  if (status.ok()) status = FindBook(options->database, options->book, &options->query);
  // What can't be read goes with a book, so a name that was mistyped must not erase it. A number or
  // a path is taken as it is: what names it may be gone since an erasing that was interrupted.
  if (status.ok() && IsBareName(options->book)) {
    status = store::CountErasable(options->database, options->query, options->directory, &erased);
    if (status.ok() && erased.records == 0) {
      status = base::Status::Failed("no record names the book \"" + options->book +
                                    "\": give its number or its path");
    }
  }
  if (!status.ok()) return Complain(kFailed, status.message);
  status =
      options->yes
          ? store::Erase(options->database, options->query, options->directory, &erased)
          : store::CountErasable(options->database, options->query, options->directory, &erased);
  for (const std::string& damage : erased.damages) Complain(kOk, damage);
  const char* verb = options->yes ? "erased" : "to be erased";
  Print("{} {}\n", base::Plural(erased.records, "record"), verb);
  if (erased.quarantined > 0) {
    Print("{} that could not be read {}\n", base::Plural(erased.quarantined, "datagram"), verb);
  }
  for (const std::string& file : erased.files) Print("{} {}\n", Printable(file), verb);
  if (!status.ok()) {
    return Complain(kFailed, (options->yes ? "not all is erased: " : "") + status.message);
  }
  if (!options->yes) Write("Nothing was erased: add --yes to do it. It can't be undone.\n");
  return kOk;
}

}  // namespace

void AddErase(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("erase", "Delete records for good");
  AddDatabaseOption(command, &options->database);
  AddRangeOptions(command, &options->query);
  AddFilterOptions(command, &options->query, &options->book);
  command.Option("--number", "NUMBER", "The one record of this number", 1, INT64_MAX,
                 &options->number);
  command.Option("--directory", "FOLDER",
                 "Look for archives here too (default: archives, beside the database)",
                 &options->directory);
  command.Flag("--all", "Everything", &options->all);
  command.Flag("--yes", "Do it; without this, what would go is counted", &options->yes);
  command.Footer(
      "With a book go the records that carry its number; its file name may stand in the arguments "
      "of applications that were started, which go with --event StartApplicationEvent. "
      "What can't be read as a record can't be looked through, and goes as well: the quarantine, "
      "damaged databases and damaged archives. Only --number leaves them. If it is interrupted, "
      "say it again. What has left the device is another matter: see usage-stat uplink forget.");
  command.OnRun([options] { return Run(options.get()); });
}

}  // namespace velmora::usage_stat::inspector
