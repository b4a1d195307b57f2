// The subcommands of usage-stat-fleet that are for analysts.

#ifndef FLEET_LAKE_COMMANDS_H_
#define FLEET_LAKE_COMMANDS_H_

#include "tools/command_line/command_line.h"

namespace velmora::usage_stat::fleet {

void AddExport(CommandLine* line);  // database to lake
void AddReport(CommandLine* line);  // lake or database to a page
void AddSql(CommandLine* line);     // prints what makes the database's views

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_LAKE_COMMANDS_H_
