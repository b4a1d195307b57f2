#include "tools/inspector/rows.h"

#include "tools/inspector/terminal.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::Json;
using store::RecordRow;

void PrintShort(const RecordRow& row) {
  std::string line = fmt::format("{} {}[{}]", LocalTime(row.timestamp_ms),
                                 Coloured(Colour::kBold, Printable(row.event)), row.sender.pid);
  const Json fields = records::FieldsOf(row.fields, row.raw);
  for (const auto& field : fields.items()) {
    line += fmt::format(" {}={}", Coloured(Colour::kDim, Printable(field.key())),
                        PrintableJson(field.value()));
  }
  Print("{}\n", line);
}

Json ToJson(const RecordRow& row) {
  return {{"id", row.id},
          {"received", row.received_ms},
          {"pid", row.sender.pid},
          {"uid", row.sender.uid},
          {"event", row.event},
          {"type", row.type},
          {"timestamp", row.timestamp_ms},
          {"fields", records::FieldsOf(row.fields, row.raw)},
          {"raw", Hex(row.raw)}};
}

void PrintJson(const RecordRow& row) { Print("{}\n", records::Dump(ToJson(row))); }
void PrintPrettyJson(const RecordRow& row) { Print("{}\n", records::Dump(ToJson(row), 2)); }

void PrintCsv(const RecordRow& row) {
  std::string quoted;
  for (const char c : records::Dump(records::FieldsOf(row.fields, row.raw)))
    quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  Print("{},{},{},{},{},{},{},\"{}\",{}\r\n", row.id, row.received_ms, row.sender.pid,
        row.sender.uid, row.event, row.type, row.timestamp_ms, quoted, Hex(row.raw));
}

void PrintRaw(const RecordRow& row) { Print("{}\n", Hex(row.raw)); }

struct Format {
  const char* name;
  void (*print)(const RecordRow&);
};
constexpr Format kFormats[] = {{"short", PrintShort},
                               {"json", PrintJson},
                               {"json-pretty", PrintPrettyJson},
                               {"csv", PrintCsv},
                               {"raw", PrintRaw}};

}  // namespace

std::vector<std::string> RowFormats() {
  std::vector<std::string> names;
  for (const Format& format : kFormats) names.emplace_back(format.name);
  return names;
}

RowPrinter::RowPrinter(const std::string& format) : print_(PrintShort) {
  for (const Format& known : kFormats) {
    if (format == known.name) print_ = known.print;
  }
  if (print_ == PrintCsv) Write("id,received,pid,uid,event,type,timestamp,fields,raw\r\n");
}

}  // namespace velmora::usage_stat::inspector
