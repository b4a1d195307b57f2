// usage-stat decode: one record, byte by byte.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <variant>

#include "tools/base/text.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/captured.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::Damage;
using records::Json;
using records::Trace;
using records::TracedField;

struct Options {
  std::string file = "-";
  bool hex = false;
  bool raw = false;
  std::string output;
};

// Far more than the largest record, also as hexadecimal digits with blanks between them.
constexpr std::size_t kLargestInput = 1 << 20;

std::string ReadUpTo(std::istream& in, std::size_t limit) {
  std::string bytes(limit, '\0');
  in.read(bytes.data(), static_cast<std::streamsize>(limit));
  bytes.resize(static_cast<std::size_t>(in.gcount()));
  return bytes;
}

// ---- As text ----

constexpr std::size_t kBytesPerLine = 8;

void PrintHead() {
  Write(Coloured(Colour::kBold, fmt::format("{:>6}  {:<23}  {:<24} {:<9}  {}", "offset", "bytes",
                                            "field", "primitive", "value")) +
        "\n");
}

// All `bytes` from `offset` on; the first line says what they are.
void PrintBytes(std::string_view bytes, std::size_t offset, const std::string& meaning) {
  std::size_t begin = 0;
  do {
    std::string column;
    for (const char byte : bytes.substr(begin, kBytesPerLine)) {
      if (!column.empty()) column += ' ';
      column += base::ToHex({&byte, 1});
    }
    if (begin == 0) {
      Print("{:>6}  {:<23}  {}\n", offset, column, meaning);
    } else {
      Print("{:>6}  {}\n", offset + begin, column);
    }
    begin += kBytesPerLine;
  } while (begin < bytes.size());
}

// The classes that write the code in `field`, for a datagram too damaged to tell which one did.
std::string WritersOf(const TracedField& field) {
  const int code = field.value.get<int>();
  const records::RecordType* type = records::FindType(code);
  if (!type) return "unknown";
  std::string names(type->event);
  if (const records::RecordType* shorter = records::FindShorterType(code)) {
    names = fmt::format("{} or {}", shorter->event, names);
  }
  return names;
}

// The name of a number that has one.
std::string NameOf(const TracedField& field, const Trace& trace) {
  const records::RecordType* type = records::FindEvent(trace.event);
  if (!type || !field.value.is_number_integer()) return {};
  // "mappings_0[3].action" is documented as "mappings_0[].action".
  const std::size_t index = field.name.find('[');
  std::string name = field.name;
  if (index != std::string::npos) name.erase(index + 1, name.find(']') - index - 1);
  for (const records::FieldType& known : type->fields) {
    if (known.name == name) return records::ValueName(known.kind, field.value.get<std::int64_t>());
  }
  return {};
}

std::string Explained(const TracedField& field, const Trace& trace) {
  std::string value = PrintableJson(field.value);
  if (const std::string name = NameOf(field, trace); !name.empty()) {
    value += fmt::format(" ({})", Printable(name));
  } else if (field.name == "type") {
    value +=
        fmt::format(" ({})", trace.event.empty() ? WritersOf(field) : std::string(trace.event));
  } else if (field.name == "timestamp") {
    value += fmt::format(" ({})", LocalTime(field.value.get<std::int64_t>()));
  }
  return fmt::format("{:<24} {:<9}  {}", Printable(field.name), field.primitive, value);
}

void PrintText(std::string_view datagram, const Trace& trace, const Damage* damage) {
  PrintHead();
  std::size_t end = 0;
  for (const TracedField& field : trace.fields) {
    PrintBytes(datagram.substr(field.offset, field.size), field.offset, Explained(field, trace));
    end = field.offset + field.size;
  }
  if (!damage) return;
  if (end < datagram.size()) {
    const std::string meaning =
        damage->field.empty() || trace.event.empty() ? "left over" : damage->field + ", unread";
    PrintBytes(datagram.substr(end), end, Coloured(Colour::kRed, meaning));
  }
  Print("{} {}\n", Coloured(Colour::kRed, "damaged:"), damage->reason);
  const Damage where = trace.damage.value_or(*damage);
  if (where.reason != damage->reason) Print("         {}\n", where.reason);
}

// ---- As JSON ----

Json ToJson(const Damage& damage, const Damage& where) {
  return {{"kind", damage.kind},  {"reason", damage.reason},  {"offset", where.offset},
          {"field", where.field}, {"missing", where.missing}, {"left_over", where.left_over}};
}

void PrintJson(std::string_view datagram, const Trace& trace, const Damage* damage) {
  Json json = {{"event", trace.event}, {"size", datagram.size()}, {"fields", Json::array()}};
  for (const TracedField& field : trace.fields) {
    json["fields"].push_back({{"offset", field.offset},
                              {"bytes", base::ToHex(datagram.substr(field.offset, field.size))},
                              {"name", field.name},
                              {"primitive", field.primitive},
                              {"value", field.value}});
  }
  json["damage"] = damage ? ToJson(*damage, trace.damage.value_or(*damage)) : Json();
  Print("{}\n", records::SafeJson(json, 2));
}

// What to decode: the argument itself when a datagram stands in it and it is no file, else what the
// file holds.
int ReadInput(const Options& options, std::string* input) {
  std::error_code too_long_for_a_name;
  if (!options.raw && !std::filesystem::exists(options.file, too_long_for_a_name) &&
      DatagramIn(options.file)) {
    *input = options.file;
    return kOk;
  }
  std::ifstream file;
  if (options.file != "-") {
    file.open(options.file, std::ios::binary);
    if (!file) return Complain(kFailed, "cannot read " + options.file);
  }
  std::istream& in = options.file == "-" ? std::cin : file;
  *input = ReadUpTo(in, kLargestInput + 1);
  if (in.bad()) return Complain(kFailed, "cannot read " + options.file);
  if (input->size() > kLargestInput) return Complain(kFailed, "too large for a record");
  return kOk;
}

// Whether each line of `text` has a record of its own, as list prints them.
bool HasSeveralRecords(const std::string& text) {
  std::istringstream lines(text);
  int records = 0;
  for (std::string line; std::getline(lines, line); ++records) {
    const auto datagram = DatagramIn(line);
    if (!datagram || std::holds_alternative<Damage>(records::Decode(*datagram))) return false;
  }
  return records > 1;
}

int Run(const Options& options) {
  std::string input;
  if (const int failed = ReadInput(options, &input); failed != kOk) return failed;
  // No record consists of hexadecimal digits alone, nor of JSON: its type code would be an unknown
  // one.
  if (!options.raw) {
    if (HasSeveralRecords(input)) {
      return Complain(kFailed, "one record at a time: each line of this is one");
    }
    if (auto bytes = DatagramIn(input)) {
      input = *std::move(bytes);
    } else if (options.hex) {
      return Complain(kFailed, "not an even number of hexadecimal digits");
    } else if (input.starts_with('{')) {
      return Complain(kFailed, "not one JSON object with a datagram under \"raw\"");
    }
  }

  const auto decoded = records::Decode(input);
  const auto* damage = std::get_if<Damage>(&decoded);
  (options.output == "json" ? PrintJson : PrintText)(input, records::TraceFields(input), damage);
  return damage ? kFailed : kOk;
}

}  // namespace

void AddDecode(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("decode", "Show one record byte by byte");
  command.Argument(
      "FILE",
      "Digits or a line of list -o json, or a file with those, bytes or a test vector; "
      "- for standard input (default)",
      &options->file);
  command.Flag("--hex", "It holds hexadecimal digits", &options->hex);
  command.Flag("--raw", "It holds the bytes themselves", &options->raw);
  command.Exclude("--raw", "--hex");
  AddOutputOption(command, &options->output, {"text", "json"});
  command.Footer("Exit code 1 when the record is damaged; the output says where and why.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
