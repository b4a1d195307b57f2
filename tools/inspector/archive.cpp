// usage-stat archive: rotation by hand.

#include "tools/store/archive.h"

#include <memory>
#include <string>
#include <vector>

#include "tools/command_line/command_line.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/store/schema.h"

namespace velmora::usage_stat::inspector {

namespace {

struct Options {
  std::string database;
  std::string directory;
  std::string output;
};

int Run(const Options& options) {
  const std::string directory = options.directory.empty()
                                    ? store::DefaultArchiveDirectory(options.database)
                                    : options.directory;
  std::vector<store::Archive> archives;
  const store::Status status = store::ArchiveRecords(options.database, directory, &archives);
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
    Print("{} records moved to {} ({} bytes)\n", archive.records, Printable(archive.path),
          archive.bytes);
  }
  if (archives.empty()) Write("no records to move\n");
  return kOk;
}

}  // namespace

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
