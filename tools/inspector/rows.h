// Stored records as text.

#ifndef TOOLS_INSPECTOR_ROWS_H_
#define TOOLS_INSPECTOR_ROWS_H_

#include <string>
#include <vector>

#include "tools/records/record.h"
#include "tools/store/row.h"

namespace velmora::usage_stat::inspector {

// The formats of RowPrinter, the default first.
std::vector<std::string> RowFormats();

struct RowLayout {
  std::string format;
  // Classes whose fields become columns of csv, each its own; none: all fields are one column.
  std::vector<std::string> events = {};
  std::vector<std::string> columns = {};  // of csv, in this order; none: all
  bool iso_times = false;                 // in csv, instead of milliseconds since the epoch
  bool is_quarantine = false;             // datagrams that could not be read
};

// Prints rows to standard output:
//
//   short        one line for people
//   json         one JSON object on a line
//   json-pretty  the same on many lines
//   csv          comma-separated values (RFC 4180) under a line with their names
//   raw          the datagram as hexadecimal digits, one on a line
//
// No text in it can be obeyed by a terminal.
class RowPrinter {
 public:
  explicit RowPrinter(const RowLayout& layout);

  // What is wrong with the columns that were asked for; empty for nothing.
  const std::string& mistake() const { return mistake_; }

  void PrintHead() const;
  void Print(const store::RecordRow& row) const;
  void Print(const store::QuarantineRow& row) const;

 private:
  void PrintCsv(const records::Json& row) const;

  RowLayout layout_;
  std::vector<std::string> columns_;  // of csv
  std::string mistake_;
};

// A cell of comma-separated values, printable.
std::string CsvCell(const std::string& text);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_ROWS_H_
