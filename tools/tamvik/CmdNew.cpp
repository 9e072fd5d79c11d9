// new: writes an empty hive.
#include "Args.h"
#include "Commands.h"
#include "NewHive.h"
#include "Session.h"
#include "Text.h"

namespace TamvikTool {

int RunNew(const CommandArgs& argv) {
    Args args = ParseArgs(argv, {{"--minor", true}, {"--root-name", true}, {"--force", false}}, 1, 1, "new");
    NewHiveOptions options;
    if (auto minor = args.Value("--minor")) {
        std::optional<std::uint64_t> n = ParseNumber(*minor);
        if (!n || *n < 2 || *n > 6) UsageError("--minor must be 2 to 6");
        options.minorVersion = static_cast<std::uint32_t>(*n);
    }
    if (auto name = args.Value("--root-name")) {
        std::optional<std::u16string> wide = FromUtf8(*name);
        if (!wide) UsageError("root name is not valid UTF-8");
        options.rootName = *wide;
    }
    std::string error;
    if (!WriteNewHive(args.positional[0], options, args.Has("--force"), &error))
        throw ToolError(args.positional[0] + ": can't write the new hive: " + error);
    return kExitOk;
}

}  // namespace TamvikTool
