// Fills a fleet's database with people who do not exist, as if their devices had sent every day
// what happened on it. Much faster than devices, and past days can be filled.
//
// usage: fill_fleet CONNINFO DEVICES DAYS    the last DAYS days before today, UTC

#include <fmt/format.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "fleet/ingest/database.h"
#include "fleet/ingest/schema.h"
#include "tools/base/system.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"
#include "tools/report/calendar.h"
#include "tools/sample/person.h"

using namespace velmora::usage_stat;
using fleet::Database;

namespace {

constexpr std::int64_t kDayMs = std::int64_t{24} * 3600 * 1000;
constexpr report::Day kDatabaseEpoch = 10957;  // days of PostgreSQL count from 1 January 2000

struct Device {
  std::unique_ptr<sample::Person> person;
  int id = 0;
  int store = 0;
  std::int64_t number = 0;
};

class Filler {
 public:
  Filler(Database* database, int days) : database_(database), days_(days) {}

  base::Status Run(int devices) {
    RETURN_IF_ERROR(fleet::PrepareSchema(database_));
    RETURN_IF_ERROR(fleet::LoadEvents(database_, &events_));
    devices_.resize(static_cast<std::size_t>(devices));
    for (int number = 0; number < devices; ++number) RETURN_IF_ERROR(Enter(number));
    const auto today = static_cast<report::Day>(base::NowMs() / kDayMs);
    for (int day = 0; day < days_; ++day) RETURN_IF_ERROR(Fill(day, today - days_ + day));
    return {};
  }

 private:
  base::Status Enter(int number) {
    Device& device = devices_[static_cast<std::size_t>(number)];
    const auto name = static_cast<std::uint64_t>(number + 1) * 0x9E3779B97F4A7C15U;
    fleet::Rows rows;
    RETURN_IF_ERROR(database_->Run(
        "WITH d AS (INSERT INTO devices(name, level) VALUES ($1, 2) RETURNING id) INSERT INTO "
        "stores(device, store_id, first, cursor) SELECT id, decode($1, 'hex'), 1, 0 FROM d "
        "RETURNING device, id",
        {fmt::format("{:016x}{:016x}", name, number)}, &rows));
    device.id = static_cast<int>(rows.Int(0, 0));
    device.store = static_cast<int>(rows.Int(0, 1));
    device.person = std::make_unique<sample::Person>(
        1, number, days_, [this, &device](const Event& event, std::string_view datagram) {
          Add(&device, event.timestamp_, datagram);
        });
    return {};
  }

  void Add(Device* device, std::int64_t at_ms, std::string_view datagram) {
    const auto decoded = records::Decode(datagram);
    const auto& record = std::get<records::Record>(decoded);
    rows_.Begin(9);
    rows_.Int64(++device->number);
    rows_.Int64(at_ms);
    rows_.Int32(device->id);
    rows_.Int32(device->store);
    rows_.Int32(date_ - kDatabaseEpoch);
    rows_.Int16(events_.find(record.event)->second);
    rows_.Int16(2);
    rows_.Bytes(records::Dump(record.values));
    rows_.Bytes(datagram.substr(10));
    ++count_;
  }

  base::Status Fill(int day, report::Day date) {
    date_ = date;
    rows_ = {};
    count_ = 0;
    for (Device& device : devices_) {
      // Seldom, a device loses a few.
      const bool loses =
          (static_cast<std::uint64_t>(device.id) * 31 + static_cast<std::uint64_t>(day)) % 997 == 0;
      if (loses) {
        lost_ += fmt::format("{}({}, {}, '{}', {}, {}, 'retention')", lost_.empty() ? "" : ", ",
                             device.id, device.store, report::IsoDate(date), device.number + 1,
                             device.number + 5);
        device.number += 5;
      }
      device.person->Live(day, report::WeekdayOf(date), date * kDayMs, base::NowMs());
    }
    const std::string text = report::IsoDate(date);
    RETURN_IF_ERROR(fleet::PreparePartition(database_, text));
    RETURN_IF_ERROR(database_->Copy(
        "records(number, time_ms, device, store, day, event, level, fields, payload)", rows_));
    if (!lost_.empty()) {
      RETURN_IF_ERROR(database_->Execute(
          "INSERT INTO missing(device, store, day, first, last, reason) VALUES " + lost_));
      lost_.clear();
    }
    return database_->Execute(
        fmt::format("INSERT INTO ingestion(day, ingester, outcome, batches, records) VALUES "
                    "('{}', 0, 'stored', {}, {}) ON CONFLICT DO NOTHING",
                    text, devices_.size(), count_));
  }

  Database* database_;
  int days_;
  fleet::EventIds events_;
  std::vector<Device> devices_;
  report::Day date_ = 0;
  fleet::CopyRows rows_;
  std::int64_t count_ = 0;
  std::string lost_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  Database database;
  base::Status status = Database::Open(argv[1], &database);
  if (status.ok()) status = Filler(&database, std::atoi(argv[3])).Run(std::atoi(argv[2]));
  if (status.ok()) return 0;
  fmt::print(stderr, "fill_fleet: {}\n", status.message);
  return 1;
}
