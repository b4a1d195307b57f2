#include "tools/records/views.h"

#include <fmt/format.h>

#include <cctype>
#include <cstdint>
#include <map>

#include "tools/records/catalogue.h"

namespace velmora::usage_stat::records {

namespace {

// A text as SQL writes it.
std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
  return quoted + "'";
}

// A type by which tools choose how to show and compare a column.
std::string_view SqlType(const FieldType& field) {
  return field.form == "text" || field.form == "texts" || field.form == "hexadecimal" ? "TEXT"
                                                                                      : "INTEGER";
}

std::string NameOfValue(const FieldType& field, const std::string& value) {
  if (field.kind == Kind::kPackedMargins) {
    std::string margins;
    for (const int shift : {24, 16, 8, 0}) {
      margins += fmt::format("{}((({} >> {} & 255) + 128) % 256 - 128)",
                             margins.empty() ? "" : " || ' ' || ", value, shift);
    }
    return margins;
  }
  return fmt::format("(SELECT name FROM value_names WHERE kind = {} AND value = {})",
                     Quoted(NameOf(field.kind)), value);
}

// The columns of one value, which `json` holds at `place`.
std::string Columns(const FieldType& field, std::string_view json, std::size_t place) {
  const std::string value = fmt::format("json_extract({}, '$[{}]')", json, place);
  std::string columns =
      fmt::format(",\n  CAST({} AS {}) AS {}", value, SqlType(field), field.column);
  if (!field.name_key.empty()) {
    columns += fmt::format(",\n  {} AS {}", NameOfValue(field, value), field.name_key);
  }
  return columns;
}

constexpr std::string_view kTimedRecords =
    "CREATE VIEW timed_records AS SELECT\n  id,\n"
    "  strftime('%Y-%m-%dT%H:%M:%fZ', timestamp_ms / 1000.0, 'unixepoch') AS time,\n"
    "  timestamp_ms, received_ms, pid, uid, event, fields\nFROM records";

std::string Where(const RecordType& type) {
  return fmt::format("WHERE event = (SELECT id FROM events WHERE name = {})", Quoted(type.event));
}

View EventView(const RecordType& type) {
  std::string columns;
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const Slot& slot = type.slots[i];
    if (slot.is_list) {
      columns += fmt::format(",\n  json_array_length(fields, '$[{}]') AS {}_rows", i, slot.name);
    } else {
      columns += Columns(type.fields[slot.first], "fields", i);
    }
  }
  const std::string name = ViewName(type.event);
  return {name, fmt::format("CREATE VIEW {} AS SELECT\n  id, time, timestamp_ms{},\n"
                            "  received_ms, pid, uid\nFROM timed_records {}",
                            name, columns, Where(type))};
}

View ListView(const RecordType& type, std::size_t place) {
  const Slot& slot = type.slots[place];
  std::string columns;
  for (std::size_t i = 0; i < slot.size; ++i) {
    columns += Columns(type.fields[slot.first + i], "list.value", i);
  }
  const std::string name = ViewName(type.event) + "_" + slot.name;
  return {name, fmt::format("CREATE VIEW {} AS SELECT\n  records.id AS id, time, timestamp_ms,\n"
                            "  list.key AS row{}\nFROM timed_records AS records\n"
                            "CROSS JOIN json_each(fields, '$[{}]') AS list {}",
                            name, columns, place, Where(type))};
}

}  // namespace

std::string ViewName(std::string_view event) {
  if (event.ends_with("Event")) event.remove_suffix(5);
  if (event.ends_with("EventEx")) return ViewName(event.substr(0, event.size() - 7)) + "_ex";
  if (event.ends_with("EventNew")) return ViewName(event.substr(0, event.size() - 8)) + "_new";
  std::string name;
  for (std::size_t i = 0; i < event.size(); ++i) {
    const auto is_upper = [&](std::size_t at) {
      return at < event.size() && std::isupper(static_cast<unsigned char>(event[at])) != 0;
    };
    // "GoToURL" is go_to_url.
    if (i > 0 && is_upper(i) && (!is_upper(i - 1) || (i + 1 < event.size() && !is_upper(i + 1)))) {
      name += '_';
    }
    name += static_cast<char>(std::tolower(static_cast<unsigned char>(event[i])));
  }
  return name;
}

const std::vector<View>& Views() {
  static const std::vector<View> views = [] {
    std::vector<View> made = {{"timed_records", std::string(kTimedRecords)}};
    for (const RecordType& type : Catalogue()) {
      made.push_back(EventView(type));
      for (std::size_t i = 0; i < type.slots.size(); ++i) {
        if (type.slots[i].is_list) made.push_back(ListView(type, i));
      }
    }
    return made;
  }();
  return views;
}

const NameTable& ValueNames() {
  static const NameTable table = [] {
    std::map<std::string_view, std::map<std::int64_t, std::string>> kinds;
    for (const RecordType& type : Catalogue()) {
      for (const FieldType& field : type.fields) {
        if (field.name_key.empty()) continue;
        for (const NamedValue& row : NamedValues(field.kind)) {
          kinds[NameOf(field.kind)].emplace(row.value, row.name);
        }
      }
    }
    Json rows = Json::array();
    for (const auto& [kind, values] : kinds) {
      for (const auto& [value, name] : values) rows.push_back({kind, value, name});
    }
    return NameTable{
        "CREATE TABLE value_names(\n  kind TEXT NOT NULL,\n  value INTEGER NOT NULL,\n"
        "  name TEXT NOT NULL,\n  PRIMARY KEY(kind, value)) WITHOUT ROWID",
        "INSERT INTO value_names SELECT json_extract(value, '$[0]'), json_extract(value, '$[1]'), "
        "json_extract(value, '$[2]') FROM json_each(" +
            Quoted(rows.dump()) + ")",
        "SELECT json_group_array(json_array(kind, value, name)) FROM "
        "(SELECT * FROM value_names ORDER BY kind, value)",
        rows.dump()};
  }();
  return table;
}

}  // namespace velmora::usage_stat::records
