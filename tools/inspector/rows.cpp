#include "tools/inspector/rows.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "tools/base/text.h"
#include "tools/inspector/terminal.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::Json;
using store::QuarantineRow;
using store::RecordRow;

constexpr std::string_view kFormats[] = {"short", "json", "json-pretty", "csv", "raw"};

// The columns that every record has.
constexpr std::array kEnvelope = {"id", "received", "pid", "uid", "event", "type", "timestamp"};

Json ToJson(const RecordRow& row) {
  return {{"id", row.id},
          {"received", row.received_ms},
          {"pid", row.sender.pid},
          {"uid", row.sender.uid},
          {"event", row.event},
          {"type", row.type},
          {"timestamp", row.timestamp_ms},
          {"fields", records::FieldsOf(row.fields, row.raw)},
          {"raw", base::ToHex(row.raw)}};
}

Json ToJson(const QuarantineRow& row) {
  return {{"id", row.id},
          {"received", row.received_ms},
          {"pid", row.sender.pid},
          {"uid", row.sender.uid},
          {"kind", row.kind},
          {"type", row.type ? Json(*row.type) : Json()},
          {"size", row.size},
          {"reason", row.reason},
          {"raw", base::ToHex(row.raw)}};
}

// "2026-11-24T19:00:49.123Z"; the number itself when the calendar has no such day.
std::string IsoTime(std::int64_t ms) {
  const std::int64_t rest = (ms % 1000 + 1000) % 1000;
  const std::time_t seconds = static_cast<std::time_t>((ms - rest) / 1000);
  std::tm utc{};
  std::array<char, 64> text{};
  if (!gmtime_r(&seconds, &utc)) return std::to_string(ms);
  const std::size_t size = std::strftime(text.data(), text.size(), "%FT%T", &utc);
  return fmt::format("{}.{:03}Z", std::string_view(text.data(), size), rest);
}

std::string Shown(const Json& value) {
  if (value.is_null()) return {};
  return value.is_string() ? value.get<std::string>() : records::Dump(value);
}

// The columns of the fields of `events`, each once.
std::vector<std::string> FieldColumns(const std::vector<std::string>& events) {
  std::vector<std::string> columns;
  const auto add = [&columns](const std::string& name) {
    if (name.empty() || std::find(columns.begin(), columns.end(), name) != columns.end()) return;
    columns.push_back(name);
  };
  for (const std::string& event : events) {
    const records::RecordType* type = records::FindEvent(event);
    if (!type) continue;
    for (const records::Slot& slot : type->slots) {
      add(slot.name);
      if (!slot.is_list) add(type->fields[slot.first].name_key);
    }
  }
  return columns;
}

std::vector<std::string> KnownColumns(const RowLayout& layout) {
  if (layout.is_quarantine) {
    return {"id", "received", "pid", "uid", "kind", "type", "size", "reason", "raw"};
  }
  std::vector<std::string> known(kEnvelope.begin(), kEnvelope.end());
  const std::vector<std::string> fields = FieldColumns(layout.events);
  known.insert(known.end(), fields.begin(), fields.end());
  if (layout.events.empty()) known.emplace_back("fields");
  known.emplace_back("raw");
  return known;
}

}  // namespace

std::vector<std::string> RowFormats() { return {std::begin(kFormats), std::end(kFormats)}; }

std::string CsvCell(const std::string& text) {
  std::string quoted;
  for (const char c : Printable(text)) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  const bool is_plain = quoted.find_first_of("\",\r\n") == std::string::npos;
  return is_plain ? quoted : "\"" + quoted + "\"";
}

RowPrinter::RowPrinter(const RowLayout& layout) : layout_(layout) {
  const std::vector<std::string> known = KnownColumns(layout);
  for (const std::string& column : layout.columns) {
    if (std::find(known.begin(), known.end(), column) != known.end()) continue;
    mistake_ = fmt::format("there is no column {} here, but {}", column, fmt::join(known, ", "));
  }
  columns_ = layout.columns.empty() ? known : layout.columns;
}

void RowPrinter::PrintHead() const {
  if (layout_.format != "csv") return;
  std::string head;
  for (const std::string& column : columns_) head += (head.empty() ? "" : ",") + CsvCell(column);
  Write(head + "\r\n");
}

void RowPrinter::PrintCsv(const Json& row) const {
  const auto fields = row.find("fields");
  std::string line;
  for (const std::string& column : columns_) {
    if (&column != columns_.data()) line += ',';
    auto value = row.find(column);
    if (value == row.end()) {
      if (fields == row.end()) continue;
      value = fields->find(column);
      if (value == fields->end()) continue;
    }
    const bool is_time = column == "timestamp" || column == "received";
    line +=
        CsvCell(layout_.iso_times && is_time ? IsoTime(value->get<std::int64_t>()) : Shown(*value));
  }
  Write(line + "\r\n");
}

void RowPrinter::Print(const RecordRow& row) const {
  if (layout_.format == "raw") {
    inspector::Print("{}\n", base::ToHex(row.raw));
  } else if (layout_.format == "csv") {
    PrintCsv(ToJson(row));
  } else if (layout_.format != "short") {
    inspector::Print("{}\n", records::SafeJson(ToJson(row), layout_.format == "json" ? -1 : 2));
  } else {
    const auto read = records::Read(row.raw);
    const std::string fields =
        read ? records::FieldsLine(*read->type, read->type->values_of(*read->event))
             : " " + PrintableJson(records::FieldsOf(row.fields, row.raw));
    inspector::Print("{} {}[{}]{}\n", LocalTime(row.timestamp_ms),
                     Coloured(Colour::kBold, Printable(row.event)), row.sender.pid, fields);
  }
}

void RowPrinter::Print(const QuarantineRow& row) const {
  if (layout_.format == "raw") {
    inspector::Print("{}\n", base::ToHex(row.raw));
  } else if (layout_.format == "csv") {
    PrintCsv(ToJson(row));
  } else if (layout_.format != "short") {
    inspector::Print("{}\n", records::SafeJson(ToJson(row), layout_.format == "json" ? -1 : 2));
  } else {
    inspector::Print("{} {}[{}] {} bytes: {}\n", LocalTime(row.received_ms),
                     Coloured(Colour::kBold, Printable(row.kind)), row.sender.pid, row.size,
                     Printable(row.reason));
  }
}

}  // namespace velmora::usage_stat::inspector
