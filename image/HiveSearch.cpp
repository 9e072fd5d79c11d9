// Where Windows keeps its hives, and the logs beside each.
#include <algorithm>
#include <strings.h>

#include "Internals.h"

namespace TamvikImage {
namespace {

// In the order they are listed; '*' stands for every folder at that place.
const char* const kHivePlaces[] = {
    "Windows/System32/config/SYSTEM",
    "Windows/System32/config/SOFTWARE",
    "Windows/System32/config/SAM",
    "Windows/System32/config/SECURITY",
    "Windows/System32/config/DEFAULT",
    "Windows/System32/config/COMPONENTS",
    "Windows/System32/config/DRIVERS",
    "Windows/System32/config/BCD-Template",
    "Boot/BCD",
    "EFI/Microsoft/Boot/BCD",
    "Users/*/NTUSER.DAT",
    "Users/*/AppData/Local/Microsoft/Windows/UsrClass.dat",
    "Windows/AppCompat/Programs/Amcache.hve",
    "Windows/ServiceProfiles/*/NTUSER.DAT",
};

void Expand(Volume& volume, const std::string& prefix, const std::string& rest, std::vector<std::string>& paths) {
    const std::size_t slash = rest.find('/');
    const std::string name = rest.substr(0, slash);
    if (name != "*") {
        const std::string path = prefix.empty() ? name : prefix + "/" + name;
        if (slash == std::string::npos) paths.push_back(path);
        else Expand(volume, path, rest.substr(slash + 1), paths);
        return;
    }
    std::vector<Entry> entries;
    Error ignored;
    volume.List(prefix, entries, ignored);
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
    for (const Entry& entry : entries)
        if (entry.directory) Expand(volume, prefix + "/" + entry.name, rest.substr(slash + 1), paths);
}

}  // namespace

std::vector<std::string> Volume::LogsBeside(const std::string& hivePath) {
    std::string path = hivePath;
    std::replace(path.begin(), path.end(), '\\', '/');
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
    const std::string stem = path.substr(slash == std::string::npos ? 0 : slash + 1) + ".LOG";
    std::vector<Entry> entries;
    std::vector<std::string> logs;
    Error ignored;
    List(folder, entries, ignored);
    for (const Entry& entry : entries)
        if (!entry.directory && entry.name.size() >= stem.size() &&
            strncasecmp(entry.name.c_str(), stem.c_str(), stem.size()) == 0)
            logs.push_back(folder.empty() ? entry.name : folder + "/" + entry.name);
    std::sort(logs.begin(), logs.end());
    return logs;
}

std::vector<HiveFile> Volume::Hives() {
    std::vector<HiveFile> hives;
    for (const char* place : kHivePlaces) {
        std::vector<std::string> paths;
        Expand(*this, "", place, paths);
        for (const std::string& path : paths) {
            Entry entry;
            Error ignored;
            if (Stat(path, entry, ignored) && !entry.directory)
                hives.push_back(HiveFile{path, entry.size, LogsBeside(path)});
        }
    }
    return hives;
}

}  // namespace TamvikImage
