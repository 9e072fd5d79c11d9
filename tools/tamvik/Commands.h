// The subcommands of tamvik. Each takes its arguments (after the subcommand
// name) and returns the exit status; failures are thrown as ToolError.
#pragma once

#include <string>
#include <vector>

namespace TamvikTool {

using CommandArgs = std::vector<std::string>;

struct Command {
    const char* name;
    const char* summary;  // one line for the overview
    const char* help;     // full text for "tamvik NAME --help"
    int (*run)(const CommandArgs&);
};

int RunInfo(const CommandArgs&);
int RunLs(const CommandArgs&);
int RunGet(const CommandArgs&);
int RunExport(const CommandArgs&);
int RunImport(const CommandArgs&);
int RunSet(const CommandArgs&);
int RunMkkey(const CommandArgs&);
int RunRm(const CommandArgs&);
int RunRmkey(const CommandArgs&);
int RunCheck(const CommandArgs&);
int RunNew(const CommandArgs&);
int RunReplay(const CommandArgs&);

// The table of all subcommands, in the order of the overview.
const std::vector<Command>& AllCommands();

}  // namespace TamvikTool
