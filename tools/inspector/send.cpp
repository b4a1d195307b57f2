// usage-stat send: any exported function, for scripts and tests.

#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "tools/base/system.h"
#include "tools/command_line/command_line.h"
#include "tools/inspector/functions.h"
#include "tools/inspector/selection.h"
#include "tools/inspector/terminal.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::inspector {

namespace {

using records::Json;

struct Options {
  bool list = false;
  std::string endpoint;
  std::string output;
  std::vector<std::string> words;  // the function and its arguments
};

std::string Signature(const Function& function) {
  std::string text(function.name);
  for (const Parameter& parameter : function.parameters) {
    text += fmt::format("{}{}{}{}{}", &parameter == function.parameters.data() ? "(" : ", ",
                        parameter.type, parameter.type.ends_with('*') ? "" : " ", parameter.name,
                        parameter.may_be_null ? "?" : "");
  }
  return text + (function.parameters.empty() ? "()" : ")");
}

void List(bool as_json) {
  Json json = Json::array();
  for (const Function& function : Functions()) {
    if (!as_json) Print("{}\n", Signature(function));
    Json parameters = Json::array();
    for (const Parameter& parameter : function.parameters) {
      parameters.push_back({{"name", parameter.name},
                            {"type", parameter.type},
                            {"expected", parameter.expected},
                            {"may_be_null", parameter.may_be_null}});
    }
    json.push_back(
        {{"function", function.name}, {"record", function.event}, {"parameters", parameters}});
  }
  if (as_json) Print("{}\n", records::Dump(json, 2));
}

// One argument of the command line as a value. What is no number or list stays a text, which the
// function's own check then refuses.
Json ParseArgument(const std::string& text, Shape shape) {
  if (text == "null:") return nullptr;
  if (shape == Shape::kText) {
    constexpr std::string_view kLiteral = "text:";
    return text.starts_with(kLiteral) ? text.substr(kLiteral.size()) : text;
  }
  const auto value_of = [shape](const std::string& part) -> Json {
    if (shape == Shape::kTexts) return part;
    const Json value = Json::parse(part, nullptr, false);
    return value.is_number() || value.is_boolean() ? value : Json(part);
  };
  if (shape == Shape::kNumber) return value_of(text);
  if (text.starts_with('[')) {
    const Json list = Json::parse(text, nullptr, false);
    return list.is_discarded() ? Json(text) : list;
  }
  Json list = Json::array();
  for (std::size_t begin = 0; !text.empty() && begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    list.push_back(value_of(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return list;
}

struct Named {
  std::string name;  // such as "ECONNREFUSED"
  std::string message;
};

Named Explain(const Function& function, const Json& result) {
  if (!function.returns_status()) return {};
  const int code = result.get<int>();
  switch (code) {
    case 0:
      return {"", "done"};
    case -1:
      return {"VM_FAILED", "the record could not be written, or is not sent this way"};
    case -2:
      return {"VM_INVAL", "the arguments were rejected"};
    default: {
      const char* name = strerrorname_np(code);
      return {name ? name : "", std::strerror(code)};
    }
  }
}

int Report(const Function& function, const std::vector<Json>& arguments, const Json& result,
           const Options& options) {
  const Named named = Explain(function, result);
  if (options.output == "json") {
    Print("{}\n", records::Dump({{"function", function.name},
                                 {"arguments", arguments},
                                 {"result", result},
                                 {"name", named.name},
                                 {"message", named.message}}));
  } else {
    std::string line(function.name);
    for (const Json& argument : arguments) {
      line += &argument == arguments.data() ? "(" : ", ";
      line += PrintableJson(argument);
    }
    line += arguments.empty() ? "()" : ")";
    if (!result.is_null()) line += fmt::format(" = {}", PrintableJson(result));
    if (!named.name.empty()) line += fmt::format(" {} ({})", named.name, named.message);
    Print("{}\n", line);
  }
  if (!function.returns_status() || result == 0) return kOk;
  if (result == ECONNREFUSED) {
    return Complain(kFailed, fmt::format("no collector listens on \"{}\"; usage-stat doctor tells "
                                         "more",
                                         base::EndpointInUse()));
  }
  return kFailed;
}

int Run(const Options& options) {
  const std::vector<std::string>& words = options.words;
  if (options.list) {
    if (!words.empty()) return Complain(kUsage, "--list takes no function");
    List(options.output == "json");
    return kOk;
  }
  if (words.empty()) return Complain(kUsage, "which function? usage-stat send --list shows them");
  const Function* function = FindFunction(words[0]);
  if (!function) {
    return Complain(kUsage,
                    "there is no function " + words[0] + "; usage-stat send --list shows them");
  }
  if (words.size() - 1 != function->parameters.size()) {
    return Complain(
        kUsage, fmt::format("{} takes {} arguments, not {}: {}", function->name,
                            function->parameters.size(), words.size() - 1, Signature(*function)));
  }
  std::vector<Json> arguments;
  for (const Parameter& parameter : function->parameters) {
    arguments.push_back(ParseArgument(words[arguments.size() + 1], parameter.shape));
  }
  UseEndpoint(options.endpoint);
  // Some texts make the library's own use of strings throw, as its header tells.
  try {
    const CallResult result = function->invoke(*function, arguments);
    if (!result.error.empty()) return Complain(kUsage, result.error);
    return Report(*function, arguments, result.value, options);
  } catch (const std::exception& exception) {
    return Complain(kFailed,
                    fmt::format("{} raised an exception: {}", function->name, exception.what()));
  }
}

}  // namespace

void AddSend(CommandLine* line) {
  auto options = std::make_shared<Options>();
  Command command = line->AddCommand("send", "Call any exported function of the library");
  command.Flag("--list", "Show all functions and their parameters", &options->list);
  AddEndpointOption(command, &options->endpoint);
  AddOutputOption(command, &options->output, {"text", "json"});
  command.TakeRest(&options->words);
  command.Footer(
      "usage-stat send [OPTIONS] FUNCTION [ARGUMENT...]\n\n"
      "FUNCTION is a name such as Stat_GoToURLEvent or GoToURLEvent. Options stand before it.\n"
      "Each ARGUMENT is a number, a text, or a list separated by commas or written as a JSON\n"
      "array. null: is a null pointer; text:null: is the text after its first colon.");
  command.OnRun([options] { return Run(*options); });
}

}  // namespace velmora::usage_stat::inspector
