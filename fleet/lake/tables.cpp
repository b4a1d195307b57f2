#include "fleet/lake/tables.h"

#include <fmt/format.h>

#include <array>
#include <memory>
#include <sstream>
#include <vector>

#include "fleet/lake/cells.h"

namespace velmora::usage_stat::fleet {

namespace {

using records::RecordType;

enum class ColumnType { kNumber, kFlag, kText, kTexts, kList };

// What the values of each slot are, as the class itself shows them: a record of nothing but zeros
// is read and looked at. Where the class takes no such record, all of its single values are
// numbers.
std::vector<ColumnType> TypesOf(const RecordType& type) {
  std::istringstream zeros(std::string(4096, '\0'));
  const std::unique_ptr<Event> event = type.read(zeros);
  const records::Json values = event ? type.values_of(*event) : records::Json::array();
  std::vector<ColumnType> types;
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const records::Json value = i < values.size() ? values[i] : records::Json(0);
    types.push_back(type.slots[i].is_list ? ColumnType::kList
                    : value.is_boolean()  ? ColumnType::kFlag
                    : value.is_string()   ? ColumnType::kText
                    : value.is_array()    ? ColumnType::kTexts
                                          : ColumnType::kNumber);
  }
  return types;
}

std::string PostgresColumn(ColumnType type, std::size_t place, const std::string& name) {
  switch (type) {
    case ColumnType::kNumber:
      return fmt::format("(r.fields->>{})::integer AS \"{}\"", place, name);
    case ColumnType::kFlag:
      return fmt::format("(r.fields->>{})::boolean AS \"{}\"", place, name);
    case ColumnType::kText:
      return fmt::format("r.fields->>{} AS \"{}\"", place, name);
    case ColumnType::kTexts:
      return fmt::format(
          "CASE WHEN json_typeof(r.fields->{0}) = 'array' THEN ARRAY(SELECT "
          "json_array_elements_text(r.fields->{0})) END AS \"{1}\"",
          place, name);
    case ColumnType::kList:
      break;
  }
  return fmt::format(
      "CASE WHEN json_typeof(r.fields->{0}) = 'array' THEN r.fields->{0} END AS "
      "\"{1}\"",
      place, name);
}

std::string LakeColumn(ColumnType type, std::size_t place, const std::string& name) {
  switch (type) {
    case ColumnType::kNumber:
      return fmt::format("f[{}]::INTEGER AS \"{}\"", place + 1, name);
    case ColumnType::kFlag:
      return fmt::format("f[{}]::BOOLEAN AS \"{}\"", place + 1, name);
    case ColumnType::kText:
      return fmt::format("f[{}] AS \"{}\"", place + 1, name);
    case ColumnType::kTexts:
      return fmt::format("f[{}]::JSON::VARCHAR[] AS \"{}\"", place + 1, name);
    case ColumnType::kList:
      break;
  }
  return fmt::format("f[{}] AS \"{}\"", place + 1, name);  // JSON, as text
}

template <class Column>
std::string Columns(const RecordType& type, Column column) {
  std::string columns;
  const std::vector<ColumnType> types = TypesOf(type);
  for (std::size_t i = 0; i < types.size(); ++i) {
    columns += ", " + column(types[i], i, type.slots[i].name);
  }
  return columns;
}

// Parts of a whole by TellParts(): what is too small shares a row, together with the smallest of
// the rest when it would still be too small. `counts` selects (name, devices), each device once.
std::string TellPartsSql(const std::string& counts) {
  return fmt::format(R"sql(
  WITH counts AS ({0}),
  ranked AS (SELECT name, devices,
      sum(devices) OVER (ORDER BY devices, name DESC) - devices AS smaller FROM counts),
  told AS (SELECT CASE WHEN devices >= {1} AND (smaller = 0 OR smaller >= {1}) THEN name::text END
      AS name, devices FROM ranked)
  SELECT coalesce(name, 'other') AS name, sum(devices)::bigint AS devices FROM told
  GROUP BY told.name HAVING sum(devices) >= {1} ORDER BY 2 DESC, 1;
)sql",
                     counts, kLeastDevices);
}

// The latest value of one column of a view for each device that told one.
std::string LatestSql(const char* view, const char* column) {
  return fmt::format(
      "SELECT value AS name, count(*) AS devices FROM (SELECT DISTINCT ON (device) device, {1} AS "
      "value FROM analysis.{0} WHERE {1} IS NOT NULL ORDER BY device, day DESC, number DESC) AS "
      "latest GROUP BY value",
      view, column);
}

// Told numbers are kept as such, and not worked out anew for whoever asks: who reads them gets at
// no plan, estimate or message that rows below them had a part in.
std::string FiguresSql() {
  std::string sql = fmt::format(R"sql(
-- Sums about {0} devices at least, for everybody with the role reader.
CREATE MATERIALIZED VIEW figures.active_devices_by_day AS
  SELECT (to_timestamp(corrected_ms / 86400000 * 86400) AT TIME ZONE 'UTC')::date AS day,
    count(DISTINCT device) AS devices
  FROM public.timed_records WHERE corrected_ms IS NOT NULL
  GROUP BY 1 HAVING count(DISTINCT device) >= {0} ORDER BY 1;
CREATE MATERIALIZED VIEW figures.lost_records AS
  SELECT day, reason, sum(last - first + 1)::bigint AS records
  FROM public.missing GROUP BY day, reason HAVING count(DISTINCT device) >= {0} ORDER BY 1, 2;
CREATE MATERIALIZED VIEW figures.ingestion AS
  SELECT day, outcome, sum(batches)::bigint AS batches, sum(records)::bigint AS records
  FROM public.ingestion WHERE (SELECT count(*) FROM public.devices) >= {0}
  GROUP BY day, outcome HAVING sum(batches) >= {0} ORDER BY 1, 2;
)sql",
                                kLeastDevices);
  for (const auto& [name, view, column] :
       {std::array{"model", "device_info_measurement", "model_code"},
        std::array{"version", "version_measurement", "version"}}) {
    sql += fmt::format("CREATE MATERIALIZED VIEW figures.devices_by_{} AS{}", name,
                       TellPartsSql(LatestSql(view, column)));
  }
  return sql;
}

}  // namespace

std::string TableName(std::string_view event) {
  std::string stem(event);
  if (const std::size_t word = stem.find("Event"); word != std::string::npos) stem.erase(word, 5);
  std::string name;
  for (std::size_t i = 0; i < stem.size(); ++i) {
    const bool is_upper = stem[i] >= 'A' && stem[i] <= 'Z';
    const bool begins_word = is_upper && i > 0 && !(stem[i - 1] >= 'A' && stem[i - 1] <= 'Z');
    if (begins_word) name += '_';
    name += is_upper ? static_cast<char>(stem[i] - 'A' + 'a') : stem[i];
  }
  return name;
}

std::string ViewsSql() {
  std::string sql =
      R"sql(-- Typed views of the fleet's records, and roles to read them. May be run again at any time.
BEGIN;
DO $$ BEGIN CREATE ROLE analyst; EXCEPTION WHEN duplicate_object THEN NULL; END $$;
DO $$ BEGIN CREATE ROLE reader; EXCEPTION WHEN duplicate_object THEN NULL; END $$;
-- Compiling a query over many days takes seconds, and saves none.
DO $$ BEGIN EXECUTE format('ALTER DATABASE %I SET jit = off', current_database()); END $$;
SET client_min_messages = warning;
DROP SCHEMA IF EXISTS figures CASCADE;
DROP SCHEMA IF EXISTS analysis CASCADE;
CREATE SCHEMA analysis;
CREATE SCHEMA figures;
)sql";
  for (const RecordType& type : records::Catalogue()) {
    sql += fmt::format(
        "CREATE VIEW analysis.{} AS SELECT r.day, {} AS device, {} AS store, r.number, r.level, "
        "'epoch'::timestamptz + r.corrected_ms * interval '1 ms' AS time, CASE WHEN r.corrected_ms "
        "IS DISTINCT FROM r.time_ms THEN r.time_ms END AS device_ms{} FROM public.timed_records r "
        "JOIN "
        "public.devices d ON d.id = r.device JOIN public.stores s ON s.id = r.store WHERE r.event "
        "= (SELECT id FROM public.events WHERE name = '{}');\n",
        TableName(type.event), kDeviceSql, kStoreSql, Columns(type, PostgresColumn), type.event);
  }
  sql += FiguresSql();
  sql += R"sql(
GRANT USAGE ON SCHEMA analysis, figures TO analyst;
GRANT SELECT ON ALL TABLES IN SCHEMA analysis, figures TO analyst;
GRANT USAGE ON SCHEMA figures TO reader;
GRANT SELECT ON ALL TABLES IN SCHEMA figures TO reader;
COMMIT;
)sql";
  return sql;
}

std::string RefreshSql() {
  return R"sql(DO $$ DECLARE name text; BEGIN
  FOR name IN SELECT matviewname FROM pg_matviews WHERE schemaname = 'figures' LOOP
    EXECUTE format('REFRESH MATERIALIZED VIEW figures.%I', name);
  END LOOP;
END $$)sql";
}

std::string LakeSelect(const RecordType& type, int event) {
  std::string places;
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    places += fmt::format("{}'$[{}]'", i == 0 ? "" : ", ", i);
  }
  const std::string fields =
      places.empty() ? "NULL" : fmt::format("json_extract_string(fields, [{}])", places);
  return fmt::format(
      "SELECT device, store, number, level::TINYINT AS level, make_timestamp_ms(corrected_ms)"
      "::TIMESTAMP_MS AS time, CASE WHEN corrected_ms IS DISTINCT FROM device_ms THEN device_ms "
      "END AS device_ms{} FROM (SELECT *, {} AS f FROM records WHERE event = {}) "
      "ORDER BY device, store, number",
      Columns(type, LakeColumn), fields, event);
}

std::string EmptyLakeSelect(const RecordType& type) {
  std::string columns;
  const std::vector<ColumnType> types = TypesOf(type);
  for (std::size_t i = 0; i < types.size(); ++i) {
    columns += fmt::format(", NULL::{} AS \"{}\"",
                           types[i] == ColumnType::kNumber  ? "INTEGER"
                           : types[i] == ColumnType::kFlag  ? "BOOLEAN"
                           : types[i] == ColumnType::kTexts ? "VARCHAR[]"
                                                            : "VARCHAR",
                           type.slots[i].name);
  }
  return "SELECT NULL::BIGINT AS device, NULL::BIGINT AS store, NULL::BIGINT AS number, "
         "NULL::TINYINT AS level, NULL::TIMESTAMP_MS AS time, NULL::BIGINT AS device_ms" +
         columns + ", NULL::DATE AS day WHERE false";
}

}  // namespace velmora::usage_stat::fleet
