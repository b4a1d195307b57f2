// All record types: codes, names and fields, generated from the lists that write the records.

#ifndef TOOLS_RECORDS_CATALOGUE_H_
#define TOOLS_RECORDS_CATALOGUE_H_

#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "src/stat_event/event.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::records {

// One field of a payload as documentation names it: "books[].book_id", "Int32".
struct FieldType {
  std::string name;
  std::string primitive;
};

// Receives the fields of a record as they are read.
class FieldSink {
 public:
  virtual ~FieldSink() = default;
  // Called before a field is read, which may fail, and after it was. `least_size`: the number of
  // bytes that every value of the primitive takes, before a text's own.
  virtual void Begin(const std::string& name, std::string_view primitive,
                     std::size_t least_size) = 0;
  virtual void End(Json value) = 0;
};

// One event class. Several may have the same code.
struct RecordType {
  int code;
  std::string_view enumerator;  // such as "kChangePage"
  std::string_view event;       // class name, such as "ChangePageEvent"
  bool made_by_factory;         // false for the shorter class of a code that two classes write
  std::vector<FieldType> fields;

  // The payload of `event`, which must be of this class, by field name.
  Json (*fields_of)(const Event& event);
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

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_CATALOGUE_H_
