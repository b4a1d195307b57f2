// usage-stat list: the records that were kept.

#include <algorithm>
#include <memory>
#include <sstream>
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
  bool quarantine = false;
  RowLayout layout;
  store::Query query;
  std::string book;
};

int ListQuarantine(const Options& options) {
  RowLayout layout = options.layout;
  layout.is_quarantine = true;
  const RowPrinter printer(layout);
  if (!printer.mistake().empty()) return Complain(kUsage, printer.mistake());
  std::unique_ptr<store::Reader> reader;
  base::Status status =
      store::Reader::Open(options.file.empty() ? options.database : options.file, &reader);
  if (!status.ok()) return Complain(kFailed, status.message);
  printer.PrintHead();
  status = reader->ForEachQuarantined([&printer](const store::QuarantineRow& row) {
    printer.Print(row);
    return true;
  });
  return status.ok() ? kOk : Complain(kFailed, status.message);
}

int Run(const Options& options) {
  const bool is_of_csv = options.layout.iso_times || !options.layout.columns.empty();
  if (is_of_csv && options.layout.format != "csv") {
    return Complain(kUsage, "--fields and --iso are for -o csv");
  }
  if (options.quarantine) return ListQuarantine(options);
  store::Query query = options.query;
  if (const base::Status found = FindBook(options.database, options.book, &query); !found.ok()) {
    return Complain(kFailed, found.message);
  }
  RowLayout layout = options.layout;
  layout.events = query.events;
  const RowPrinter printer(layout);
  if (!printer.mistake().empty()) return Complain(kUsage, printer.mistake());
  printer.PrintHead();
  bool is_empty = true;
  const auto print = [&printer, &is_empty](const store::RecordRow& row) {
    is_empty = false;
    printer.Print(row);
    return true;
  };
  std::vector<std::string> problems;
  base::Status status;
  if (options.file.empty()) {
    std::unique_ptr<store::History> history;
    status = store::History::Open(options.database, &history);
    if (status.ok()) status = history->ForEach(query, print, &problems);
  } else {
    std::unique_ptr<store::Reader> reader;
    status = store::Reader::Open(options.file, &reader);
    if (status.ok()) status = reader->ForEach(query, print);
  }
  for (const std::string& problem : problems) Complain(kFailed, problem);
  if (!status.ok()) return Complain(kFailed, status.message);
  if (is_empty && !options.book.empty()) {
    return Complain(kFailed, "no such record names the book " + options.book);
  }
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
  AddFilterOptions(command, &options->query, &options->book);
  AddCountOption(command, &options->query.newest, "The last so many of them");
  command.Flag("-r,--reverse", "Newest first", &options->query.reverse);
  AddOutputOption(command, &options->layout.format, RowFormats());
  command.Flag("--quarantine", "What could not be read, and why, instead of records",
               &options->quarantine);
  command.Option("--fields", "NAME,...", "The columns of csv, in this order",
                 [options](const std::string& text) {
                   std::istringstream names(text);
                   for (std::string name; std::getline(names, name, ',');) {
                     options->layout.columns.push_back(name);
                   }
                   return std::string();
                 });
  command.Flag("--iso", "Times in csv as 2026-11-24T19:00:49.123Z", &options->layout.iso_times);
  for (const char* filter : {"--event", "--app", "--book", "--since", "--until", "-n", "-r"}) {
    command.Exclude("--quarantine", filter);
  }
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
