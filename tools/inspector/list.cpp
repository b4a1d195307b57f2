// usage-stat list: the records that were kept.

#include <memory>
#include <string>
#include <vector>

#include "tools/command_line/command_line.h"
#include "tools/inspector/rows.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/store/reader.h"

namespace velmora::usage_stat::inspector {

namespace {

struct Options {
  std::string database;
  std::string file;
  std::string output;
  store::Query query;
};

int Run(const Options& options) {
  const RowPrinter printer(options.output);
  const auto print = [&printer](const store::RecordRow& row) {
    printer.Print(row);
    return true;
  };
  std::vector<std::string> problems;
  store::Status status;
  if (options.file.empty()) {
    std::unique_ptr<store::Journal> journal;
    status = store::Journal::Open(options.database, &journal);
    if (status.ok()) status = journal->ForEach(options.query, print, &problems);
  } else {
    std::unique_ptr<store::Reader> reader;
    status = store::Reader::Open(options.file, &reader);
    if (status.ok()) status = reader->ForEach(options.query, print);
  }
  for (const std::string& problem : problems) Complain(kFailed, problem);
  if (!status.ok()) return Complain(kFailed, status.message);
  return problems.empty() ? kOk : kFailed;
}

}  // namespace

void AddList(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("list", "Show the records that were kept");
  AddDatabaseOption(command, &options->database);
  command.Option("--file", "PATH",
                 "One database or archive alone, instead of the database with its archives",
                 &options->file);
  AddRangeOptions(command, &options->query);
  AddFilterOptions(command, &options->query);
  AddCountOption(command, &options->query.newest, "The last so many of them");
  command.Flag("-r,--reverse", "Newest first", &options->query.reverse);
  AddOutputOption(command, &options->output, RowFormats());
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
