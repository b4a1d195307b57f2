#include "tools/records/views.h"

#include <fmt/format.h>

#include <cctype>

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
  std::string names = "CASE " + value;
  for (const NamedValue& row : NamedValues(field.kind)) {
    names += fmt::format(" WHEN {} THEN {}", row.value, Quoted(row.name));
  }
  return names + " END";
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

constexpr std::string_view kMoment =
    "strftime('%Y-%m-%dT%H:%M:%fZ', records.timestamp_ms / 1000.0, 'unixepoch') AS time,\n"
    "  records.timestamp_ms AS timestamp_ms";

std::string Where(const RecordType& type) {
  return fmt::format("WHERE records.event = (SELECT id FROM events WHERE name = {})",
                     Quoted(type.event));
}

View EventView(const RecordType& type) {
  std::string columns;
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const Slot& slot = type.slots[i];
    if (slot.is_list) {
      columns +=
          fmt::format(",\n  json_array_length(records.fields, '$[{}]') AS {}_rows", i, slot.name);
    } else {
      columns += Columns(type.fields[slot.first], "records.fields", i);
    }
  }
  const std::string name = ViewName(type.event);
  return {name, fmt::format("CREATE VIEW {} AS SELECT\n  records.id AS id,\n  {}{},\n"
                            "  records.received_ms AS received_ms,\n  records.pid AS pid,\n"
                            "  records.uid AS uid\nFROM records {}",
                            name, kMoment, columns, Where(type))};
}

View ListView(const RecordType& type, std::size_t place) {
  const Slot& slot = type.slots[place];
  std::string columns;
  for (std::size_t i = 0; i < slot.size; ++i) {
    columns += Columns(type.fields[slot.first + i], "list.value", i);
  }
  const std::string name = ViewName(type.event) + "_" + slot.name;
  return {name, fmt::format("CREATE VIEW {} AS SELECT\n  records.id AS id,\n  {},\n"
                            "  list.key AS row{}\n"
                            "FROM records CROSS JOIN json_each(records.fields, '$[{}]') AS list {}",
                            name, kMoment, columns, place, Where(type))};
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
    std::vector<View> made;
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

}  // namespace velmora::usage_stat::records
