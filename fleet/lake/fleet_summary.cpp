#include "fleet/lake/fleet_summary.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "fleet/batch/batch.h"
#include "fleet/ingest/ledger.h"
#include "fleet/lake/tables.h"
#include "tools/records/catalogue.h"
#include "tools/report/sessions.h"

namespace velmora::usage_stat::fleet {

namespace {

using base::Status;
using report::Day;

constexpr std::int64_t kDayMs = std::int64_t{24} * 3600 * 1000;

constexpr const char* kOpening = "open_book";
constexpr std::array kPageEvents = {"change_page", "go_to_page", "go_to_page_new"};

std::int64_t DayOfMs(std::int64_t ms) { return ms / kDayMs - (ms % kDayMs < 0 ? 1 : 0); }
Day MondayOf(std::int64_t day) {
  const auto date = static_cast<Day>(day);
  return date - report::WeekdayOf(date);
}

std::string TimeIn(Days days) {
  return fmt::format("time >= TIMESTAMP '{}' AND time < TIMESTAMP '{}'",
                     report::IsoDate(days.first), report::IsoDate(days.last + 1));
}

// ---- The lake ----

// Records that are late lie in later days; those of earlier days are older than the range.
class LakeSource : public FleetSource {
 public:
  explicit LakeSource(Lake* lake) : lake_(lake) {}

  Status Ask(const std::string& sql, nlohmann::json* rows) override {
    RETURN_IF_ERROR(Prepare());
    return lake_->engine().Ask(sql, rows);
  }

  Status ReadActiveDays(Days days,
                        const std::function<void(std::int64_t, std::int64_t)>& take) override {
    const std::string files = Files("*", days.first);
    if (files.empty()) return {};
    DuckDb::Stream rows;
    RETURN_IF_ERROR(lake_->engine().Read(
        fmt::format("SELECT DISTINCT device, epoch_ms(time) // {} FROM read_parquet({}, "
                    "union_by_name = true) WHERE event NOT IN ('missing', 'ingestion') AND {} "
                    "ORDER BY 1, 2",
                    kDayMs, files, TimeIn(days)),
        2, &rows));
    while (rows.Next()) take(rows.Get(0), rows.Get(1));
    return {};
  }

  // The files are sorted by device, store and number, so that the four kinds of event are merged
  // rather than sorted.
  Status ReadPageEvents(Days days, const std::function<void(const PageEvent&)>& take) override {
    std::vector<Merged> merged;
    RETURN_IF_ERROR(Add(kOpening, days, true, &merged));
    for (const char* event : kPageEvents) RETURN_IF_ERROR(Add(event, days, false, &merged));
    while (true) {
      Merged* least = nullptr;
      for (Merged& one : merged) {
        if (one.more && (!least || one.key < least->key)) least = &one;
      }
      if (!least) return {};
      take({least->key[1], least->rows.Get(4), least->rows.Get(5), least->opening});
      least->Advance();
    }
  }

  std::string DayOf(const std::string& column) const override {
    return "(epoch_ms(" + column + ") // 86400000)";
  }

 private:
  // The rows of one event on their way.
  struct Merged {
    DuckDb::Stream rows;
    bool opening = false;
    bool more = true;
    std::array<std::int64_t, 4> key{};  // day, device, store, number

    void Advance() {
      more = rows.Next();
      for (std::size_t i = 0; more && i < key.size(); ++i) key[i] = rows.Get(i);
    }
  };

  Status Add(const char* event, Days days, bool opening, std::vector<Merged>* merged) {
    const std::string files = Files(event, days.first);
    if (files.empty()) return {};
    Merged& one = merged->emplace_back();
    one.opening = opening;
    RETURN_IF_ERROR(lake_->engine().Read(
        fmt::format(
            "SELECT epoch_ms(day::TIMESTAMP), device, store, number, epoch_ms(time), level::BIGINT "
            "FROM read_parquet({}) WHERE {}",
            files, TimeIn(days)),
        6, &one.rows));
    one.Advance();
    return {};
  }

  // The files of an event, or of all, from a day on, as a list in SQL; empty when there are none.
  std::string Files(const std::string& event, Day since) {
    std::vector<std::string> days;
    if (!lake_->Days(&days).ok()) return "";
    std::string list;
    for (const std::string& day : days) {
      if (day < report::IsoDate(since)) continue;
      for (const std::string& file : FilesOf(day, event)) {
        list += (list.empty() ? "[" : ", ") + Quoted(file);
      }
    }
    return list.empty() ? list : list + "]";
  }

  std::vector<std::string> FilesOf(const std::string& day, const std::string& event) const {
    std::vector<std::string> files;
    std::error_code error;
    const std::filesystem::path folder = lake_->folder() + "/day=" + day;
    for (std::filesystem::directory_iterator entry(folder, error), end; entry != end && !error;
         entry.increment(error)) {
      const std::string name = entry->path().filename();
      if (name.starts_with("event=") && (event == "*" || name == "event=" + event)) {
        files.push_back(entry->path() / "records.parquet");
      }
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  // A view for each event that the lake holds, and empty ones for the others.
  Status Prepare() {
    if (std::exchange(prepared_, true)) return {};
    for (const records::RecordType& type : records::Catalogue()) {
      const std::string name = TableName(type.event);
      const std::string files = Files(name, 0);
      RETURN_IF_ERROR(lake_->engine().Run(files.empty() ? "CREATE OR REPLACE VIEW \"" + name +
                                                              "\" AS " + EmptyLakeSelect(type)
                                                        : ViewOf(name, files)));
    }
    for (const char* name : {"missing", "ingestion"}) {
      const std::string files = Files(name, 0);
      if (files.empty()) return Status::Failed(lake_->folder() + " holds no days");
      RETURN_IF_ERROR(lake_->engine().Run(ViewOf(name, files)));
    }
    return {};
  }

  static std::string ViewOf(const std::string& name, const std::string& files) {
    return fmt::format("CREATE OR REPLACE VIEW \"{}\" AS SELECT * FROM read_parquet({})", name,
                       files);
  }

  Lake* lake_;
  bool prepared_ = false;
};

// ---- The database ----

class DatabaseSource : public FleetSource {
 public:
  explicit DatabaseSource(Database* database) : database_(database) {}

  Status Ask(const std::string& sql, nlohmann::json* rows) override {
    RETURN_IF_ERROR(database_->Execute("SET search_path = analysis, public"));
    return database_->Ask(sql, rows);
  }

  Status ReadActiveDays(Days days,
                        const std::function<void(std::int64_t, std::int64_t)>& take) override {
    return database_->Read(
        fmt::format("SELECT DISTINCT device, floor(corrected_ms / {0}.0)::bigint FROM "
                    "public.timed_records WHERE {1} ORDER BY 1, 2",
                    kDayMs, Moments(days)),
        2, [&](const CopiedRow& row) { take(*row.Number(0), row.Number(1).value_or(0)); });
  }

  Status ReadPageEvents(Days days, const std::function<void(const PageEvent&)>& take) override {
    std::string names;
    for (const char* event :
         {"OpenBookEvent", "ChangePageEvent", "GoToPageEvent", "GoToPageEventNew"}) {
      names += (names.empty() ? "'" : ", '") + std::string(event) + "'";
    }
    return database_->Read(
        fmt::format(
            "SELECT r.device, r.corrected_ms, r.level, (e.name = 'OpenBookEvent')::int FROM "
            "public.timed_records r JOIN public.events e ON e.id = r.event WHERE e.name IN ({}) "
            "AND {} ORDER BY r.day, r.device, r.store, r.number",
            names, Moments(days)),
        4, [&](const CopiedRow& row) {
          take({*row.Number(0), *row.Number(1), *row.Number(2), *row.Number(3) != 0});
        });
  }

  std::string DayOf(const std::string& column) const override {
    return "floor(extract(epoch FROM " + column + ") / 86400)";
  }

 private:
  static std::string Moments(Days days) {
    return fmt::format("corrected_ms >= {} AND corrected_ms < {} AND day >= '{}'",
                       days.first * kDayMs, (days.last + 1) * kDayMs, report::IsoDate(days.first));
  }

  Database* database_;
};

// ---- Questions ----

std::int64_t Number(const nlohmann::json& row, const char* name) {
  const auto value = row.find(name);
  return value != row.end() && value->is_number() ? value->get<std::int64_t>() : 0;
}

std::string Text(const nlohmann::json& row, const char* name) {
  const auto value = row.find(name);
  if (value == row.end() || value->is_null()) return "";
  return value->is_string() ? value->get<std::string>() : value->dump();
}

Status CountActiveDevices(FleetSource* source, FleetSummary* summary) {
  // Weeks of first use reach back before the range only as far as records do that are asked for.
  const Day last_monday = MondayOf(summary->days.last + 1) - 7;  // of the last week that is over
  std::vector<Day> weeks;                                        // of one device, in order
  const auto count_device = [&] {
    if (weeks.empty()) return;
    ++summary->devices;
    for (const Day week : weeks) ++summary->active_by_week[week];
    const Day first = weeks.front();
    if (first <= last_monday) {
      auto& cohort = summary->cohorts[first];
      cohort.resize(static_cast<std::size_t>(last_monday - first) / 7 + 1);
      for (const Day week : weeks) {
        if (week <= last_monday) ++cohort[static_cast<std::size_t>(week - first) / 7];
      }
    }
    weeks.clear();
  };
  std::int64_t current = 0;
  RETURN_IF_ERROR(source->ReadActiveDays(summary->days, [&](std::int64_t device, std::int64_t day) {
    if (device != current) count_device();
    current = device;
    ++summary->active_by_day[static_cast<Day>(day)];
    if (weeks.empty() || weeks.back() != MondayOf(day)) weeks.push_back(MondayOf(day));
  }));
  count_device();
  return {};
}

// Records come by day of arrival, so that every device is under way at once: what is held of each
// is its last page turn and three numbers for each week in which it read.
Status MeasureReading(FleetSource* source, FleetSummary* summary) {
  struct Week {
    Day monday = 0;
    bool is_timed = false;
    std::int64_t time_ms = 0;
    std::int64_t turns = 0;
  };
  struct Reader {
    report::SessionTracker tracker;
    std::vector<Week> weeks;

    // Mostly it is the last one.
    Week& In(Day monday) {
      const auto week = std::find_if(weeks.rbegin(), weeks.rend(),
                                     [&](const Week& each) { return each.monday == monday; });
      return week != weeks.rend() ? *week : weeks.emplace_back(Week{monday});
    }
  };
  std::unordered_map<std::int64_t, Reader> readers;
  RETURN_IF_ERROR(source->ReadPageEvents(summary->days, [&](const FleetSource::PageEvent& event) {
    Reader& reader = readers[event.device];
    // What is told by the hour makes no reading time.
    const bool is_timed = event.level == static_cast<int>(Level::kFull);
    if (event.is_opening) {
      if (is_timed) reader.tracker.Open(event.at_ms, 0);
      return;
    }
    Week& week = reader.In(MondayOf(DayOfMs(event.at_ms)));
    ++week.turns;
    if (!is_timed) return;
    week.is_timed = true;
    if (const auto span = reader.tracker.TurnPage(event.at_ms)) {
      week.time_ms += std::max<std::int64_t>(0, span->end_ms - span->begin_ms);
    }
  }));
  std::map<Day, std::pair<std::vector<std::int64_t>, std::vector<std::int64_t>>> weeks;
  for (const auto& [device, reader] : readers) {
    for (const Week& week : reader.weeks) {
      auto& [times, turns] = weeks[week.monday];
      if (week.is_timed) times.push_back(week.time_ms);
      turns.push_back(week.turns);
    }
  }
  for (auto& [week, numbers] : weeks) {
    auto& [times, turns] = numbers;
    summary->reading[week] = {static_cast<std::int64_t>(turns.size()),
                              static_cast<std::int64_t>(times.size()),
                              QuartilesOf(std::move(times)), QuartilesOf(std::move(turns))};
  }
  return {};
}

// What the latest record of each device says in one column, up to the end of the range.
Status CountLatest(FleetSource* source, const std::string& table, const records::FieldType& field,
                   Days days, std::vector<Cell>* cells) {
  nlohmann::json rows;
  RETURN_IF_ERROR(source->Ask(
      fmt::format("SELECT value, count(*) AS devices FROM (SELECT DISTINCT ON (device) device, "
                  "\"{0}\" AS value FROM {1} WHERE time < TIMESTAMP '{2}' AND \"{0}\" IS NOT NULL "
                  "ORDER BY device, day DESC, number DESC) AS latest GROUP BY value",
                  field.column, table, report::IsoDate(days.last + 1)),
      &rows));
  for (const auto& row : rows) {
    std::string name = Text(row, "value");
    if (row["value"].is_number()) {
      if (std::string known = records::ValueName(field.kind, Number(row, "value"));
          !known.empty()) {
        name = std::move(known);
      }
    }
    const auto same = std::find_if(cells->begin(), cells->end(),
                                   [&](const Cell& cell) { return cell.name == name; });
    if (same == cells->end()) {
      cells->push_back({name, Number(row, "devices")});
    } else {
      same->devices += Number(row, "devices");
    }
  }
  return {};
}

const records::FieldType& FieldOf(const char* event, const char* column) {
  const records::RecordType* type = records::FindEvent(event);
  return *std::find_if(type->fields.begin(), type->fields.end(),
                       [&](const auto& field) { return field.column == column; });
}

// Every field that has names for its values and says how something is set.
Status CountSettings(FleetSource* source, FleetSummary* summary) {
  constexpr std::array kEvents = {"OrientationEvent", "LibrarySettingsEvent",
                                  "Explorer3SettingsEvent", "SetReadingModeEvent",
                                  "SetFontParamsEvent"};
  for (const char* event : kEvents) {
    for (const records::FieldType& field : records::FindEvent(event)->fields) {
      if (field.name_key.empty() && std::string_view(event) != "OrientationEvent") continue;
      FleetSummary::Setting setting;
      setting.title = field.column;
      std::replace(setting.title.begin(), setting.title.end(), '_', ' ');
      RETURN_IF_ERROR(CountLatest(source, TableName(event), field, summary->days, &setting.values));
      if (!setting.values.empty()) summary->settings.push_back(std::move(setting));
    }
  }
  return {};
}

Status CountLaunches(FleetSource* source, FleetSummary* summary) {
  nlohmann::json rows;
  RETURN_IF_ERROR(source->Ask(
      fmt::format("SELECT application, count(DISTINCT device) AS devices, count(*) AS launches "
                  "FROM start_application WHERE {} AND application IS NOT NULL GROUP BY "
                  "application",
                  TimeIn(summary->days)),
      &rows));
  const auto kind = FieldOf("StartApplicationEvent", "application").kind;
  for (const auto& row : rows) {
    std::string name = records::ValueName(kind, Number(row, "application"));
    if (name.empty()) name = "application " + Text(row, "application");
    summary->applications.push_back({name, Number(row, "devices"), Number(row, "launches")});
  }
  std::sort(summary->applications.begin(), summary->applications.end(),
            [](const auto& a, const auto& b) {
              return a.devices != b.devices ? a.devices > b.devices : a.name < b.name;
            });
  return {};
}

Status CountLosses(FleetSource* source, FleetSummary* summary) {
  const std::string in_days =
      fmt::format("day >= DATE '{}' AND day <= DATE '{}'", report::IsoDate(summary->days.first),
                  report::IsoDate(summary->days.last));
  nlohmann::json rows;
  RETURN_IF_ERROR(source->Ask(
      "SELECT reason, sum(last - first + 1)::BIGINT AS records, count(DISTINCT device) AS devices "
      "FROM missing WHERE " +
          in_days + " GROUP BY reason ORDER BY 2 DESC, 1",
      &rows));
  for (const auto& row : rows) {
    summary->losses.push_back(
        {Text(row, "reason"), Number(row, "records"), Number(row, "devices")});
  }
  RETURN_IF_ERROR(
      source->Ask("SELECT outcome, sum(batches)::BIGINT AS batches, sum(records)::BIGINT AS "
                  "records FROM ingestion WHERE " +
                      in_days + " GROUP BY outcome ORDER BY 1",
                  &rows));
  for (const auto& row : rows) {
    summary->ingestion.push_back(
        {Text(row, "outcome"), Number(row, "batches"), Number(row, "records")});
    if (summary->ingestion.back().outcome == NameOf(Outcome::kStored)) {
      summary->records = summary->ingestion.back().records;
    }
  }
  return {};
}

}  // namespace

std::unique_ptr<FleetSource> SourceOf(Lake* lake) { return std::make_unique<LakeSource>(lake); }

std::unique_ptr<FleetSource> SourceOf(Database* database) {
  return std::make_unique<DatabaseSource>(database);
}

Quartiles QuartilesOf(std::vector<std::int64_t> numbers) {
  if (numbers.empty()) return {};
  const auto at = [&](std::size_t quarter) {
    const auto place =
        numbers.begin() + static_cast<std::ptrdiff_t>((numbers.size() - 1) * quarter / 4);
    std::nth_element(numbers.begin(), place, numbers.end());
    return *place;
  };
  return {at(1), at(2), at(3)};
}

Status ReadFleetSummary(FleetSource* source, Days days, FleetSummary* summary) {
  *summary = {};
  summary->days = days;
  RETURN_IF_ERROR(CountActiveDevices(source, summary));
  RETURN_IF_ERROR(MeasureReading(source, summary));
  RETURN_IF_ERROR(CountLatest(source, "version_measurement",
                              FieldOf("VersionMeasurement", "version"), days, &summary->versions));
  RETURN_IF_ERROR(CountLatest(source, "device_info_measurement",
                              FieldOf("DeviceInfoMeasurement", "model_code"), days,
                              &summary->models));
  RETURN_IF_ERROR(CountSettings(source, summary));
  RETURN_IF_ERROR(CountLaunches(source, summary));
  RETURN_IF_ERROR(CountLosses(source, summary));
  return {};
}

}  // namespace velmora::usage_stat::fleet
