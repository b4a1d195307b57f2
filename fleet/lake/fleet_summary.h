// What a fleet's report says, and how it is read from the lake or from the database.
//
// Every number in it is about people, and none of them may be told before it went through cells.h.

#ifndef FLEET_LAKE_FLEET_SUMMARY_H_
#define FLEET_LAKE_FLEET_SUMMARY_H_

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/lake/cells.h"
#include "fleet/lake/lake.h"
#include "tools/base/status.h"
#include "tools/report/calendar.h"

namespace velmora::usage_stat::fleet {

// Days are those of UTC: no record tells a time zone.
struct Days {
  report::Day first = 0;
  report::Day last = 0;

  bool Hold(std::int64_t day) const { return day >= first && day <= last; }
};

// Where a fleet's records are asked for: tables as tables.h has them, `missing` and `ingestion`,
// and one way to ask them all in the same words.
class FleetSource {
 public:
  virtual ~FleetSource() = default;

  // The rows of a query as objects.
  virtual base::Status Ask(const std::string& sql, nlohmann::json* rows) = 0;
  // Hands over each device with each day that a record of it tells, device by device, in order of
  // days.
  virtual base::Status ReadActiveDays(
      Days days, const std::function<void(std::int64_t device, std::int64_t day)>& take) = 0;
  // An opening of a book, or a page event.
  struct PageEvent {
    std::int64_t device = 0;
    std::int64_t at_ms = 0;
    std::int64_t level = 0;
    bool is_opening = false;
  };
  // Hands them over since the first day, device by device or interleaved, those of one device in
  // the order of their numbers.
  virtual base::Status ReadPageEvents(Days days,
                                      const std::function<void(const PageEvent&)>& take) = 0;
  // How it writes the day that a column `time` lies in.
  virtual std::string DayOf(const std::string& column) const = 0;
};

std::unique_ptr<FleetSource> SourceOf(Lake* lake);
std::unique_ptr<FleetSource> SourceOf(Database* database);

// Quartiles of one number for each of many devices.
struct Quartiles {
  std::int64_t lower = 0;
  std::int64_t median = 0;
  std::int64_t upper = 0;
};
Quartiles QuartilesOf(std::vector<std::int64_t> numbers);

struct ReadingWeek {
  std::int64_t devices = 0;        // that read in it
  std::int64_t timed_devices = 0;  // of these, those that tell times closer than the hour
  Quartiles time_ms;               // of the timed devices
  Quartiles turns;
};

struct FleetSummary {
  Days days;
  std::int64_t generated_ms = 0;

  std::int64_t records = 0;
  std::int64_t devices = 0;  // active in the range
  std::map<report::Day, std::int64_t> active_by_day;
  std::map<report::Day, std::int64_t> active_by_week;  // by its Monday
  std::map<report::Day, ReadingWeek> reading;          // likewise

  // By the Monday of the week of first use: how many devices, and how many of them were active so
  // many weeks later. Weeks that were not over yet are left out.
  std::map<report::Day, std::vector<std::int64_t>> cohorts;

  std::vector<Cell> versions;
  std::vector<Cell> models;
  struct Setting {
    std::string title;
    std::vector<Cell> values;
  };
  std::vector<Setting> settings;
  struct Application {
    std::string name;
    std::int64_t devices = 0;
    std::int64_t launches = 0;
  };
  std::vector<Application> applications;

  struct Loss {
    std::string reason;
    std::int64_t records = 0;
    std::int64_t devices = 0;
  };
  std::vector<Loss> losses;
  struct Outcome {
    std::string outcome;
    std::int64_t batches = 0;
    std::int64_t records = 0;
  };
  std::vector<Outcome> ingestion;
};

base::Status ReadFleetSummary(FleetSource* source, Days days, FleetSummary* summary);

// One page, in the style of a device's. Tells nothing about fewer than kLeastDevices devices.
std::string RenderFleetPage(const FleetSummary& summary);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_LAKE_FLEET_SUMMARY_H_
