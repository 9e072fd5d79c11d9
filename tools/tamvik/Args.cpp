#include "Args.h"

#include "ToolError.h"

namespace TamvikTool {

std::optional<std::string> Args::Value(const std::string& name) const {
    auto it = values.find(name);
    if (it == values.end()) return std::nullopt;
    return it->second;
}

std::vector<std::string> Args::All(const std::string& name) const {
    auto it = lists.find(name);
    return it == lists.end() ? std::vector<std::string>{} : it->second;
}

Args ParseArgs(const std::vector<std::string>& argv, const std::vector<OptionSpec>& options, int minPositional,
               int maxPositional, const std::string& command) {
    Args args;
    bool optionsEnded = false;
    for (std::size_t i = 0; i < argv.size(); ++i) {
        const std::string& arg = argv[i];
        // A lone "-" (standard input) and anything after "--" is positional.
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            args.positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        std::string name = arg;
        std::optional<std::string> inlineValue;
        if (std::size_t eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            inlineValue = arg.substr(eq + 1);
        }
        const OptionSpec* chosen = nullptr;
        for (const auto& option : options)
            if (name == option.name || (option.alias != nullptr && name == option.alias)) chosen = &option;
        if (chosen == nullptr) UsageError("unknown option " + name + " (see tamvik " + command + " --help)");
        if (chosen->value != nullptr) {
            if (!inlineValue) {
                if (i + 1 >= argv.size()) UsageError("option " + name + " needs a value");
                inlineValue = argv[++i];
            }
            args.values[chosen->name] = *inlineValue;
            args.lists[chosen->name].push_back(*inlineValue);
        } else {
            if (inlineValue) UsageError("option " + name + " takes no value");
            args.flags.insert(chosen->name);
        }
    }
    const int count = static_cast<int>(args.positional.size());
    if (count < minPositional || (maxPositional >= 0 && count > maxPositional))
        UsageError("wrong number of arguments (see tamvik " + command + " --help)");
    return args;
}

}  // namespace TamvikTool
