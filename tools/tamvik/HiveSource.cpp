#include "HiveSource.h"

#include "ToolError.h"
#include "logs/Files.h"

namespace TamvikTool {

HivePlace HivePlace::From(const Args& args) {
    HivePlace place{args.positional.at(0), args.Value("--image").value_or(""), -1, args.Value("--overlay").value_or("")};
    if (auto number = args.Value("--partition")) {
        const std::optional<std::uint64_t> parsed = ParseNumber(*number);
        if (!parsed || *parsed > 1024) UsageError("--partition takes a partition's number (see tamvik hives)");
        place.partition = static_cast<int>(*parsed);
    }
    if (!place.InImage() && (place.partition >= 0 || !place.overlay.empty()))
        UsageError(std::string(place.partition >= 0 ? "--partition" : "--overlay") + " needs --image");
    return place;
}

std::string HivePlace::ReplayArguments() const {
    if (!InImage()) return hive;
    return "--image " + image + (partition >= 0 ? " --partition " + std::to_string(partition) : "") + " " + hive +
           " -o OUT";
}

std::unique_ptr<HiveSource> HivePlace::Source() const {
    if (InImage()) return std::make_unique<ImageSource>(*this, false);
    return std::make_unique<FileSource>(hive);
}

bool FileSource::ReadHive(Bytes* bytes, std::string* error, std::size_t limit) {
    return TamvikLogs::ReadFile(Name(), bytes, error, limit);
}

std::vector<std::string> FileSource::Logs() { return TamvikLogs::FindLogs(Name()); }

bool FileSource::ReadLog(const std::string& path, Bytes* bytes, std::string* error) {
    return TamvikLogs::ReadFile(path, bytes, error);
}

}  // namespace TamvikTool
