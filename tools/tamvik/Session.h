// One open hive for one command, closed when the object goes. Keys are cell
// offsets of the library's internal API, good for as long as the hive is open.
#pragma once

#include <memory>
#include <string>

#include "KeyPath.h"
#include "ToolError.h"
#include "api/HiveAccess.h"

namespace TamvikTool {

using Cell = Tamvik::CellOffset;

class HiveSession {
public:
    // shownAs: the name messages give the hive (an edit works on a copy).
    HiveSession(const std::string& path, bool readOnly, const std::string& shownAs = {});
    HiveSession(const HiveSession&) = delete;
    HiveSession& operator=(const HiveSession&) = delete;

    const std::string& Path() const { return path_; }
    Tamvik::HiveAccess& Hive() { return *hive_; }
    Cell Root();
    // The key at path from the root; throws ToolError naming the key when it can't be opened.
    Cell Open(const KeyPath& path);
    // Same, but gives the status instead of throwing.
    Tamvik::Status TryOpen(const KeyPath& path, Cell* key);

private:
    std::string path_;
    std::unique_ptr<Tamvik::HiveAccess> hive_;
};

}  // namespace TamvikTool
