#include "fleet/lake/lake.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "fleet/batch/batch.h"
#include "fleet/lake/tables.h"
#include "tools/base/system.h"
#include "tools/base/text.h"
#include "tools/report/calendar.h"

namespace velmora::usage_stat::fleet {

namespace {

namespace fs = std::filesystem;
using base::Status;
using Json = nlohmann::ordered_json;

// Long runs, deltas and few values are what records consist of. A dictionary of more values than
// these costs more than the deltas of numbers that grow.
constexpr const char* kParquet =
    "(FORMAT parquet, COMPRESSION zstd, PARQUET_VERSION v2, DICTIONARY_SIZE_LIMIT 1000)";

constexpr const char* kManifest = "_manifest.json";
constexpr const char* kForgotten = "_forgotten";
constexpr const char* kWork = "_work";

Status Failure(const std::string& what, const std::error_code& error) {
  return error ? Status::Failed(what + ": " + error.message()) : Status();
}

// Makes a file's or a folder's content outlive a power cut.
Status Sync(const std::string& path) {
  const base::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.is_open() || fsync(file.get()) != 0) return Status::Errno("cannot write " + path);
  return {};
}

// The same of all in it, at once: some fifty small files would each wait for the disk.
Status SyncTree(const std::string& folder) {
  const base::Descriptor file(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!file.is_open() || syncfs(file.get()) != 0) return Status::Errno("cannot write " + folder);
  return {};
}

Status WriteFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new";
  std::ofstream file(temporary, std::ios::binary);
  file << text;
  file.close();
  if (!file) return Status::Errno("cannot write " + temporary);
  RETURN_IF_ERROR(Sync(temporary));
  std::error_code error;
  fs::rename(temporary, path, error);
  return Failure("cannot write " + path, error);
}

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Puts the folder `made` in the place of `path`, all at once. What stood there is left at `made`.
Status TakePlace(const std::string& made, const std::string& path) {
  const unsigned flags = access(path.c_str(), F_OK) == 0 ? RENAME_EXCHANGE : RENAME_NOREPLACE;
  if (renameat2(AT_FDCWD, made.c_str(), AT_FDCWD, path.c_str(), flags) != 0) {
    return Status::Errno("cannot write " + path);
  }
  return Sync(fs::path(path).parent_path());
}

// The number that stands for a device in the lake, see tables.h; none for what names no device.
std::optional<std::int64_t> DeviceNumber(const std::string& name) {
  Id id{};
  if (!FromText(name, &id)) return std::nullopt;
  const auto number = base::ParseWhole<std::uint64_t>(name.substr(0, 16), 16);
  return static_cast<std::int64_t>(number.value_or(0));
}

}  // namespace

Status Lake::Open(const std::string& folder, const std::string& memory,
                  std::unique_ptr<Lake>* lake) {
  std::unique_ptr<Lake> made(new Lake);
  made->folder_ = folder;
  const std::string work = folder + "/" + kWork;
  std::error_code error;
  fs::create_directories(work, error);
  RETURN_IF_ERROR(Failure("cannot make " + work, error));
  RETURN_IF_ERROR(DuckDb::Open(work, memory, &made->engine_));
  *lake = std::move(made);
  return {};
}

Status Lake::Days(std::vector<std::string>* days) const {
  std::error_code error;
  for (fs::directory_iterator entry(folder_, error), end; entry != end && !error;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.starts_with("day=") && report::ParseIsoDate(name.substr(4)))
      days->push_back(name.substr(4));
  }
  std::sort(days->begin(), days->end());
  return Failure("cannot read " + folder_, error);
}

Status Lake::RemoveBefore(const std::string& day) {
  std::vector<std::string> days;
  RETURN_IF_ERROR(Days(&days));
  for (const std::string& old : days) {
    if (old >= day) break;
    std::error_code error;
    fs::remove_all(folder_ + "/day=" + old, error);
    RETURN_IF_ERROR(Failure("cannot remove the day " + old, error));
  }
  return {};
}

// ---- Export ----

Status Lake::LoadDay(Database* database, const std::string& day) {
  RETURN_IF_ERROR(engine_->Run(
      "CREATE OR REPLACE TABLE records(device BIGINT NOT NULL, store BIGINT NOT NULL, number "
      "BIGINT NOT NULL, event BIGINT NOT NULL, level BIGINT NOT NULL, corrected_ms BIGINT, "
      "device_ms BIGINT NOT NULL, fields VARCHAR NOT NULL); "
      "CREATE OR REPLACE TABLE missing(device BIGINT, store BIGINT, first BIGINT, last BIGINT, "
      "reason VARCHAR); "
      "CREATE OR REPLACE TABLE ingestion(outcome VARCHAR, batches BIGINT, records BIGINT)"));
  DuckDb::Appender records;
  RETURN_IF_ERROR(engine_->Append("records", &records));
  // What stands for a device and a store is computed once for each, not for each record.
  RETURN_IF_ERROR(database->Read(
      fmt::format(
          "WITH keys AS MATERIALIZED (SELECT s.id, {} AS device, {} AS store FROM stores s "
          "JOIN devices d ON d.id = s.device) SELECT k.device, k.store, r.number, r.event, "
          "r.level, r.corrected_ms, r.time_ms, r.fields FROM timed_records r JOIN keys k ON "
          "k.id = r.store WHERE r.day = '{}'",
          kDeviceSql, kStoreSql, day),
      8, [&](const CopiedRow& row) {
        for (std::size_t i = 0; i < 7; ++i) records.Add(row.Number(i));
        records.Add(row.Text(7).value_or("[]"));
        records.EndRow();
      }));
  RETURN_IF_ERROR(records.Close());

  DuckDb::Appender missing;
  RETURN_IF_ERROR(engine_->Append("missing", &missing));
  RETURN_IF_ERROR(database->Read(
      fmt::format("SELECT {}, {}, m.first, m.last, m.reason FROM missing m JOIN devices d ON d.id "
                  "= m.device JOIN stores s ON s.id = m.store WHERE m.day = '{}'",
                  kDeviceSql, kStoreSql, day),
      5, [&](const CopiedRow& row) {
        for (std::size_t i = 0; i < 4; ++i) missing.Add(row.Number(i));
        missing.Add(row.Text(4).value_or(""));
        missing.EndRow();
      }));
  RETURN_IF_ERROR(missing.Close());

  DuckDb::Appender ingestion;
  RETURN_IF_ERROR(engine_->Append("ingestion", &ingestion));
  RETURN_IF_ERROR(
      database->Read(fmt::format("SELECT outcome, sum(batches)::bigint, sum(records)::bigint FROM "
                                 "ingestion WHERE day = '{}' GROUP BY outcome",
                                 day),
                     3, [&](const CopiedRow& row) {
                       ingestion.Add(row.Text(0).value_or(""));
                       ingestion.Add(row.Number(1));
                       ingestion.Add(row.Number(2));
                       ingestion.EndRow();
                     }));
  return ingestion.Close();
}

Status Lake::WriteTable(const std::string& select, const std::string& folder,
                        const std::string& table) {
  const std::string place = folder + "/event=" + table;
  std::error_code error;
  fs::create_directories(place, error);
  RETURN_IF_ERROR(Failure("cannot make " + place, error));
  const std::string file = place + "/records.parquet";
  return engine_->Run(fmt::format("COPY ({}) TO {} {}", select, Quoted(file), kParquet));
}

// By the files themselves: what was written counts, not what was meant to be.
Status Lake::CountRows(const std::string& folder, std::map<std::string, std::int64_t>* rows) {
  nlohmann::json files;
  RETURN_IF_ERROR(
      engine_->Ask(fmt::format("SELECT file_name, num_rows FROM parquet_file_metadata({})",
                               Quoted(folder + "/event=*/records.parquet")),
                   &files));
  for (const auto& file : files) {
    const fs::path path = file["file_name"].get<std::string>();
    (*rows)[path.parent_path().filename().string().substr(6)] =
        file["num_rows"].get<std::int64_t>();
  }
  return {};
}

Status Lake::Export(Database* database, const std::string& day, std::int64_t* records) {
  RETURN_IF_ERROR(database->Execute("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY"));
  nlohmann::json counts;
  nlohmann::json today;
  Status status = database->Ask(
      fmt::format("SELECT e.id, e.name, c.records FROM (SELECT event, count(*) AS records FROM "
                  "records WHERE day = '{}' GROUP BY event) c JOIN events e ON e.id = c.event "
                  "ORDER BY 1",
                  day),
      &counts);
  if (status.ok()) {
    status = database->Ask("SELECT (now() AT TIME ZONE 'UTC')::date::text AS today", &today);
  }
  if (status.ok() && day >= today[0]["today"].get<std::string>()) {
    status = Status::Failed(fmt::format("the day {} is not over", day));
  }
  // A day that was dropped after its export would leave an empty one.
  nlohmann::json kept;
  std::string table = "records_" + day;
  std::erase(table, '-');
  if (status.ok()) {
    status =
        database->Ask(fmt::format("SELECT to_regclass('{}') IS NOT NULL AS kept", table), &kept);
  }
  if (status.ok() && !kept[0]["kept"].get<bool>()) {
    status = Status::Failed(fmt::format("the database no longer holds the day {}", day));
  }
  if (status.ok()) status = LoadDay(database, day);
  const Status ended = database->Execute(status.ok() ? "COMMIT" : "ROLLBACK");
  RETURN_IF_ERROR(status);
  RETURN_IF_ERROR(ended);

  const std::string made = fmt::format("{}/{}/day={}", folder_, kWork, day);
  std::error_code error;
  fs::remove_all(made, error);
  fs::create_directories(made, error);
  RETURN_IF_ERROR(Failure("cannot make " + made, error));
  for (const auto& count : counts) {
    const auto name = count["name"].get<std::string>();
    const records::RecordType* type = records::FindEvent(name);
    if (!type) return Status::Failed(name + " is newer than this program; update it");
    RETURN_IF_ERROR(WriteTable(LakeSelect(*type, count["id"].get<int>()), made, TableName(name)));
  }
  RETURN_IF_ERROR(WriteTable("SELECT * FROM missing ORDER BY ALL", made, "missing"));
  RETURN_IF_ERROR(WriteTable("SELECT * FROM ingestion ORDER BY ALL", made, "ingestion"));
  std::map<std::string, std::int64_t> written;
  RETURN_IF_ERROR(CountRows(made, &written));
  Json manifest = {{"format", 1}, {"day", day}, {"records", 0}, {"events", Json::object()}};
  std::int64_t sum = 0;
  for (const auto& count : counts) {
    const auto name = count["name"].get<std::string>();
    const auto expected = count["records"].get<std::int64_t>();
    const std::int64_t rows = written[TableName(name)];
    if (rows != expected) {
      return Status::Failed(
          fmt::format("{} of {}: {} in the database, {} written", name, day, expected, rows));
    }
    manifest["events"][TableName(name)] = rows;
    sum += rows;
  }
  manifest["records"] = sum;
  manifest["missing"] = written["missing"];
  RETURN_IF_ERROR(engine_->Run("DROP TABLE records"));

  const std::string text = manifest.dump(2) + "\n";
  RETURN_IF_ERROR(WriteFile(made + "/" + kManifest, text));
  RETURN_IF_ERROR(SyncTree(made));
  RETURN_IF_ERROR(TakePlace(made, folder_ + "/day=" + day));
  fs::remove_all(made, error);
  RETURN_IF_ERROR(database->Execute(fmt::format(
      "INSERT INTO exports(day, records, manifest, verified) VALUES ('{}', {}, {}, now()) ON "
      "CONFLICT (day) DO UPDATE SET records = excluded.records, manifest = excluded.manifest, "
      "verified = excluded.verified",
      day, sum, Quoted(text))));
  *records = sum;
  return {};
}

// ---- Forgetting ----

Status Lake::Rewrite(const std::string& file, const std::string& devices) {
  const std::string made = file.substr(0, file.rfind('/')) + "/_records.parquet";
  RETURN_IF_ERROR(engine_->Run(
      fmt::format("COPY (SELECT * FROM read_parquet({}, hive_partitioning = false) WHERE device "
                  "NOT IN ({})) TO {} {}",
                  Quoted(file), devices, Quoted(made), kParquet)));
  RETURN_IF_ERROR(Sync(made));
  std::error_code error;
  fs::rename(made, file, error);
  return Failure("cannot write " + file, error);
}

Status Lake::Forget(const std::vector<std::string>& names, std::int64_t* rewritten) {
  *rewritten = 0;
  const std::string list = folder_ + "/" + kForgotten;
  std::set<std::string> done;
  std::istringstream lines(ReadText(list));
  for (std::string line; std::getline(lines, line);) done.insert(line);
  std::string devices;
  for (const std::string& name : names) {
    const auto number = DeviceNumber(name);
    if (!number) return Status::Failed(name + " is no name of a device");
    if (done.insert(name).second) {
      devices.append(devices.empty() ? "" : ", ").append(std::to_string(*number));
    }
  }
  if (devices.empty()) return {};

  std::vector<std::string> days;
  RETURN_IF_ERROR(Days(&days));
  for (const std::string& day : days) {
    const std::string folder = folder_ + "/day=" + day;
    nlohmann::json files;
    RETURN_IF_ERROR(engine_->Ask(
        fmt::format(
            "SELECT filename, count(*) FILTER (device IN ({0})) AS gone, count(*) AS n FROM "
            "read_parquet({1}, filename = true, union_by_name = true, hive_partitioning = "
            "false) GROUP BY filename HAVING gone > 0",
            devices, Quoted(folder + "/event=*/records.parquet")),
        &files));
    if (files.empty()) continue;
    // The manifest goes first and says what will be: it is right whenever this was interrupted and
    // done again.
    Json manifest = Json::parse(ReadText(folder + "/" + kManifest), nullptr, false);
    if (!manifest.is_object()) return Status::Failed(folder + " has no manifest");
    for (const auto& file : files) {
      const fs::path path = file["filename"].get<std::string>();
      const std::string table = path.parent_path().filename().string().substr(6);
      auto& count = table == "missing" ? manifest[table] : manifest["events"][table];
      count = file["n"].get<std::int64_t>() - file["gone"].get<std::int64_t>();
    }
    std::int64_t sum = 0;
    for (const auto& count : manifest["events"]) sum += count.get<std::int64_t>();
    manifest["records"] = sum;
    RETURN_IF_ERROR(WriteFile(folder + "/" + kManifest, manifest.dump(2) + "\n"));
    for (const auto& file : files) {
      RETURN_IF_ERROR(Rewrite(file["filename"].get<std::string>(), devices));
      ++*rewritten;
    }
  }
  std::string text;
  for (const std::string& name : done) text += name + "\n";
  return WriteFile(list, text);
}

}  // namespace velmora::usage_stat::fleet
