// Command-line options as each subcommand declares them once, and the
// parsing of argv against that declaration.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace TamvikTool {

struct OptionSpec {
    const char* name;              // "--prefix", "-r"
    const char* alias = nullptr;   // another spelling, e.g. "--recursive" for "-r"
    const char* value = nullptr;   // the name of its argument in the help ("P"); null for a flag
    const char* help = "";         // one line, or several: the later ones stand under the first
    bool repeats = false;          // may be given more than once
};

struct Args {
    std::vector<std::string> positional;
    std::set<std::string> flags;
    std::map<std::string, std::string> values;             // the last value of each option
    std::map<std::string, std::vector<std::string>> lists;  // every value of each, in order

    bool Has(const std::string& name) const { return flags.count(name) != 0 || values.count(name) != 0; }
    std::optional<std::string> Value(const std::string& name) const;
    // Every value given to an option that may be repeated.
    std::vector<std::string> All(const std::string& name) const;
};

// Parses argv after the subcommand. Throws a usage ToolError for an unknown
// option, a missing value, or a positional count outside [minPositional,
// maxPositional] (maxPositional < 0: no limit). "--" ends the options.
Args ParseArgs(const std::vector<std::string>& argv, const std::vector<OptionSpec>& options, int minPositional,
               int maxPositional, const std::string& command);

}  // namespace TamvikTool
