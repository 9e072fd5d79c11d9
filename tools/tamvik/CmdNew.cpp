// new: writes an empty hive.
#include <sys/stat.h>

#include <memory>

#include "Args.h"
#include "AtomicFile.h"
#include "Commands.h"
#include "EditGuard.h"
#include "edit/NewHive.h"
#include "store/Format.h"
#include "Session.h"
#include "Text.h"

namespace TamvikTool {

int RunNew(const Args& args) {
    Tamvik::NewHiveOptions options;
    if (auto minor = args.Value("--minor")) {
        std::optional<std::uint64_t> n = ParseNumber(*minor);
        if (!n || *n > 0xFFFFFFFF || !Tamvik::WritableMinorVersion(static_cast<std::uint32_t>(*n))) UsageError("--minor must be 2 to 6");
        options.minorVersion = static_cast<std::uint32_t>(*n);
    }
    if (auto name = args.Value("--root-name")) {
        std::optional<std::u16string> wide = FromUtf8(*name);
        if (!wide) UsageError("root name is not valid UTF-8");
        options.rootName = *wide;
    }
    Tamvik::Status status;
    const Bytes image = Tamvik::EmptyHiveImage(options, Tamvik::FileTimeNow(), &status);
    if (image.empty()) UsageError(status.text);
    const std::string& path = args.positional[0];
    struct stat existing {};
    const bool replace = ::stat(path.c_str(), &existing) == 0;
    if (replace && !args.Has("--force")) throw ToolError(path + ": can't write the new hive (the file exists; --force replaces it)");
    // A file replaced is locked like a hive being edited, and replaced whole.
    std::unique_ptr<HiveLock> lock = replace ? std::make_unique<HiveLock>(path) : nullptr;
    WriteFileAtomically(path, image, replace ? existing.st_mode & 07777 : NewFileMode(), replace);
    return kExitOk;
}

}  // namespace TamvikTool
