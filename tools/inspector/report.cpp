// usage-stat report: what the records of a range of time tell, as one HTML page.

#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tools/base/system.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/report/html.h"
#include "tools/report/page.h"
#include "tools/report/summary.h"

namespace velmora::usage_stat::inspector {

namespace {

struct Options {
  std::string database;
  store::Query range;
  std::string file;
  report::SummaryOptions summary;
};

int Report(const Options& options) {
  if (options.file.empty() && isatty(STDOUT_FILENO) != 0) {
    return Complain(kUsage, "a page is not for a terminal; give --output FILE");
  }
  std::unique_ptr<store::History> history;
  if (auto status = store::History::Open(options.database, &history); !status.ok()) {
    return Complain(kFailed, status.message);
  }
  const std::int64_t now_ms = base::NowMs();
  const report::Range range =
      report::CompleteRange(options.range.since_ms, options.range.until_ms, now_ms);
  report::Summary summary;
  if (auto status = report::ReadSummary(history.get(), range, options.summary, &summary);
      !status.ok()) {
    return Complain(kFailed, status.message);
  }
  summary.generated_ms = now_ms;
  for (const std::string& problem : summary.problems) Complain(kFailed, "not counted: " + problem);
  const std::string page = report::RenderPage(summary);
  if (!options.file.empty()) {
    const base::Status written = report::WritePage(options.file, page);
    return written.ok() ? kOk : Complain(kFailed, written.message);
  }
  Write(page);
  return kOk;
}

}  // namespace

void AddReport(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand(
      "report", "Sum up a range of time, the last 30 days by default, as one HTML page");
  AddDatabaseOption(command, &options->database);
  AddRangeOptions(command, &options->range);
  command.Option("-o,--output", "FILE", "File to write (default: standard output)", &options->file);
  command.Flag("--words", "Tell the words that were looked up, not only how many",
               &options->summary.with_words);
  command.OnRun([options] { return Report(*options); });
}

}  // namespace velmora::usage_stat::inspector
