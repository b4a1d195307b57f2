// usage-stat-fleet: takes the batches of devices into the fleet's database, and tells what is
// there.

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fleet/batch/batch.h"
#include "fleet/ingest/commands.h"
#include "fleet/ingest/ledger.h"
#include "fleet/lake/commands.h"
#include "tools/command_line/command_line.h"

using namespace velmora::usage_stat;

namespace {

int Forget(const fleet::IngestOptions& options, const std::string& name) {
  fleet::Ledger ledger;
  fleet::Id id{};
  if (!fleet::FromText(name, &id)) {
    return Complain("usage-stat-fleet", "\"" + name + "\" is no device's name", kUsage);
  }
  base::Status status = fleet::Ledger::Open(options.conninfo, options.tombstones, &ledger);
  if (status.ok()) status = ledger.Forget(name);
  return status.ok() ? kOk : Complain("usage-stat-fleet", status.message);
}

}  // namespace

int main(int argc, char** argv) {
  // The library's readers log each field that a stranger's record lacks.
  setenv("CORVANE_LOG_LEVEL", "0", 0);
  fleet::IngestOptions options;
  options.broker.client_id = fmt::format("usage-stat-fleet-{}", getpid());
  std::string name;
  std::string metrics_file;
  bool each = false;

  CommandLine line("usage-stat-fleet", "Keeps what the devices of a fleet send.",
                   USAGE_STAT_VERSION);
  const auto add = [&](const char* command_name, const char* description) {
    Command command = line.AddCommand(command_name, description);
    command.Option("--database", "CONNINFO",
                   "The PostgreSQL database, such as \"host=db dbname=fleet\" (what is left open, "
                   "the variables PGHOST, PGDATABASE and so on tell)",
                   &options.conninfo);
    return command;
  };
  const auto add_tombstones = [&](Command command) {
    command.Option("--tombstones", "FILE",
                   "The names of forgotten devices, kept outside the database so that no dump "
                   "brings them back",
                   &options.tombstones);
  };
  const auto add_keep_days = [&](Command command) {
    command.Option("--keep-days", "DAYS",
                   "Drop records this many days after they came, once they are exported (default: "
                   "30)",
                   1, 36'500, &options.keep_days);
  };

  Command ingest = add("ingest", "Receive batches until a signal ends it");
  add_tombstones(ingest);
  add_keep_days(ingest);
  ingest.Option("--host", "NAME", "The broker (default: localhost)", &options.broker.host);
  ingest.Option("--port", "NUMBER", "Its port (default: 8883)", 1, 65'535, &options.broker.port);
  ingest.Option("--client-id", "TEXT", "Our name there, which no other client may have",
                &options.broker.client_id);
  ingest.Option("--ca", "FILE", "Who signed the broker's certificate; without it there is no TLS",
                &options.broker.ca_file);
  ingest.Option("--certificate", "FILE", "Our certificate", &options.broker.certificate_file);
  ingest.Option("--key", "FILE", "Its key", &options.broker.key_file);
  ingest.Option("--group", "NAME",
                "Share the batches with the other ingesters of this group, if the broker can",
                &options.group);
  ingest.OnRun([&] { return fleet::Ingest(options); });

  Command status = add("status", "The balance sheet: announced = stored + quarantined + missing");
  status.Flag("--each", "Every store of every device too", &each);
  status.OnRun([&] { return fleet::PrintStatus(options.conninfo, each); });

  Command doctor = add("doctor", "Look for what an operator should know");
  add_tombstones(doctor);
  add_keep_days(doctor);
  doctor.OnRun([&] {
    return fleet::PrintDiagnosis(options.conninfo, options.tombstones, options.keep_days);
  });

  Command metrics = add("metrics", "Figures for Prometheus, in its text format");
  metrics.Option("--output", "FILE",
                 "Into this file, all at once, for the textfile collector of node_exporter",
                 &metrics_file);
  metrics.OnRun([&] { return fleet::WriteMetrics(options.conninfo, metrics_file); });

  Command forget = add("forget", "Delete everything of a device, for good");
  add_tombstones(forget);
  forget.Argument("NAME", "The device's name: 32 hexadecimal digits", &name, /*is_required=*/true);
  forget.OnRun([&] { return Forget(options, name); });
  fleet::AddExport(&line);
  fleet::AddReport(&line);
  fleet::AddSql(&line);
  return line.Run(argc, argv);
}
