// usage-stat archive: rotation by hand.

#include "tools/store/archive.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "tools/inspector/commands.h"
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
  std::optional<store::Archive> archive;
  const store::Status status = store::ArchiveRecords(options.database, directory, &archive);
  if (!status.ok()) return Complain(kFailed, status.message);
  if (options.output == "json") {
    records::Json json;
    if (archive) {
      json = {{"path", archive->path}, {"records", archive->records}, {"bytes", archive->bytes}};
    }
    Print("{}\n", records::Dump(json));
  } else if (archive) {
    Print("{} records moved to {} ({} bytes)\n", archive->records, Printable(archive->path),
          archive->bytes);
  } else {
    Write("no records to move\n");
  }
  return kOk;
}

}  // namespace

void AddArchive(CLI::App* app, int* exit_code) {
  auto options = std::make_shared<Options>();
  CLI::App* command =
      app->add_subcommand("archive", "Move all closed records to a compressed archive file");
  AddDatabaseOption(command, &options->database);
  command
      ->add_option("--directory", options->directory,
                   "Where the archive goes (default: archives, beside the database)")
      ->type_name("FOLDER");
  AddOutputOption(command, &options->output, {"text", "json"});
  command->footer("Safe beside a running collector. list and replay read archives as well.");
  command->callback([options, exit_code] { *exit_code = Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
