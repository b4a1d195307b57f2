// The command line of a program, without its parser: that one is large, and compiled in one place.
//
//   CommandLine line("usage-stat-fleet", "Takes batches of records.", VERSION);
//   Command ingest = line.AddCommand("ingest", "Receive batches");
//   ingest.Option("--database", "URL", "Where they go", &options.database);
//   ingest.OnRun([&] { return Ingest(options); });
//   return line.Run(argc, argv);
//
// A program without subcommands uses line.main() alone. Variables that options are read into are
// written while the line is read, and must live until Run() returns.

#ifndef TOOLS_COMMAND_LINE_COMMAND_LINE_H_
#define TOOLS_COMMAND_LINE_COMMAND_LINE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace velmora::usage_stat {

// Exit codes of every program.
constexpr int kOk = 0;
constexpr int kFailed = 1;  // it did not work, or what was looked at is not sound
constexpr int kUsage = 2;   // it was called wrongly

// Tells `message` on standard error as `program`'s own, on one line that nothing in it can change:
// it may quote strangers' files. Returns `exit_code`.
int Complain(std::string_view program, std::string_view message, int exit_code = kFailed);

// One subcommand, or the program itself. A light handle: copy it.
class Command {
 public:
  // Takes a value of an option; returns what is wrong with it, empty for nothing.
  using Take = std::function<std::string(const std::string& text)>;

  // Options. `names` is such as "-o,--output"; `value_name` stands for the value in the help.
  // The value that a variable holds beforehand is what it keeps when the option is not given.
  void Option(const std::string& names, const std::string& value_name,
              const std::string& description, Take take);
  void Option(const std::string& names, const std::string& value_name,
              const std::string& description, std::string* value);
  // A whole number from `least` to `most`.
  void Option(const std::string& names, const std::string& value_name,
              const std::string& description, std::int64_t least, std::int64_t most,
              std::int64_t* value);
  void Option(const std::string& names, const std::string& value_name,
              const std::string& description, int least, int most, int* value);
  // A number of bytes, such as 64M.
  void SizeOption(const std::string& names, const std::string& description,
                  const std::function<std::string(std::uint64_t)>& take);
  // An option that may be given again: `take` gets each value.
  void RepeatedOption(const std::string& names, const std::string& value_name,
                      const std::string& description, Take take);
  // One of `values`.
  void Choice(const std::string& names, const std::string& value_name,
              const std::string& description, const std::vector<std::string>& values,
              std::string* value);
  void Flag(const std::string& names, const std::string& description, bool* value);
  // Neither of the two with the other; both are there already.
  void Exclude(const std::string& name, const std::string& other);

  // Arguments without a dash, in this order.
  void Argument(const std::string& name, const std::string& description, std::string* value,
                bool is_required = false);
  // All that follow, at least `least` of them.
  void Arguments(const std::string& name, const std::string& description,
                 std::vector<std::string>* values, int least = 0);
  // Everything from the first argument on, dashes or not, goes to `rest` unread.
  void TakeRest(std::vector<std::string>* rest);

  // What the help says at its end; the last call holds.
  void Footer(const std::string& text);
  // Called when all options are read; returns what is wrong with them together. One at most.
  void OnRead(const std::function<std::string()>& check);
  // What the command does, and the exit code of doing it.
  void OnRun(const std::function<int()>& run);

  // A command inside this one, of which one must then be given.
  Command AddCommand(const std::string& name, const std::string& description);

 private:
  friend class CommandLine;
  Command(CLI::App* app, int* exit_code) : app_(app), exit_code_(exit_code) {}

  CLI::App* app_;
  int* exit_code_;
};

class CommandLine {
 public:
  CommandLine(const std::string& program, const std::string& description,
              const std::string& version);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // The program itself, for options that stand before any subcommand.
  Command main();
  // A subcommand, of which one must then be given.
  Command AddCommand(const std::string& name, const std::string& description);

  // Reads the line and runs the command that it names. Tells help, version and mistakes itself,
  // the latter on standard error in one line, and what it throws, such as lack of memory. Returns
  // the exit code.
  int Run(int argc, const char* const* argv);

 private:
  std::unique_ptr<CLI::App> app_;
  int exit_code_ = kOk;
};

}  // namespace velmora::usage_stat

#endif  // TOOLS_COMMAND_LINE_COMMAND_LINE_H_
