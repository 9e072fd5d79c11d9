// The subcommands of tamvik, each declared once: its arguments, its options
// and their help, from which both the parsing and the help text are made.
// Each takes its parsed arguments and returns the exit status; failures are
// thrown as ToolError.
#pragma once

#include <string>
#include <vector>

#include "Args.h"

namespace TamvikTool {

struct Command {
    const char* name;
    const char* summary;    // one line for the overview
    const char* arguments;  // the positional part of the usage line: "HIVE [PATH]"
    int minPositional, maxPositional;  // maxPositional < 0: no limit
    std::vector<OptionSpec> options;
    const char* text;       // what it does, between the usage and the options
    int (*run)(const Args&);
    const char* usageOptions = nullptr;  // the usage line's options where they nest; else made from options
    const char* moreUsage = nullptr;     // further usage lines, after "tamvik NAME "
    const char* after = nullptr;         // text behind the options
};

int RunInfo(const Args&);
int RunLs(const Args&);
int RunGet(const Args&);
int RunExport(const Args&);
int RunImport(const Args&);
int RunSet(const Args&);
int RunMkkey(const Args&);
int RunRm(const Args&);
int RunRmkey(const Args&);
int RunCheck(const Args&);
int RunNew(const Args&);
int RunReplay(const Args&);
int RunHives(const Args&);

// The table of all subcommands, in the order of the overview.
const std::vector<Command>& AllCommands();
// "tamvik NAME --help": the usage lines, the text, the options.
std::string HelpText(const Command& command);
// Parses argv (after the command's name) as the command declares it.
Args ParseCommandArgs(const Command& command, const std::vector<std::string>& argv);

}  // namespace TamvikTool
