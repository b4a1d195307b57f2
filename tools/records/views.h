// Records as tables with typed columns by name: one for each event.

#ifndef TOOLS_RECORDS_VIEWS_H_
#define TOOLS_RECORDS_VIEWS_H_

#include <string>
#include <string_view>
#include <vector>

namespace velmora::usage_stat::records {

struct View {
  std::string name;  // "change_page"
  std::string sql;   // the statement that makes it
};

// One view for each event, with a column for each field, and one for each list, with a row for each
// of its rows. They read a table
//
//   records(id, received_ms, pid, uid, event, timestamp_ms, fields, ...)
//
// whose `event` is the id of a row of events(id, type, name) with the class name, and whose
// `fields` is a JSON array as RecordType::values_of has it, and the table of ValueNames(). Others
// than the first read `records` through the first.
const std::vector<View>& Views();

// The names of values: a table value_names(kind, value, name). Views look names up in it, since
// every file of records holds the text of all views.
struct NameTable {
  std::string create;
  std::string fill;  // puts the rows into the table, which must be empty
  std::string read;  // a query for all rows as one text ...
  std::string text;  // ... which is this one when they are as they were filled in
};
const NameTable& ValueNames();

// "change_page" for "ChangePageEvent".
std::string ViewName(std::string_view event);

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_VIEWS_H_
