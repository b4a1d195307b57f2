#include "fleet/lake/commands.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "fleet/lake/fleet_summary.h"
#include "fleet/lake/lake.h"
#include "fleet/lake/tables.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/report/html.h"

namespace velmora::usage_stat::fleet {

namespace {

using base::Status;
using report::Day;

int Finish(const Status& status) {
  return status.ok() ? kOk : Complain("usage-stat-fleet", status.message);
}

Command::Take DayInto(std::string* day) {
  return [day](const std::string& text) -> std::string {
    *day = text;
    return report::ParseIsoDate(text) ? "" : "it is no day, such as 2026-05-09";
  };
}

Day Today() {
  constexpr std::int64_t kDayMs = std::int64_t{24} * 3600 * 1000;
  return static_cast<Day>(base::NowMs() / kDayMs);
}

// ---- export ----

struct ExportOptions {
  std::string database;
  std::string folder;
  std::string day;
  std::string since;
  int keep_months = 13;
  std::string memory = "1GB";
  bool keep_figures = false;
};

// The days to export: those that were asked for, or those that were not exported yet.
Status DaysToExport(const ExportOptions& options, Database* database,
                    std::vector<std::string>* days) {
  if (!options.day.empty()) {
    *days = {options.day};
    return {};
  }
  const std::string wanted = options.since.empty()
                                 ? "day NOT IN (SELECT day FROM exports WHERE verified IS NOT NULL)"
                                 : fmt::format("day >= '{}'", options.since);
  nlohmann::json rows;
  RETURN_IF_ERROR(database->Ask(
      "SELECT DISTINCT day::text AS day FROM ingestion WHERE day < (now() AT TIME ZONE "
      "'UTC')::date AND " +
          wanted + " ORDER BY 1",
      &rows));
  for (const auto& row : rows) days->push_back(row["day"].get<std::string>());
  return {};
}

Status Export(const ExportOptions& options) {
  Database database;
  RETURN_IF_ERROR(Database::Open(options.database, &database));
  std::unique_ptr<Lake> lake;
  RETURN_IF_ERROR(Lake::Open(options.folder, options.memory, &lake));
  std::vector<std::string> days;
  RETURN_IF_ERROR(DaysToExport(options, &database, &days));
  for (const std::string& day : days) {
    std::int64_t records = 0;
    RETURN_IF_ERROR(lake->Export(&database, day, &records));
    std::cout << fmt::format("{}: {}", day, base::Plural(records, "record")) << std::endl;
  }
  // After the days: who was forgotten while they were written is forgotten in them too.
  nlohmann::json rows;
  RETURN_IF_ERROR(database.Ask("SELECT name FROM forgotten ORDER BY name", &rows));
  std::vector<std::string> names;
  for (const auto& row : rows) names.push_back(row["name"].get<std::string>());
  std::int64_t rewritten = 0;
  RETURN_IF_ERROR(lake->Forget(names, &rewritten));
  if (rewritten > 0)
    std::cout << fmt::format("forgotten: {} rewritten\n", base::Plural(rewritten, "file"));
  if (!options.keep_figures) RETURN_IF_ERROR(database.Execute(RefreshSql()));
  RETURN_IF_ERROR(database.Ask(
      fmt::format("SELECT ((now() AT TIME ZONE 'UTC')::date - interval '{} months')::date::text "
                  "AS day",
                  options.keep_months),
      &rows));
  return lake->RemoveBefore(rows[0]["day"].get<std::string>());
}

// ---- report ----

struct ReportOptions {
  std::string database;
  std::string folder;
  std::string since;
  std::string until;
  std::string file;
  std::string memory = "1GB";
};

Status Report(const ReportOptions& options) {
  // Days are those of UTC, also where the page's blocks ask for local ones.
  setenv("TZ", "UTC0", 1);
  constexpr Day kWeeks = 13;
  Days days;
  days.last = options.until.empty() ? Today() - 1 : *report::ParseIsoDate(options.until);
  days.first =
      options.since.empty() ? days.last + 1 - 7 * kWeeks : *report::ParseIsoDate(options.since);
  if (days.first > days.last) return Status::Failed("the range of days is empty");

  std::unique_ptr<Lake> lake;
  Database database;
  std::unique_ptr<FleetSource> source;
  if (!options.folder.empty()) {
    RETURN_IF_ERROR(Lake::Open(options.folder, options.memory, &lake));
    source = SourceOf(lake.get());
  } else {
    RETURN_IF_ERROR(Database::Open(options.database, &database));
    source = SourceOf(&database);
  }
  FleetSummary summary;
  RETURN_IF_ERROR(ReadFleetSummary(source.get(), days, &summary));
  summary.generated_ms = base::NowMs();
  const std::string page = RenderFleetPage(summary);
  if (!options.file.empty()) return report::WritePage(options.file, page);
  std::cout << page << std::flush;
  return std::cout ? Status() : Status::Failed("cannot write to the standard output");
}

}  // namespace

void AddExport(CommandLine* line) {
  auto options = std::make_shared<ExportOptions>();
  Command command = line->AddCommand(
      "export",
      "Write the records of whole days to Parquet files, those not written yet by default");
  command.Option("--database", "CONNINFO",
                 "The PostgreSQL database (default: what PGHOST, PGDATABASE and so on tell)",
                 &options->database);
  command.Option("--to", "FOLDER", "The lake; it is made when there is none", &options->folder);
  command.Option("--day", "DAY", "This day alone, again if need be", DayInto(&options->day));
  command.Option("--since", "DAY", "All days from this one on, again if need be",
                 DayInto(&options->since));
  command.Exclude("--day", "--since");
  command.Flag("--keep-figures", "Leave the figures of the role reader as they are",
               &options->keep_figures);
  command.Option("--keep-months", "COUNT", "Remove days that are older", 1, 1200,
                 &options->keep_months);
  command.Option("--memory", "SIZE", "Memory to sort in, such as 4GB; the rest goes to a file",
                 &options->memory);
  command.OnRead([options] { return options->folder.empty() ? "--to is required" : ""; });
  command.OnRun([options] { return Finish(Export(*options)); });
}

void AddReport(CommandLine* line) {
  auto options = std::make_shared<ReportOptions>();
  Command command = line->AddCommand(
      "report", "Sum up a range of days, the last 13 weeks by default, as one page");
  command.Option("--database", "CONNINFO", "Read from this database", &options->database);
  command.Option("--from", "FOLDER", "Read from this lake", &options->folder);
  command.Exclude("--database", "--from");
  command.Option("--since", "DAY", "The first day, UTC", DayInto(&options->since));
  command.Option("--until", "DAY", "The last day, UTC", DayInto(&options->until));
  command.Option("-o,--output", "FILE", "File to write (default: standard output)", &options->file);
  command.Option("--memory", "SIZE", "Memory to use on a lake, such as 4GB", &options->memory);
  command.OnRun([options] { return Finish(Report(*options)); });
}

void AddSql(CommandLine* line) {
  Command command = line->AddCommand(
      "sql", "Print the SQL that makes typed views for the roles analyst and reader");
  command.OnRun([] {
    std::cout << ViewsSql() << std::flush;
    return std::cout ? kOk : kFailed;
  });
}

}  // namespace velmora::usage_stat::fleet
