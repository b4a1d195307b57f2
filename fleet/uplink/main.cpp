// usage-stat-uplink: what may leave this device, and the road it takes.

#include <malloc.h>
#include <sqlite3.h>

#include <cstdlib>

#include "fleet/consent/commands.h"
#include "fleet/uplink/preview.h"
#include "fleet/uplink/visit.h"
#include "tools/command_line/command_line.h"

namespace velmora::usage_stat {

namespace {

int Run(int argc, char** argv) {
  // The library's log lines repeat what the subcommands report in their own words.
  setenv("CORVANE_LOG_LEVEL", "0", 0);
  // SQLite gives up pages that it could read again rather than take more than this.
  constexpr sqlite3_int64 kDatabaseMemory = sqlite3_int64{1024} * 1024;
  (void)sqlite3_soft_heap_limit64(kDatabaseMemory);
#ifdef __GLIBC__
  // Blocks as large as those of the compression go back to the system when they are freed; left to
  // itself, glibc keeps them from the second one on.
  constexpr int kLargeBlock = 128 * 1024;
  (void)mallopt(M_MMAP_THRESHOLD, kLargeBlock);
#endif

  CommandLine line("usage-stat-uplink",
                   "Decides what may leave this device, shows it, and sends it.",
                   USAGE_STAT_VERSION);
  line.main().Footer("Exit codes: 0 done, 1 failed, 2 called wrongly. See usage-stat-uplink(8).");
  consent::AddConsent(&line);
  consent::AddStatus(&line);
  uplink::AddPreview(&line);
  uplink::AddSend(&line);
  uplink::AddDoctor(&line);
  uplink::AddCsr(&line);
  uplink::AddCertificate(&line);
  consent::AddForget(&line);
  consent::AddPolicy(&line);
  return line.Run(argc, argv);
}

}  // namespace

}  // namespace velmora::usage_stat

int main(int argc, char** argv) { return velmora::usage_stat::Run(argc, argv); }
