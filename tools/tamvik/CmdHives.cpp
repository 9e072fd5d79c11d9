// hives: the partitions of a disk image and the hives on its NTFS volumes.
#include <TamvikImage.h>

#include <cstdio>

#include "Commands.h"
#include "DirtyState.h"
#include "Json.h"
#include "ToolError.h"

namespace TamvikTool {

namespace ti = TamvikImage;

namespace {

struct HiveState {
    std::string state;  // "clean", "dirty (why)", "not a hive", "unreadable (why)"
    bool dirty = false;
};

// Told from the base block alone, as the edit guard tells it.
HiveState StateOf(ti::Volume& volume, const std::string& path) {
    Bytes head;
    ti::Error error;
    if (!volume.Read(path, head, error, TamvikLogs::kBaseBlockBytes)) return {"unreadable (" + error.text + ")"};
    const TamvikLogs::BaseBlock base = TamvikLogs::ReadBaseBlock(head);
    if (!base.signatureOk) return {"not a hive"};
    if (base.Dirty()) return {"dirty (" + DirtReason(base) + ")", true};
    return {"clean"};
}

std::string JsonList(const std::vector<std::string>& items) {
    std::string out = "[";
    for (const std::string& item : items) out += (out.size() > 1 ? ", " : "") + JsonString(item);
    return out + "]";
}

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

int RunHives(const Args& args) {
    const std::string& path = args.positional[0];
    const bool json = args.Has("--json");
    ti::Error error;
    std::unique_ptr<ti::Image> image = ti::Image::Open(path, {}, error);
    if (!image) throw ToolError(error.text, error.kind == ti::ErrorKind::Locked ? kExitLocked : kExitFailed);
    std::string partitions;
    if (!json) {
        std::printf("%s: %s, %s table, %llu bytes\n", path.c_str(), image->Format().c_str(), image->Table().c_str(),
                    static_cast<unsigned long long>(image->Size()));
        for (const std::string& warning : image->Warnings()) std::printf("warning: %s\n", warning.c_str());
    }
    for (const ti::Partition& p : image->Partitions()) {
        const std::string type = p.typeName.empty() ? p.typeId : p.typeId.empty() ? p.typeName
                                                                                   : p.typeName + " (" + p.typeId + ")";
        std::string failure, hives;
        if (!json)
            std::printf("partition %d: %s%s, start %llu, size %llu%s\n", p.number, ti::FileSystemName(p.fileSystem),
                        p.label.empty() ? "" : (" \"" + p.label + "\"").c_str(),
                        static_cast<unsigned long long>(p.start), static_cast<unsigned long long>(p.size),
                        type.empty() ? "" : (", type " + type).c_str());
        std::unique_ptr<ti::Volume> volume =
            p.fileSystem == ti::FileSystem::Ntfs ? ti::Volume::Open(*image, p.number, false, error) : nullptr;
        if (p.fileSystem == ti::FileSystem::Ntfs && !volume) {
            failure = error.text;
            if (!json) std::printf("  can't read the volume: %s\n", failure.c_str());
        }
        for (const ti::HiveFile& hive : volume ? volume->Hives() : std::vector<ti::HiveFile>{}) {
            const HiveState state = StateOf(*volume, hive.path);
            if (json) {
                hives += std::string(hives.empty() ? "" : ", ") + "{\"path\": " + JsonString(hive.path) +
                         ", \"size\": " + std::to_string(hive.size) + ", \"state\": " + JsonString(state.state) +
                         ", \"dirty\": " + (state.dirty ? "true" : "false") + ", \"logs\": " + JsonList(hive.logs) + "}";
                continue;
            }
            std::string logs;
            for (const std::string& log : hive.logs) logs += (logs.empty() ? "; logs " : ", ") + BaseName(log);
            std::printf("  %s: %llu bytes, %s%s\n", hive.path.c_str(), static_cast<unsigned long long>(hive.size),
                        state.state.c_str(), logs.c_str());
        }
        if (json)
            partitions += std::string(partitions.empty() ? "" : ",\n  ") + "{\"number\": " + std::to_string(p.number) +
                          ", \"start\": " + std::to_string(p.start) + ", \"size\": " + std::to_string(p.size) +
                          ", \"type\": " + JsonString(p.typeName) + ", \"type_id\": " + JsonString(p.typeId) +
                          ", \"file_system\": " + JsonString(std::string(ti::FileSystemName(p.fileSystem))) +
                          ", \"label\": " + JsonString(p.label) +
                          ", \"error\": " + (failure.empty() ? "null" : JsonString(failure)) + ", \"hives\": [" +
                          hives + "]}";
    }
    if (json)
        std::printf("{\"image\": %s, \"format\": %s, \"table\": %s, \"size\": %llu, \"warnings\": %s,\n"
                    " \"partitions\": [\n  %s]}\n",
                    JsonString(path).c_str(), JsonString(image->Format()).c_str(), JsonString(image->Table()).c_str(),
                    static_cast<unsigned long long>(image->Size()), JsonList(image->Warnings()).c_str(),
                    partitions.c_str());
    return kExitOk;
}

}  // namespace TamvikTool
