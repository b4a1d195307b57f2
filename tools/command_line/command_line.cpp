#include "tools/command_line/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <numeric>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/records/text.h"

namespace velmora::usage_stat {

namespace {

// Options whose value is explained by the description alone have a blank for its name; else the
// help would tell its type.
void NameValue(CLI::Option* option, const std::string& name) {
  option->option_text(name.empty() ? " " : name);
}

// Tells the parser what is wrong with the value of `option`, if anything is.
void Raise(const std::string& option, const std::string& mistake) {
  if (!mistake.empty()) throw CLI::ValidationError(option, mistake);
}

std::string LastOf(const std::string& names) { return names.substr(names.find_last_of(',') + 1); }

// How many letters are to be changed, added or left out to make one word of the other.
std::size_t Distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t before = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t changed = before + (from[i] == to[j] ? 0 : 1);
      before = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

// Asks for the subcommand or the option of `command` that `word` comes close to, if any does.
std::string DidYouMean(const CLI::App& command, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* each : command.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(each->get_name());
  }
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  const auto distance = [&word](const std::string& name) { return Distance(word, name); };
  const auto nearest = std::ranges::min_element(names, {}, distance);
  const std::size_t most = std::min<std::size_t>(2, word.size() / 2);
  if (nearest == names.end() || distance(*nearest) > most) return {};
  return "; did you mean " + *nearest + "?";
}

std::string Complaint(const CLI::App* program, const CLI::Error& error) {
  std::string path = program->get_name();
  const CLI::App* command = program;
  while (!command->get_subcommands().empty()) {
    command = command->get_subcommands().front();
    path += " " + command->get_name();
  }
  const std::vector<std::string> unknown = command->remaining();
  return fmt::format("{}: {}{}; see {} --help\n", program->get_name(),
                     records::Printable(error.what()),
                     unknown.empty() ? "" : DidYouMean(*command, unknown.front()), path);
}

}  // namespace

// ---- One command ----

void Command::Option(const std::string& names, const std::string& value_name,
                     const std::string& description, Take take) {
  NameValue(app_->add_option_function<std::string>(
                names,
                [name = LastOf(names), take = std::move(take)](const std::string& text) {
                  Raise(name, take(text));
                },
                description),
            value_name);
}

void Command::Option(const std::string& names, const std::string& value_name,
                     const std::string& description, std::string* value) {
  NameValue(app_->add_option(names, *value, description), value_name);
}

void Command::Option(const std::string& names, const std::string& value_name,
                     const std::string& description, std::int64_t least, std::int64_t most,
                     std::int64_t* value) {
  NameValue(app_->add_option(names, *value, description)->check(CLI::Range(least, most)),
            value_name);
}

void Command::Option(const std::string& names, const std::string& value_name,
                     const std::string& description, int least, int most, int* value) {
  NameValue(app_->add_option(names, *value, description)->check(CLI::Range(least, most)),
            value_name);
}

void Command::SizeOption(const std::string& names, const std::string& description,
                         const std::function<std::string(std::uint64_t)>& take) {
  NameValue(
      app_->add_option_function<std::uint64_t>(
              names, [name = LastOf(names), take](std::uint64_t size) { Raise(name, take(size)); },
              description)
          ->transform(CLI::AsSizeValue(false)),
      "SIZE");
}

void Command::RepeatedOption(const std::string& names, const std::string& value_name,
                             const std::string& description, Take take) {
  NameValue(app_->add_option_function<std::vector<std::string>>(
                    names,
                    [name = LastOf(names), take = std::move(take)](const auto& texts) {
                      for (const std::string& text : texts) Raise(name, take(text));
                    },
                    description)
                ->allow_extra_args(false),
            value_name + " ...");
}

void Command::Choice(const std::string& names, const std::string& value_name,
                     const std::string& description, const std::vector<std::string>& values,
                     std::string* value) {
  app_->add_option(names, *value, description)
      ->check(CLI::IsMember(values))
      ->type_name(value_name)
      ->capture_default_str();
}

void Command::Flag(const std::string& names, const std::string& description, bool* value) {
  app_->add_flag(names, *value, description);
}

void Command::Exclude(const std::string& name, const std::string& other) {
  app_->get_option(name)->excludes(app_->get_option(other));
}

void Command::Argument(const std::string& name, const std::string& description, std::string* value,
                       bool is_required) {
  NameValue(app_->add_option(name, *value, description)->required(is_required), "");
}

void Command::Arguments(const std::string& name, const std::string& description,
                        std::vector<std::string>* values, int least) {
  NameValue(app_->add_option(name, *values, description)
                ->expected(least, CLI::detail::expected_max_vector_size),
            "");
}

void Command::TakeRest(std::vector<std::string>* rest) {
  app_->prefix_command();
  app_->parse_complete_callback([app = app_, rest] { *rest = app->remaining(); });
}

void Command::Footer(const std::string& text) { app_->footer(text); }

void Command::OnRead(const std::function<std::string()>& check) {
  app_->parse_complete_callback([name = app_->get_name(), check] {
    if (const std::string mistake = check(); !mistake.empty()) throw CLI::ValidationError(mistake);
  });
}

void Command::OnRun(const std::function<int()>& run) {
  app_->callback([exit_code = exit_code_, run] { *exit_code = run(); });
}

Command Command::AddCommand(const std::string& name, const std::string& description) {
  app_->require_subcommand(1);
  return {app_->add_subcommand(name, description), exit_code_};
}

// ---- The line ----

CommandLine::CommandLine(const std::string& program, const std::string& description,
                         const std::string& version)
    : app_(std::make_unique<CLI::App>(description, program)) {
  if (!version.empty()) app_->set_version_flag("--version", program + " " + version);
  app_->failure_message(Complaint);
}

CommandLine::~CommandLine() = default;

Command CommandLine::main() { return {app_.get(), &exit_code_}; }

Command CommandLine::AddCommand(const std::string& name, const std::string& description) {
  return main().AddCommand(name, description);
}

int Complain(std::string_view program, std::string_view message, int exit_code) {
  fmt::print(stderr, "{}: {}\n", program, records::Printable(message));
  return exit_code;
}

int CommandLine::Run(int argc, const char* const* argv) {
  try {
    // The parser's own word for an unknown subcommand doesn't name it.
    const bool has_commands = app_->get_require_subcommand_min() > 0;
    const std::string first = argc > 1 ? argv[1] : "-";
    const auto is_first = [&first](const CLI::App* command) { return command->check_name(first); };
    if (has_commands && !first.starts_with('-') && app_->get_subcommands(is_first).empty()) {
      throw CLI::ParseError("there is no subcommand " + first + DidYouMean(*app_, first), kUsage);
    }
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app_->exit(error) == 0 ? kOk : kUsage;
  } catch (const std::bad_alloc&) {  // words of one's own take memory, too
    (void)std::fputs("there is not enough memory\n", stderr);
    return kFailed;
  } catch (const std::exception& error) {
    return Complain(app_->get_name(), error.what());
  }
  return exit_code_;
}

}  // namespace velmora::usage_stat
