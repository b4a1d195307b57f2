// The subcommands of usage-stat.

#ifndef TOOLS_INSPECTOR_COMMANDS_H_
#define TOOLS_INSPECTOR_COMMANDS_H_

namespace CLI {
class App;
}

namespace velmora::usage_stat::inspector {

// Exit codes of every subcommand.
constexpr int kOk = 0;
constexpr int kFailed = 1;  // it did not work, or what was looked at is not sound
constexpr int kUsage = 2;   // it was called wrongly

// Each adds one subcommand to `app`: its options, its help, and the callback that runs it and
// leaves its exit code in `exit_code`, which outlives `app`.
void AddArchive(CLI::App* app, int* exit_code);
void AddDecode(CLI::App* app, int* exit_code);
void AddDoctor(CLI::App* app, int* exit_code);
void AddFollow(CLI::App* app, int* exit_code);
void AddList(CLI::App* app, int* exit_code);
void AddReplay(CLI::App* app, int* exit_code);
void AddReport(CLI::App* app, int* exit_code);
void AddSend(CLI::App* app, int* exit_code);
void AddStatus(CLI::App* app, int* exit_code);
void AddTypes(CLI::App* app, int* exit_code);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_COMMANDS_H_
