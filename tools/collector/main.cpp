// usage-stat-collector: receives the records of the device's applications and keeps them.

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <cstdlib>

#include "tools/collector/collector.h"
#include "tools/collector/endpoint.h"
#include "tools/collector/notices.h"
#include "tools/collector/options.h"

namespace collector = velmora::usage_stat::collector;

namespace {

// Holds back the signals that end the collector, in this thread and those that it starts.
sigset_t HoldEndingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// Returns at the first ending signal; another one ends the process at once.
void WaitForEnd(const sigset_t& signals) {
  int signal = 0;
  sigwait(&signals, &signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  int exit_code = EXIT_SUCCESS;
  const auto options = collector::ParseOptions(argc, argv, &exit_code);
  if (!options) return exit_code;

  // The library's readers log each field that a stranger's datagram lacks; the collector tells what
  // is worth telling.
  setenv("CORVANE_LOG_LEVEL", "0", 0);
  (void)signal(SIGPIPE, SIG_IGN);
  (void)signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes is met like a full disk
  const sigset_t signals = HoldEndingSignals();

  collector::Collector collecting(*options);
  if (const auto status = collecting.Start(); !status.ok()) {
    collector::Tell(status.message);
    return EXIT_FAILURE;
  }
  collector::Tell("listens on the endpoint " + options->endpoint);
  collector::AnnounceReadiness();
  WaitForEnd(signals);
  const collector::Totals totals = collecting.Stop();
  collector::Tell(fmt::format("{} received, {} decoded, {} quarantined, {} refused, {} off",
                              totals.received, totals.decoded, totals.quarantined, totals.refused,
                              totals.off));
  if (totals.lost > 0) {
    collector::Tell(fmt::format("{} datagrams are lost: the database could not be written in time",
                                totals.lost));
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
