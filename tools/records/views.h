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
// `fields` is a JSON array as RecordType::values_of has it.
const std::vector<View>& Views();

// "change_page" for "ChangePageEvent".
std::string ViewName(std::string_view event);

}  // namespace velmora::usage_stat::records

#endif  // TOOLS_RECORDS_VIEWS_H_
