// All record types: codes, names, and what their fields are and mean, generated from the lists that
// write the records.

#ifndef TOOLS_RECORDS_CATALOGUE_H_
#define TOOLS_RECORDS_CATALOGUE_H_

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "src/stat_event/event.h"
#include "src/stat_event/fields.h"
#include "tools/records/json.h"
#include "tools/records/kinds.h"

namespace velmora::usage_stat::records {

// One value on the wire. Its place in RecordType::fields is its number wherever fields have one.
struct FieldType {
  std::string name;            // among all of the record: "page", "books[].title"
  std::string column;          // the last part of the name: "title"
  std::string_view member;     // what it was called before names were agreed on: "a", "s1"
  std::string_view primitive;  // such as "Int32"
  Extent extent;
  // What it becomes: "number", "flag" (true unless 0), "flag_if_one", "borrowing" (a key's kind),
  // "constant" (the number of key lists), "text", "texts", "hexadecimal".
  std::string_view form;
  Kind kind;
  Sensitivity sensitivity;
  std::string_view meaning;
  bool is_structure;     // frames a list: it says which list follows, or how many rows
  std::string name_key;  // of the name that stands beside the value: "action_name"; else empty
};

// What a payload consists of: values, and lists of rows. The value of the n-th is the n-th of
// RecordType::values_of.
struct Slot {
  std::string name;  // "page", "books"
  std::string_view meaning;
  bool is_list;
  std::size_t first;  // its field, or the first column of its rows, in RecordType::fields
  std::size_t size;   // 1, or how many columns the rows have
  std::optional<int> number = {};  // of a list that begins with its number and its count
};

// Receives the fields of a record as they are read.
class FieldSink {
 public:
  virtual ~FieldSink() = default;
  // Called before a field is read, which may fail, and after it was.
  virtual void Begin(const std::string& name, std::string_view primitive, Extent extent) = 0;
  virtual void End(Json value) = 0;
};

// Changes the values of an event. `field` is the value's number.
class FieldEditor {
 public:
  virtual ~FieldEditor() = default;
  // The number to be put in the place of `value`, of which as many bits are kept as the field has.
  // A flag is 0 or 1.
  virtual std::int64_t Number(std::size_t field, std::int64_t value) = 0;
  // Changes a text. A language keeps at most two characters, and one that always has two is filled
  // up with NULs; so is an identifier of fixed length.
  virtual void Text(std::size_t field, std::string* value) = 0;
  virtual void Texts(std::size_t field, std::vector<std::string>* value) = 0;
};

// One event class. Several may have the same code.
struct RecordType {
  int code;
  std::string_view enumerator;  // such as "kChangePage"
  std::string_view event;       // class name, such as "ChangePageEvent"
  bool made_by_factory;         // false for the shorter class of a code that two classes write
  std::vector<FieldType> fields;
  std::vector<Slot> slots;

  // Whether it names a book; then there is a field of the kind kBookId.
  bool carries_book() const;

  // The payload of `event`, which must be of this class: an array with one element for each slot, a
  // list as an array of arrays. See NamedFields.
  Json (*values_of)(const Event& event);
  // Hands each value of `event`, which must be of this class, to `editor`, in wire order, rows
  // after rows, without those that frame a list. The event can be written whatever the editor does.
  void (*edit)(Event* event, FieldEditor* editor);
  // A new event with the payload that `in` holds; null, without logging, when it can't be read.
  std::unique_ptr<Event> (*read)(std::istream& in);
  // Reads a payload field by field, without logging. False at the first that fails.
  bool (*trace)(std::istream& in, FieldSink* sink);
};

// In order of code, the class that the factory makes before the shorter one.
const std::vector<RecordType>& Catalogue();

// The type of `code` that the factory makes; null when it makes none.
const RecordType* FindType(int code);

// The shorter class that is written under `code` too; null for most.
const RecordType* FindShorterType(int code);

// The type with this class name; null when there is none.
const RecordType* FindEvent(std::string_view event);

// `values` of a record by name, and beside the values that have one their name. Leaves out what
// `values` does not hold, since anybody can write to a file.
Json NamedFields(const RecordType& type, const Json& values);

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_CATALOGUE_H_
