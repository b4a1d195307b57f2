// usage-stat types: the dictionary of all records, for people and for programs.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "src/events/snapshot_events.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/catalogue.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::FieldType;
using records::Json;
using records::RecordType;
using records::Slot;

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
       "The writer always sends a list count of 3, and a reader takes any number there: three "
       "lists "
       "follow in any case, and 3 is what is shown. The type and the count of a list frame it and "
       "are not in JSON. A key "
       "below 0 takes 1 away from its kind, modulo 256, because a key code is rebuilt as key + 256 "
       "* kind: what is shown are the key and the kind of that code, in `decode` too."},
      {"OpenBookEvent", "`d` is written as 1 or 0, and only 1 reads as true."},
      {"NewBooksEventEx",
       "The books follow when the count is 1 to 100, and there are as many of them as the count "
       "says; after any other count `application` follows at once. A sender that met a null book "
       "sends fewer than it announced; such a short batch ends right after `application` and is no "
       "valid record. Readers refuse it, and collectors keep it aside together with the books that "
       "were there."},
      {"NewBooksEvent",
       "A bare count. It shares its code with NewBooksEventEx: a datagram of exactly this size is "
       "this record."},
      {"ChangePageEvent",
       "The common page turn. It shares its code with ChangePageEventEx: a datagram of exactly "
       "this size is this record."},
      {"SetFontParamsEvent",
       "The four margins are in one number, the first in the highest byte; a negative one sets "
       "every bit above its own byte. `margins` shows the four bytes."},
  };
  for (const Note& note : kNotes) {
    if (note.event == type.event) return note.text;
  }
  return {};
}

// ---- Text ----

void PrintText() {
  for (const RecordType& type : records::Catalogue()) {
    Print("{:>4}  {}  {}\n", type.code, Coloured(Colour::kBold, type.event),
          Coloured(Colour::kDim, type.enumerator));
    for (const FieldType& field : type.fields) {
      Print("      {:<22} {:<9} {:<12} {}\n", field.name, field.primitive,
            records::NameOf(field.sensitivity), field.meaning);
    }
  }
}

// ---- JSON ----

Json ToJson(const FieldType& field) {
  Json json = {{"name", field.column},
               {"primitive", field.primitive},
               {"form", field.form},
               {"kind", records::NameOf(field.kind)},
               {"sensitivity", records::NameOf(field.sensitivity)},
               {"meaning", field.meaning}};
  if (!field.name_key.empty()) json["name_key"] = field.name_key;
  if (field.form == "constant") json["value"] = KeyListCount::kCount;
  return json;
}

Json ToJson(const RecordType& type, const Slot& slot) {
  if (!slot.is_list) return ToJson(type.fields[slot.first]);
  Json rows = Json::array();
  for (std::size_t i = 0; i < slot.size; ++i) rows.push_back(ToJson(type.fields[slot.first + i]));
  Json json = {{"name", slot.name}, {"meaning", slot.meaning}};
  if (slot.number) {
    json["list_number"] = *slot.number;
    json["header"] = Json::array(
        {{{"name", "type"}, {"primitive", "Int16"}}, {{"name", "count"}, {"primitive", "Int16"}}});
  }
  json["count"] = {{"field", "count"}, {"least", 1}, {"most", slot.number ? 32767 : 100}};
  json["rows"] = rows;
  return json;
}

Json ToJson(const RecordType& type) {
  Json fields = Json::array();
  for (const Slot& slot : type.slots) fields.push_back(ToJson(type, slot));
  return {{"code", type.code},
          {"name", type.event},
          {"enumerator", type.enumerator},
          {"shorter", !type.made_by_factory},
          {"carries_book", type.carries_book()},
          {"fields", fields},
          {"note", NoteOn(type)}};
}

// The kinds that occur, each once, in the order of the enumeration.
std::vector<Kind> KindsInUse() {
  std::vector<Kind> kinds;
  for (const RecordType& type : records::Catalogue()) {
    for (const FieldType& field : type.fields) kinds.push_back(field.kind);
  }
  std::sort(kinds.begin(), kinds.end());
  kinds.erase(std::unique(kinds.begin(), kinds.end()), kinds.end());
  return kinds;
}

Json KindsAsJson() {
  Json kinds = Json::object();
  for (const Kind kind : KindsInUse()) {
    Json& row = kinds[std::string(records::NameOf(kind))] = Json::object();
    if (records::NamedValues(kind).empty()) continue;
    row["type"] = records::TypeName(kind);
    Json& values = row["values"] = Json::array();
    for (const auto& value : records::NamedValues(kind)) {
      values.push_back({{"value", value.value}, {"name", value.name}});
    }
  }
  return kinds;
}

constexpr const char* kEncoding = R"({
  "byte_order": "little-endian",
  "primitives": {
    "Int8": {"bytes": 1, "signed": true},
    "Char": {"bytes": 1, "signed": false},
    "UChar": {"bytes": 1, "signed": false},
    "Int16": {"bytes": 2, "signed": true},
    "UInt16": {"bytes": 2, "signed": false},
    "Int32": {"bytes": 4, "signed": true},
    "Timestamp": {"bytes": 8, "signed": true},
    "String": {"length_bytes": 4},
    "StringVec": {"count_bytes": 4, "of": "String"},
    "Language": {"bytes": 2, "ends_at_nul": true},
    "Char x2": {"bytes": 2},
    "Char x20": {"bytes": 20}
  },
  "forms": {
    "number": "as it is",
    "flag": "true unless it is 0",
    "flag_if_one": "true if it is 1, else false",
    "borrowing": "1 less, modulo 256 and with a sign, when the number before it in the row is below 0",
    "constant": "always the value that stands beside, whatever the bytes say",
    "text": "UTF-8; what is none becomes U+FFFD",
    "texts": "a list of texts",
    "hexadecimal": "two lower-case digits for each byte"
  },
  "envelope": [{"name": "type", "primitive": "Int16"}, {"name": "timestamp", "primitive": "Timestamp"}],
  "rules": [
    "A record ends with its last field: bytes left over make it invalid, as do missing ones.",
    "Of two classes with one code, the one marked as shorter is taken if it fits exactly, else the other.",
    "A list has the rows that its count says when that is from least to most, and none otherwise. The count is the field of that name before the list, or in the list's own header.",
    "A header whose type is not the list_number makes the record invalid."
  ]
})";

const Json& Encoding() {
  static const Json encoding = Json::parse(kEncoding);
  return encoding;
}

void PrintJson() {
  Json types = Json::array();
  for (const RecordType& type : records::Catalogue()) types.push_back(ToJson(type));
  const Json dictionary = {
      {"encoding", Json::parse(kEncoding)}, {"kinds", KindsAsJson()}, {"records", types}};
  Print("{}\n", records::Dump(dictionary, 2));
}

// ---- JSON Schema, of a line of list -o json ----

Json SchemaOf(const FieldType& field) {
  Json schema = {{"description", field.meaning}};
  if (field.form.starts_with("flag")) {
    schema["type"] = "boolean";
  } else if (field.form == "texts") {
    schema["type"] = "array";
    schema["items"] = {{"type", "string"}};
  } else if (field.form == "text" || field.form == "hexadecimal") {
    schema["type"] = "string";
  } else {
    const Json& primitive = Encoding()["primitives"].at(std::string(field.primitive));
    const bool is_signed = primitive.at("signed").get<bool>();
    const std::size_t unused_bits = 64 - 8 * field.extent.least;
    const std::int64_t most = INT64_MAX >> unused_bits;
    schema["type"] = "integer";
    schema["minimum"] = is_signed ? -most - 1 : 0;
    schema["maximum"] = is_signed ? Json(most) : Json(UINT64_MAX >> unused_bits);
  }
  return schema;
}

// An object of exactly `properties`, and whatever names stand beside values.
Json ObjectOf(const Json& properties) {
  Json required = Json::array();
  for (const auto& property : properties.items()) required.push_back(property.key());
  return {{"type", "object"}, {"properties", properties}, {"required", required}};
}

Json FieldsSchema(const RecordType& type) {
  Json properties = Json::object();
  for (const Slot& slot : type.slots) {
    Json columns = Json::object();
    for (std::size_t i = slot.first; i < slot.first + slot.size; ++i) {
      columns[type.fields[i].column] = SchemaOf(type.fields[i]);
    }
    properties[slot.name] =
        slot.is_list ? Json{{"type", "array"}, {"items", ObjectOf(columns)}} : columns[slot.name];
  }
  return ObjectOf(properties);
}

void PrintSchema() {
  Json any = Json::array();
  for (const RecordType& type : records::Catalogue()) {
    any.push_back({{"title", type.event},
                   {"properties",
                    {{"event", {{"const", type.event}}},
                     {"type", {{"const", type.code}}},
                     {"fields", FieldsSchema(type)}}}});
  }
  const Json integer = {{"type", "integer"}};
  Json schema = ObjectOf(
      {{"event", {{"type", "string"}}},
       {"type", integer},
       {"timestamp", {{"type", "integer"}, {"description", "milliseconds since the epoch"}}},
       {"fields", {{"type", "object"}}}});
  schema["$schema"] = "https://json-schema.org/draft/2020-12/schema";
  schema["title"] = "a record";
  schema["oneOf"] = any;
  Print("{}\n", records::Dump(schema, 2));
}

// ---- Markdown ----

constexpr std::string_view kMarkdownHead = R"(# Records

Every record of the system, field by field. This page is the output of `usage-stat types -o markdown`, generated from the lists that write the records; `make records` renews it. `usage-stat types -o json` has the same for programs, complete enough to generate a decoder from ([`examples/decoder.py`](../examples/decoder.py) does), and `-o schema` a JSON Schema of what `usage-stat list -o json` prints.

## Names

A field is named once, where its class lists it, and bears that name everywhere: in JSON, CSV, SQL, `decode`, filters, and as a parameter of the C functions. The record itself carries no names. Where it gives a value no meaning, the name is what the applications have agreed on:

| Name | Agreement |
|---|---|
| `book_id` | `Stat_GetBookId` of the book's path; a record that has one belongs to that book |
| `from_page`, `to_page`, `page` | page numbers as the reader shows them |
| `pages` | how many pages the book has as it is displayed |
| `word`, `url`, `voice`, `language` | the texts themselves |
| `authors`, `genres`, `other_people`, `title`, `series`, `series_number`, `publisher`, `year` | what the book says about itself |
| a letter | the application's own: ask those who wrote it |

Around the fields, JSON and CSV have `timestamp` (when it happened) and `received`, in milliseconds since the Unix epoch; the tables of SQL have them as `timestamp_ms` and `received_ms`, and the former as text in UTC too, `time`.

These names do not change any more: queries and programs may rely on them. New fields get new names.

Each field has a sensitivity, which policies on what leaves a device go by: *technical* (the device and its software), *interaction* (what somebody does with it), *content* (what somebody reads, writes or looks up, and all that is the application's own, since anything may stand there), *identifying* (tells one device or one book from all others).

## Encoding

A record is one datagram. Its fields follow one another without padding, tags or a total length; numbers are little-endian.

| Primitive | Bytes |
|---|---|
| Int16, UInt16 | 2 |
| Int32 | 4 |
| Char, UChar | 1; shown as 0 to 255 |
| Int8 | 1, signed |
| Timestamp | 8, signed: milliseconds since the Unix epoch |
| String | a 4-byte length, unsigned, then that many bytes, UTF-8 by custom |
| StringVec | a 4-byte count, unsigned, then that many Strings |
| Language | 2: a code such as `en`, filled up with NULs; it ends at the first one |
| Char x2 | 2 Chars, a text of always two characters, NULs included |
| Char x20 | 20 Chars, shown as hexadecimal digits |

Every record begins with

| Field | Primitive |
|---|---|
| type | Int16: the code below |
| timestamp | Timestamp: when the event happened |

What else a decoder needs to know:

- A record ends with its last field. A datagram with bytes left over is no valid record, nor is one that ends early: a String that claims more bytes than there are, a StringVec that claims more Strings.
- Codes are never reused. Two classes each write the codes 2028 and 2032: read such a datagram as the shorter one if that fits exactly, else as the longer one.
- `flag` behind a primitive: any value but 0 reads as true, and JSON has `true` or `false`. `flag, 1 only`: any value but 1 reads as false.
- `[]` marks the fields of each row of a list. Rows marked *frame* say which list follows or how many rows it has; they are on the wire and not in JSON, but for `count` and `list_count`.
- A count below the range leaves the list empty, and what follows the list follows at once.
- Bytes that are not UTF-8 are shown as U+FFFD; `raw` in JSON and CSV has them as they are. A NUL in a String stays.
- Numbers that have names (below) keep their number, and the name stands beside it: `library_mode` 1 and `library_mode_name` `authors`. A number without a name has none.
)";

std::string Shown(const FieldType& field) {
  std::string shown(field.primitive);
  if (field.form == "flag") shown += ", flag";
  if (field.form == "flag_if_one") shown += ", flag, 1 only";
  if (field.is_structure) shown += ", *frame*";
  return shown;
}

void PrintMarkdown() {
  Write(kMarkdownHead);
  for (const RecordType& type : records::Catalogue()) {
    Print("\n## {} {}\n\n", type.code, type.event);
    if (const auto note = NoteOn(type); !note.empty()) Print("{}\n\n", note);
    if (type.fields.empty()) {
      Write("No fields.\n");
      continue;
    }
    Write("| Field | Primitive | Kind | Sensitivity | Meaning |\n|---|---|---|---|---|\n");
    for (const FieldType& field : type.fields) {
      Print("| {} | {} | {} | {} | {} |\n", field.name, Shown(field), records::NameOf(field.kind),
            records::NameOf(field.sensitivity), field.meaning);
    }
  }
  Write("\n## Named values\n");
  for (const Kind kind : KindsInUse()) {
    if (records::NamedValues(kind).empty()) continue;
    Print("\n### {} ({})\n\n| Value | Name |\n|---|---|\n", records::NameOf(kind),
          records::TypeName(kind));
    for (const auto& value : records::NamedValues(kind)) {
      Print("| {} | {} |\n", value.value, value.name);
    }
  }
}

struct Format {
  const char* name;
  void (*print)();
};
constexpr Format kFormats[] = {
    {"text", PrintText}, {"json", PrintJson}, {"schema", PrintSchema}, {"markdown", PrintMarkdown}};

}  // namespace

void AddTypes(CommandLine* line) {
  auto format = std::make_shared<std::string>();
  Command command =
      line->AddCommand("types", "Show all record types, their fields and what these mean");
  std::vector<std::string> names;
  for (const Format& row : kFormats) names.emplace_back(row.name);
  AddOutputOption(command, format.get(), names);
  command.OnRun([format] {
    for (const Format& row : kFormats) {
      if (*format == row.name) row.print();
    }
    return kOk;
  });
}

}  // namespace velmora::usage_stat::inspector
