#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "fleet/ingest/commands.h"
#include "fleet/ingest/database.h"
#include "fleet/ingest/schema.h"
#include "tools/base/system.h"
#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::fleet {

using base::Status;

namespace {

int Fail(const Status& status) { return Complain("usage-stat-fleet", status.message); }

// Texts to the left, numbers to the right, each column as wide as it must be.
void PrintTable(const std::vector<std::string>& heads, const Rows& rows) {
  const int columns = static_cast<int>(heads.size());
  std::vector<std::size_t> widths;
  for (int column = 0; column < columns; ++column) {
    std::size_t width = heads[static_cast<std::size_t>(column)].size();
    for (int row = 0; row < rows.size(); ++row) {
      width = std::max(width, rows.Text(row, column).size());
    }
    widths.push_back(width);
  }
  for (int column = 0; column < columns; ++column) {
    const auto i = static_cast<std::size_t>(column);
    fmt::print("{:>{}}{}", heads[i], widths[i], column + 1 < columns ? "  " : "\n");
  }
  for (int row = 0; row < rows.size(); ++row) {
    for (int column = 0; column < columns; ++column) {
      const auto i = static_cast<std::size_t>(column);
      fmt::print("{:>{}}{}", rows.Text(row, column), widths[i], column + 1 < columns ? "  " : "\n");
    }
  }
}

constexpr const char* kTotals =
    "SELECT coalesce(sum(announced), 0), coalesce(sum(stored), 0), "
    "coalesce(sum(quarantined), 0), coalesce(sum(missing), 0), "
    "count(*) FILTER (WHERE NOT adds_up), count(DISTINCT device), coalesce(sum(forks), 0) "
    "FROM balance";

// One thing to look for: how often it occurs, and what to say of it.
struct Check {
  const char* name;
  const char* sql;  // a count, and what to add in brackets
  const char* advice;
  bool is_fault;
};

constexpr Check kChecks[] = {
    {"stores that do not add up",
     "SELECT count(*), array_to_string((array_agg(device || '/' || store))[1:10], ', ') "
     "FROM balance WHERE NOT adds_up",
     "rows were changed by hand, or this is a fault of ours", true},
    // Without the days that were dropped there is nothing to compare with.
    {"stores with other rows than they count",
     "SELECT count(*), array_to_string((array_agg(s.id))[1:10], ', ') FROM stores s "
     "LEFT JOIN (SELECT store, count(*) AS n FROM records GROUP BY store) r ON r.store = s.id "
     "WHERE s.stored <> coalesce(r.n, 0) AND NOT EXISTS (SELECT FROM exports e "
     "WHERE to_regclass('records_' || to_char(e.day, 'YYYYMMDD')) IS NULL)",
     "rows were changed by hand, or this is a fault of ours", true},
    {"stores of which copies are about",
     "SELECT count(*), array_to_string((array_agg(device || '/' || store))[1:10], ', ') "
     "FROM balance WHERE forks > 0",
     "a backup was restored on these devices, or their image cloned; their records may be there "
     "twice, under two stores",
     false},
    {"devices that sent malformed batches",
     "SELECT count(*), array_to_string((array_agg(name))[1:10], ', ') "
     "FROM devices WHERE refused > 0",
     "see the table rejected; revoke the certificate of a device that is not itself", false},
    {"records in quarantine",
     "SELECT count(*), string_agg(DISTINCT 'type ' || type, ', ') FROM quarantine",
     "types that this version does not know: upgrade the ingester, which reads them again", false},
    {"devices silent for 30 days",
     "SELECT count(*), NULL FROM devices WHERE last_seen < now() - interval '30 days'",
     "they are offline, their certificates have expired, or a broker denies them", false},
};

// Some figures under one name.
struct Metric {
  const char* name;  // without the prefix that all have
  const char* type;
  const char* help;
  const char* label;  // of the figures, when there are several
  const char* sql;    // a row with each figure, and the label's value before it
};

constexpr Metric kMetrics[] = {
    {"devices", "gauge", "Devices that the fleet knows.", nullptr, "SELECT count(*) FROM devices"},
    {"devices_silent", "gauge", "Devices that were last heard of 30 days ago or longer.", nullptr,
     "SELECT count(*) FROM devices WHERE last_seen < now() - interval '30 days'"},
    {"devices_forgotten", "gauge", "Names that were forgotten.", nullptr,
     "SELECT count(*) FROM forgotten"},
    {"last_visit_timestamp_seconds", "gauge", "When a device was last heard of.", nullptr,
     "SELECT coalesce(extract(epoch FROM max(last_seen)), 0)::bigint FROM devices"},
    {"numbers", "gauge",
     "Record numbers that devices announced, by what became of them; \"announced\" is the sum.",
     "what",
     "WITH b AS MATERIALIZED (SELECT sum(announced) AS announced, sum(stored) AS stored, "
     "sum(quarantined) AS quarantined FROM balance) "
     "SELECT 'announced', coalesce(announced, 0) FROM b UNION ALL "
     "SELECT 'stored', coalesce(stored, 0) FROM b UNION ALL "
     "SELECT 'quarantined', coalesce(quarantined, 0) FROM b UNION ALL "
     "SELECT 'missing: ' || reason, sum(last - first + 1) FROM missing GROUP BY reason"},
    {"stores_unbalanced", "gauge", "Stores whose numbers do not add up: must be 0.", nullptr,
     "SELECT count(*) FROM balance WHERE NOT adds_up"},
    {"forks", "gauge", "Batches that came from copies of a store.", nullptr,
     "SELECT coalesce(sum(forks), 0) FROM stores"},
    {"batches_total", "counter", "Batches taken, by what became of them.", "outcome",
     "SELECT outcome, sum(batches) FROM ingestion GROUP BY outcome ORDER BY outcome"},
    {"records_total", "counter", "Records in batches that were stored.", nullptr,
     "SELECT coalesce(sum(records), 0) FROM ingestion"},
    {"hot_days", "gauge", "Days of records in the database.", nullptr,
     "SELECT count(*) FROM pg_inherits WHERE inhparent = 'records'::regclass"},
    {"hot_days_not_exported", "gauge", "Those that are over and not exported.", nullptr,
     "SELECT count(*) FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
     "WHERE i.inhparent = 'records'::regclass AND c.relname < 'records_' || "
     "to_char(now() AT TIME ZONE 'UTC', 'YYYYMMDD') AND NOT EXISTS (SELECT FROM exports e "
     "WHERE c.relname = 'records_' || to_char(e.day, 'YYYYMMDD'))"},
    {"database_bytes", "gauge", "Size of the database.", nullptr,
     "SELECT pg_database_size(current_database())"},
};

}  // namespace

int PrintStatus(const std::string& conninfo, bool each) {
  Database database;
  Rows totals;
  Rows reasons;
  Rows outcomes;
  Status status = Database::Open(conninfo, &database);
  // One state of the database for all that is printed.
  if (status.ok()) status = database.Execute("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
  if (status.ok()) status = database.Run(kTotals, {}, &totals);
  if (status.ok()) {
    status = database.Run(
        "SELECT reason, sum(last - first + 1) FROM missing GROUP BY reason ORDER BY reason", {},
        &reasons);
  }
  if (status.ok()) {
    status = database.Run(
        "SELECT outcome, sum(batches), sum(records) FROM ingestion GROUP BY outcome "
        "ORDER BY outcome",
        {}, &outcomes);
  }
  if (!status.ok()) return Fail(status);
  const auto row = [](std::string_view name, std::string_view value) {
    fmt::print("{:<26} {:>14}\n", name, value);
  };
  row("devices", totals.Text(0, 5));
  row("numbers announced", totals.Text(0, 0));
  row("  stored", totals.Text(0, 1));
  row("  quarantined", totals.Text(0, 2));
  for (int i = 0; i < reasons.size(); ++i) {
    row("  missing: " + std::string(reasons.Text(i, 0)), reasons.Text(i, 1));
  }
  row("stores that don't add up", totals.Text(0, 4));
  row("batches that forked", totals.Text(0, 6));
  fmt::print("\n");
  PrintTable({"outcome", "batches", "records"}, outcomes);
  if (each) {
    Rows stores;
    status = database.Run(
        "SELECT device, store, first, cursor, announced, stored, quarantined, missing, forks, "
        "CASE WHEN adds_up THEN 'yes' ELSE 'NO' END FROM balance ORDER BY device, first",
        {}, &stores);
    if (!status.ok()) return Fail(status);
    fmt::print("\n");
    PrintTable({"device", "store", "first", "cursor", "announced", "stored", "quarantined",
                "missing", "forks", "adds up"},
               stores);
  }
  const bool adds_up = totals.Int(0, 4) == 0 &&
                       totals.Int(0, 0) == totals.Int(0, 1) + totals.Int(0, 2) + totals.Int(0, 3);
  return adds_up ? kOk : Complain("usage-stat-fleet", "the balance does not add up");
}

int PrintDiagnosis(const std::string& conninfo, const std::string& tombstones,
                   long long keep_days) {
  Database database;
  if (Status status = Database::Open(conninfo, &database); !status.ok()) return Fail(status);
  Rows rows;
  int exit_code = kOk;
  const auto tell = [&](bool is_fault, std::string_view line) {
    fmt::print("{}  {}\n", is_fault ? "WRONG" : "note ", line);
    if (is_fault) exit_code = kFailed;
  };
  for (const Check& check : kChecks) {
    if (Status status = database.Run(check.sql, {}, &rows); !status.ok()) return Fail(status);
    if (rows.Int(0, 0) == 0) continue;
    const std::string which =
        rows.IsNull(0, 1) ? std::string() : fmt::format(" ({})", rows.Text(0, 1));
    tell(check.is_fault,
         fmt::format("{}: {}{}: {}", check.name, rows.Int(0, 0), which, check.advice));
  }
  Status status = database.Run(
      "SELECT count(*) FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid "
      "WHERE i.inhparent = 'records'::regclass AND c.relname < 'records_' || "
      "to_char((now() AT TIME ZONE 'UTC')::date - $1::int, 'YYYYMMDD')",
      {std::to_string(keep_days)}, &rows);
  if (!status.ok()) return Fail(status);
  if (rows.Int(0, 0) > 0) {
    tell(false, fmt::format("days of records older than {}: {}: they go when an export holds them",
                            keep_days, rows.Int(0, 0)));
  }
  if (tombstones.empty()) {
    tell(false,
         "no file of tombstones is named: a dump that is restored brings the forgotten back");
  } else if (access(tombstones.c_str(), F_OK) == 0 && access(tombstones.c_str(), W_OK) != 0) {
    tell(true, "the tombstones in " + tombstones + " can't be written: nobody can be forgotten");
  }
  if (exit_code == kOk) fmt::print("ok     everything adds up\n");
  return exit_code;
}

int WriteMetrics(const std::string& conninfo, const std::string& path) {
  Database database;
  Status status = Database::Open(conninfo, &database);
  if (status.ok()) status = database.Execute("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
  std::string text;
  for (const Metric& metric : kMetrics) {
    Rows rows;
    if (status.ok()) status = database.Run(metric.sql, {}, &rows);
    if (!status.ok()) return Fail(status);
    const std::string name = std::string("usage_stat_fleet_") + metric.name;
    text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, metric.help, metric.type);
    for (int row = 0; row < rows.size(); ++row) {
      if (metric.label) {
        text += fmt::format("{}{{{}=\"{}\"}} {}\n", name, metric.label, rows.Text(row, 0),
                            rows.Text(row, 1));
      } else {
        text += fmt::format("{} {}\n", name, rows.Text(row, 0));
      }
    }
  }
  constexpr mode_t kForAll = 0644;
  if (!path.empty()) {
    status = base::ReplaceFile(path, text, kForAll);
    return status.ok() ? kOk : Fail(status);
  }
  fmt::print("{}", text);
  return kOk;
}

}  // namespace velmora::usage_stat::fleet
