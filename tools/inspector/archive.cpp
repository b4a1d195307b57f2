// usage-stat archive and recover: rotation by hand, and what is left of a damaged database.

#include "tools/store/archive.h"

#include <memory>
#include <string>
#include <vector>

#include "tools/base/text.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/record.h"
#include "tools/store/file.h"
#include "tools/store/recover.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::inspector {

namespace {

struct Options {
  std::string database;
  std::string directory;
  std::string output;
};

std::string DirectoryOf(const Options& options) {
  return options.directory.empty() ? store::DefaultArchiveDirectory(options.database)
                                   : options.directory;
}

int Run(const Options& options) {
  std::vector<store::Archive> archives;
  base::Status status = store::ActAsOwnerOf(options.database);
  if (status.ok())
    status = store::ArchiveRecords(options.database, DirectoryOf(options), &archives);
  if (!status.ok()) return Complain(kFailed, status.message);
  if (options.output == "json") {
    records::Json json = records::Json::array();
    for (const store::Archive& archive : archives) {
      json.push_back(
          {{"path", archive.path}, {"records", archive.records}, {"bytes", archive.bytes}});
    }
    Print("{}\n", records::Dump(json));
    return kOk;
  }
  for (const store::Archive& archive : archives) {
    Print("{} moved to {} ({} bytes)\n", base::Plural(archive.records, "record"),
          Printable(archive.path), archive.bytes);
  }
  if (archives.empty()) Write("no records to move\n");
  return kOk;
}

int RunRecover(const Options& options, const std::string& file) {
  store::Recovered recovered;
  base::Status status = store::ActAsOwnerOf(options.database);
  if (status.ok())
    status = store::Recover(file, options.database, DirectoryOf(options), &recovered);
  if (!status.ok()) return Complain(kFailed, status.message);
  // A file that lost its end does not tell how far its numbers went.
  Print("{} recovered, {}{} could not be read\n", base::Plural(recovered.records, "record"),
        recovered.unreadable > 0 ? "at most " : "", recovered.unreadable);
  if (recovered.left_out > 0) {
    Print("{} left out, whose numbers have a record already or were deleted\n",
          base::Plural(recovered.left_out, "record"));
  }
  for (const store::Archive& archive : recovered.archives) {
    Print("  {} to {}: {}\n", archive.first_record, archive.last_record, Printable(archive.path));
  }
  return kOk;
}

}  // namespace

void AddRecover(CommandLine* line) {
  auto options = std::make_shared<Options>();
  auto file = std::make_shared<std::string>();
  Command command =
      line->AddCommand("recover", "Save what a damaged database still holds, as an archive");
  command.Argument("FILE", "A database that was set aside, such as records.db.damaged-TIME",
                   file.get(), true);
  AddDatabaseOption(command, &options->database);
  command.Option("--directory", "FOLDER",
                 "Where the archive goes (default: archives, beside the database)",
                 &options->directory);
  command.Footer("FILE stays as it is. What could not be read is noted as missing.");
  command.OnRun([options, file] { return RunRecover(*options, *file); });
}

void AddArchive(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command =
      line->AddCommand("archive", "Move all closed records to a compressed archive file");
  AddDatabaseOption(command, &options->database);
  command.Option("--directory", "FOLDER",
                 "Where the archive goes (default: archives, beside the database)",
                 &options->directory);
  AddOutputOption(command, &options->output, {"text", "json"});
  command.Footer("Safe beside a running collector. list and replay read archives as well.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
