// Stored records as text.

#ifndef TOOLS_INSPECTOR_ROWS_H_
#define TOOLS_INSPECTOR_ROWS_H_

#include <string>
#include <vector>

#include "tools/store/row.h"

namespace velmora::usage_stat::inspector {

// The formats of RowPrinter, the default first.
std::vector<std::string> RowFormats();

// Prints rows to standard output:
//
//   short        one line for people
//   json         one JSON object on a line
//   json-pretty  the same on many lines
//   csv          comma-separated values (RFC 4180) under a line with their names
//   raw          the datagram as hexadecimal digits, one on a line
class RowPrinter {
 public:
  explicit RowPrinter(const std::string& format);
  void Print(const store::RecordRow& row) const { print_(row); }

 private:
  void (*print_)(const store::RecordRow& row);
};

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_ROWS_H_
