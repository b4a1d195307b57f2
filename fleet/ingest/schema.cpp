#include "fleet/ingest/schema.h"

#include <algorithm>
#include <array>

#include "tools/records/catalogue.h"

namespace velmora::usage_stat::fleet {

using base::Status;

namespace {

// Whoever changes tables holds this lock.
constexpr const char* kLock = "SELECT pg_advisory_xact_lock(20817)";

// The tables as they were first. Records have no index: nothing asks for a single one, and every
// row would pay for it. That a record is there once is up to the cursors. The narrow columns come
// first, without padding.
constexpr const char* kTables = R"sql(
CREATE TABLE fleet_schema(version integer NOT NULL);

CREATE TABLE devices(
  id integer GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  name text NOT NULL UNIQUE,
  first_seen timestamptz NOT NULL DEFAULT now(),
  last_seen timestamptz NOT NULL DEFAULT now(),
  level smallint NOT NULL DEFAULT 0,
  refused bigint NOT NULL DEFAULT 0);
COMMENT ON COLUMN devices.level IS 'of consent in the last batch: 0 none, 1 basic, 2 full';
COMMENT ON COLUMN devices.refused IS 'malformed batches';

CREATE TABLE stores(
  id integer GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  device integer NOT NULL REFERENCES devices ON DELETE CASCADE,
  store_id bytea NOT NULL,
  first bigint NOT NULL,
  cursor bigint NOT NULL,
  last_batch bytea,
  stored bigint NOT NULL DEFAULT 0,
  quarantined bigint NOT NULL DEFAULT 0,
  forks bigint NOT NULL DEFAULT 0,
  UNIQUE(device, store_id));
COMMENT ON TABLE stores IS
  'one database file of a device; numbers first..cursor are stored, quarantined or missing';
COMMENT ON COLUMN stores.forks IS 'batches that did not continue it: a copy of the file is about';

CREATE TABLE events(
  id smallint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  type smallint NOT NULL,
  name text NOT NULL UNIQUE);

CREATE TABLE records(
  number bigint NOT NULL,
  time_ms bigint NOT NULL,
  device integer NOT NULL,
  store integer NOT NULL,
  day date NOT NULL,
  event smallint NOT NULL,
  level smallint NOT NULL,
  fields json NOT NULL,
  payload bytea NOT NULL) PARTITION BY RANGE(day);
COMMENT ON COLUMN records.day IS 'on which it arrived, UTC';
COMMENT ON COLUMN records.time_ms IS 'by the device''s clock; see timed_records';
COMMENT ON COLUMN records.fields IS 'values in wire order; null: the policy dropped it';

CREATE TABLE missing(
  device integer NOT NULL,
  store integer NOT NULL REFERENCES stores ON DELETE CASCADE,
  day date NOT NULL,
  first bigint NOT NULL,
  last bigint NOT NULL,
  reason text NOT NULL);
CREATE INDEX missing_of_store ON missing(store);

CREATE TABLE clock_steps(
  device integer NOT NULL,
  store integer NOT NULL REFERENCES stores ON DELETE CASCADE,
  number bigint NOT NULL,
  step_ms bigint NOT NULL);
CREATE INDEX clock_steps_of_store ON clock_steps(store, number);

CREATE TABLE quarantine(
  id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  device integer NOT NULL,
  store integer NOT NULL REFERENCES stores ON DELETE CASCADE,
  day date NOT NULL,
  number bigint NOT NULL,
  time_ms bigint NOT NULL,
  type smallint NOT NULL,
  level smallint NOT NULL,
  actions bytea NOT NULL,
  payload bytea NOT NULL,
  reason text NOT NULL);
CREATE INDEX quarantine_by_store ON quarantine(store);

CREATE TABLE rejected(
  device integer NOT NULL REFERENCES devices ON DELETE CASCADE,
  received timestamptz NOT NULL DEFAULT now(),
  reason text NOT NULL,
  message bytea NOT NULL);
CREATE INDEX rejected_by_device ON rejected(device);
COMMENT ON TABLE rejected IS 'malformed batches, the first few of each device';

CREATE TABLE ingestion(
  day date NOT NULL,
  ingester smallint NOT NULL,
  outcome text NOT NULL,
  batches bigint NOT NULL,
  records bigint NOT NULL,
  PRIMARY KEY(day, ingester, outcome));

CREATE TABLE exports(
  day date PRIMARY KEY,
  records bigint NOT NULL,
  manifest text NOT NULL,
  verified timestamptz NOT NULL DEFAULT now());
COMMENT ON TABLE exports IS 'days whose records are kept elsewhere too, and were compared';

CREATE TABLE forgotten(
  name text PRIMARY KEY,
  at timestamptz NOT NULL DEFAULT now());

-- A device's clock that was set later than a record came was wrong by as much when it did.
CREATE VIEW timed_records AS
SELECT r.*, CASE
    WHEN t.ms BETWEEN 1420070400000 AND (extract(epoch FROM r.day)::bigint + 172800) * 1000
    THEN t.ms END AS corrected_ms
FROM records r CROSS JOIN LATERAL (
  SELECT r.time_ms + CASE WHEN r.store IN (SELECT store FROM clock_steps) THEN (
    SELECT coalesce(sum(c.step_ms), 0)::bigint
    FROM clock_steps c WHERE c.store = r.store AND c.number > r.number) ELSE 0 END AS ms) t;

-- The balance sheet: announced = stored + quarantined + missing, store by store.
CREATE VIEW balance AS
SELECT d.name AS device, encode(s.store_id, 'hex') AS store, s.first, s.cursor,
  s.cursor - s.first + 1 AS announced, s.stored, s.quarantined,
  coalesce(m.missing, 0) AS missing, s.forks,
  s.cursor - s.first + 1 = s.stored + s.quarantined + coalesce(m.missing, 0) AS adds_up
FROM stores s JOIN devices d ON d.id = s.device
LEFT JOIN (SELECT store, sum(last - first + 1)::bigint AS missing FROM missing GROUP BY store) m
  ON m.store = s.id;
)sql";

// What each later version changed, in order: a new database goes through all of them too. A line
// that has been released is never edited.
constexpr std::array kUpgrades{
    // Ids that were lately answered well, the newest last: see Ledger::Attempt().
    "ALTER TABLE stores ADD COLUMN recent bytea",
};
constexpr std::int64_t kVersion = 1 + std::int64_t{kUpgrades.size()};

}  // namespace

Status PrepareSchema(Database* database) {
  Transaction transaction(database);
  Rows rows;
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(database->Execute(kLock));
  RETURN_IF_ERROR(database->Run("SELECT to_regclass('fleet_schema') IS NOT NULL", {}, &rows));
  if (rows.Text(0, 0) != "t") {
    RETURN_IF_ERROR(database->Execute(kTables));
    RETURN_IF_ERROR(database->Execute("INSERT INTO fleet_schema VALUES(1)"));
  }
  RETURN_IF_ERROR(database->Run("SELECT max(version) FROM fleet_schema", {}, &rows));
  std::int64_t version = rows.Int(0, 0);
  if (version < 1 || version > kVersion) {
    return Status::Failed("the database has version " + std::string(rows.Text(0, 0)) +
                          " of the tables; this program knows version " + std::to_string(kVersion));
  }
  for (; version < kVersion; ++version) {
    RETURN_IF_ERROR(database->Execute(kUpgrades[static_cast<std::size_t>(version - 1)]));
    RETURN_IF_ERROR(database->Execute("UPDATE fleet_schema SET version = version + 1"));
  }
  return transaction.Commit();
}

Status Today(Database* database, std::string* day) {
  Rows rows;
  RETURN_IF_ERROR(database->Run("SELECT (now() AT TIME ZONE 'UTC')::date", {}, &rows));
  *day = rows.Text(0, 0);
  return {};
}

Status PreparePartition(Database* database, const std::string& day) {
  std::string name = "records_" + day;
  std::erase(name, '-');
  Transaction transaction(database);
  Rows rows;
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(database->Execute(kLock));
  RETURN_IF_ERROR(database->Run("SELECT to_regclass($1) IS NOT NULL", {name}, &rows));
  if (rows.Text(0, 0) == "t") return {};
  RETURN_IF_ERROR(database->Execute("CREATE TABLE " + name +
                                    " PARTITION OF records FOR VALUES FROM ('" + day + "') TO ('" +
                                    day + "'::date + 1)"));
  return transaction.Commit();
}

Status LoadEvents(Database* database, EventIds* events) {
  Transaction transaction(database);
  RETURN_IF_ERROR(transaction.Begin());
  RETURN_IF_ERROR(database->Execute(kLock));
  for (const records::RecordType& type : records::Catalogue()) {
    RETURN_IF_ERROR(
        database->Run("INSERT INTO events(type, name) SELECT $1::smallint, $2 "
                      "WHERE NOT EXISTS (SELECT FROM events WHERE name = $2)",
                      {std::to_string(type.code), std::string(type.event)}));
  }
  Rows rows;
  RETURN_IF_ERROR(database->Run("SELECT name, id FROM events", {}, &rows));
  events->clear();
  for (int row = 0; row < rows.size(); ++row) {
    events->emplace(rows.Text(row, 0), static_cast<int>(rows.Int(row, 1)));
  }
  return transaction.Commit();
}

}  // namespace velmora::usage_stat::fleet
