// usage-stat: a window into the records of usage statistics.

#include <csignal>
#include <cstdlib>

#include "tools/inspector/commands.h"
#include "tools/inspector/terminal.h"

namespace velmora::usage_stat::inspector {

namespace {

int Run(int argc, char** argv) {
  // A reader that has seen enough, such as head, is noticed where the output is written.
  (void)std::signal(SIGPIPE, SIG_IGN);
  // The library's log lines repeat what the subcommands report in their own words.
  setenv("CORVANE_LOG_LEVEL", "0", 0);

  CommandLine line("usage-stat", "Looks into the records of usage statistics, and sends some.",
                   USAGE_STAT_VERSION);
  line.main().Footer(
      "Exit codes: 0 done, 1 failed or not sound, 2 called wrongly. See usage-stat(1).");
  for (const auto add : {AddList, AddFollow, AddSql, AddStatus, AddDoctor, AddDecode, AddTypes,
                         AddSend, AddReplay, AddArchive, AddRecover, AddErase, AddUplink}) {
    add(&line);
  }
#ifdef USAGE_STAT_HAS_REPORT
  AddReport(&line);
#endif
  const int exit_code = line.Run(argc, argv);
  Flush();
  return exit_code;
}

}  // namespace

}  // namespace velmora::usage_stat::inspector

int main(int argc, char** argv) { return velmora::usage_stat::inspector::Run(argc, argv); }
