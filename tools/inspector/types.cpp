// usage-stat types: the catalogue of all records.

#include <memory>
#include <string>

#include "tools/command_line/command_line.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/catalogue.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::FieldType;
using records::Json;
using records::RecordType;

// What the field list of a class does not tell.
std::string_view NoteOn(const RecordType& type) {
  struct Note {
    std::string_view event;
    std::string_view text;
  };
  static constexpr Note kNotes[] = {
      {"KeyboradMappingMeasurement",
       "The class is known by this spelling. Its payload is that of KeyboardSettingsEvent."},
      {"KeyboardSettingsEvent",
       "The writer always sends a list count of 3; a reader takes any number there. Each list's "
       "type is its number: 0, 1, 2. A key byte of 0x80 or more counts as negative when a key code "
       "is rebuilt as key + 256 * kind."},
      {"DeviceInfoMeasurement",
       "The encrypted serial number is hexadecimal text: 16 bytes of initialisation vector, then "
       "AES-256-CBC ciphertext. It is empty for partners whose serial numbers are not reported."},
      {"OpenBookEvent", "`d` is written as 1 or 0, and only 1 reads as true."},
      {"NewBooksEventEx",
       "The books follow when the count is 1 to 100, and there are as many of them as the count "
       "says. A sender that met a null book sends fewer than it announced; such a short batch ends "
       "right after `application` and is no valid record. Readers refuse it, and collectors keep "
       "it aside together with the books that were there."},
      {"NewBooksEvent",
       "A bare count. It shares its code with NewBooksEventEx: a datagram of exactly this size is "
       "this record."},
      {"ChangePageEvent",
       "The common page turn. It shares its code with ChangePageEventEx: a datagram of exactly "
       "this size is this record."},
      {"SetFontParamsEvent",
       "The four margins are in one number, the first in the highest byte; a negative one sets "
       "every bit above its own byte."},
  };
  for (const Note& note : kNotes) {
    if (note.event == type.event) return note.text;
  }
  return {};
}

void PrintText() {
  for (const RecordType& type : records::Catalogue()) {
    Print("{:>4}  {}  {}\n", type.code, Coloured(Colour::kBold, type.event),
          Coloured(Colour::kDim, type.enumerator));
    for (const FieldType& field : type.fields) {
      Print("      {:<24}  {}\n", field.name, field.primitive);
    }
  }
}

void PrintJson() {
  Json json = Json::array();
  for (const RecordType& type : records::Catalogue()) {
    Json fields = Json::array();
    for (const FieldType& field : type.fields) {
      fields.push_back({{"name", field.name}, {"primitive", field.primitive}});
    }
    json.push_back({{"code", type.code},
                    {"name", type.event},
                    {"enumerator", type.enumerator},
                    {"made_by_factory", type.made_by_factory},
                    {"fields", fields},
                    {"note", NoteOn(type)}});
  }
  Print("{}\n", records::Dump(json, 2));
}

constexpr std::string_view kMarkdownHead = R"(# Records

Every record of the system, field by field. This page is the output of `usage-stat types -o markdown`, generated from the lists that write the records; `make records` renews it.

## Encoding

A record is one datagram. Its fields follow one another without padding, tags or a total length; numbers are little-endian.

| Primitive | Bytes |
|---|---|
| Int16, UInt16 | 2 |
| Int32 | 4 |
| Char, UChar | 1; shown as 0 to 255 |
| Timestamp | 8, signed: milliseconds since the Unix epoch |
| String | a 4-byte length, unsigned, then that many bytes, UTF-8 by custom |
| StringVec | a 4-byte count, unsigned, then that many Strings |
| Language | 2: a code such as `en`, filled up with NULs |
| Char x2, Char x20 | that many Chars, without a length |

## Envelope

Every record begins with

| Field | Primitive |
|---|---|
| type | Int16: the code below |
| timestamp | Timestamp: when the event happened |

and ends with its last field: a datagram with bytes left over is no valid record.

Fields with a letter for a name mean what applications and analysts agree on. `[]` marks fields that are repeated for each element of a list. A flag that travels as a Char is written as 0 or 1; any other byte reads as true.

Codes are never reused. Two classes each write the codes 2028 and 2032: read such a datagram as the shorter one if that fits exactly, else as the longer one.
)";

void PrintMarkdown() {
  Write(kMarkdownHead);
  for (const RecordType& type : records::Catalogue()) {
    Print("\n## {} {}\n\n", type.code, type.event);
    if (const auto note = NoteOn(type); !note.empty()) Print("{}\n\n", note);
    if (type.fields.empty()) {
      Write("No fields.\n");
      continue;
    }
    Write("| Field | Primitive |\n|---|---|\n");
    for (const FieldType& field : type.fields) Print("| {} | {} |\n", field.name, field.primitive);
  }
}

}  // namespace

void AddTypes(CommandLine* line) {
  auto format = std::make_shared<std::string>();
  Command command = line->AddCommand("types", "Show all record types and their fields");
  AddOutputOption(command, format.get(), {"text", "json", "markdown"});
  command.OnRun([format] {
    (*format == "text" ? PrintText : *format == "json" ? PrintJson : PrintMarkdown)();
    return kOk;
  });
}

}  // namespace velmora::usage_stat::inspector
