// usage-stat: a window into the records of usage statistics.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "tools/inspector/commands.h"
#include "tools/inspector/terminal.h"

using namespace velmora::usage_stat::inspector;

namespace {

int Run(int argc, char** argv) {
  // A reader that has seen enough, such as head, is noticed where the output is written.
  (void)std::signal(SIGPIPE, SIG_IGN);
  // The library's log lines repeat what the subcommands report in their own words.
  setenv("CORVANE_LOG_LEVEL", "0", 0);

  CLI::App app("Looks into the records of usage statistics, and sends some.", "usage-stat");
  app.set_version_flag("--version", "usage-stat " USAGE_STAT_VERSION);
  app.require_subcommand(1);
  app.footer("Exit codes: 0 done, 1 failed or not sound, 2 called wrongly. See usage-stat(1).");
  app.failure_message([](const CLI::App* program, const CLI::Error& error) {
    const auto commands = program->get_subcommands();
    return fmt::format("usage-stat: {}; see usage-stat {}--help\n", Printable(error.what()),
                       commands.empty() ? "" : commands.front()->get_name() + " ");
  });
  int exit_code = kOk;
  for (const auto add : {AddList, AddFollow, AddStatus, AddDoctor, AddDecode, AddTypes, AddSend,
                         AddReplay, AddReport, AddArchive}) {
    add(&app, &exit_code);
  }

  const std::string first = argc > 1 ? argv[1] : "--help";
  const auto is_first = [&first](const CLI::App* command) { return command->check_name(first); };
  if (!first.starts_with('-') && app.get_subcommands(is_first).empty()) {
    return Complain(kUsage, fmt::format("there is no subcommand {}; see usage-stat --help", first));
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) != 0) return kUsage;
  }
  Flush();
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {  // lack of memory, for one
    (void)std::fprintf(stderr, "usage-stat: %s\n", error.what());
    return kFailed;
  }
}
