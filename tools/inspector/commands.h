// The subcommands of usage-stat. Only who calls them includes this: their own files don't, so that
// one more command rebuilds two.

#ifndef TOOLS_INSPECTOR_COMMANDS_H_
#define TOOLS_INSPECTOR_COMMANDS_H_

#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::inspector {

// Each adds one subcommand: its options, its help, and what it does.
void AddArchive(CommandLine* line);
void AddDecode(CommandLine* line);
void AddDoctor(CommandLine* line);
void AddErase(CommandLine* line);
void AddFollow(CommandLine* line);
void AddList(CommandLine* line);
void AddRecover(CommandLine* line);
void AddReplay(CommandLine* line);
void AddReport(CommandLine* line);
void AddSend(CommandLine* line);
void AddSql(CommandLine* line);
void AddStatus(CommandLine* line);
void AddTypes(CommandLine* line);
void AddUplink(CommandLine* line);

}  // namespace velmora::usage_stat::inspector

#endif  // TOOLS_INSPECTOR_COMMANDS_H_
