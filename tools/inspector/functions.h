// The exported functions of libusage_stat as a table: what they take, and how to call them.

#ifndef TOOLS_INSPECTOR_FUNCTIONS_H_
#define TOOLS_INSPECTOR_FUNCTIONS_H_

#include <string>
#include <string_view>
#include <vector>

#include "tools/records/record.h"

namespace velmora::usage_stat::inspector {

// How an argument is written on a command line.
enum class Shape { kNumber, kText, kNumbers, kTexts };

struct Parameter {
  std::string_view name;
  std::string type;      // as usage_stat.h spells it
  std::string expected;  // for people: "a whole number from -32768 to 32767"
  Shape shape;
  bool may_be_null;
};

// What became of a call: the function's result, or why it was not called.
struct CallResult {
  records::Json value;  // null for a function without a result
  std::string error;
};

struct Function {
  std::string_view name;
  // The class of the record that the function sends, when its arguments are the record's fields and
  // nothing else; empty for all others.
  std::string_view event;
  std::vector<Parameter> parameters;
  // Calls the function of the library with one value for each parameter, after checking them.
  CallResult (*invoke)(const Function& function, const std::vector<records::Json>& values);

  // Whether the result tells how sending went; a value to look at otherwise.
  bool returns_status() const;
};

const std::vector<Function>& Functions();

// The function called `name`, with or without "Stat_"; null when there is none.
const Function* FindFunction(std::string_view name);

// The function that sends exactly such a record again; null when there is none.
const Function* FindSender(std::string_view event);

// The arguments with which FindSender() sends a record with these fields.
std::vector<records::Json> ArgumentsFor(const Function& sender, const records::Json& fields);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_FUNCTIONS_H_
