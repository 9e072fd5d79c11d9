// One open hive for one command, closed when the object goes. Keys are cell
// offsets of the library's internal API, good for as long as the hive is open.
#pragma once

#include <memory>
#include <string>

#include "HiveSource.h"
#include "KeyPath.h"
#include "ToolError.h"
#include "api/HiveAccess.h"

namespace TamvikTool {

using Cell = Tamvik::CellOffset;

// The error for a hive the library won't open, with why read from its base
// block; shownAs names it.
ToolError NotAHive(HiveSource& source, const std::string& shownAs);

class HiveSession {
public:
    // The hive at place, for reading.
    explicit HiveSession(const HivePlace& place);
    // The hive a source reads, which outlives the session.
    explicit HiveSession(HiveSource& source, bool readOnly = true);
    // A hive file. shownAs: the name messages give the hive (an edit works on a copy).
    HiveSession(const std::string& path, bool readOnly, const std::string& shownAs = {});
    ~HiveSession();
    HiveSession(const HiveSession&) = delete;
    HiveSession& operator=(const HiveSession&) = delete;

    const std::string& Path() const { return path_; }
    Tamvik::HiveAccess& Hive() { return *hive_; }
    // Makes the changes durable and lets the hive go (and an image, with
    // everything above it); throws ToolError when that fails.
    void Close();
    Cell Root();
    // The key at path from the root; throws ToolError naming the key when it can't be opened.
    Cell Open(const KeyPath& path);
    // Same, but gives the status instead of throwing.
    Tamvik::Status TryOpen(const KeyPath& path, Cell* key);

private:
    void Attach(HiveSource& source, bool readOnly);
    void OpenFile(const std::string& path, bool readOnly);

    std::string path_;
    std::unique_ptr<HiveSource> ownSource_;  // of a hive opened by place
    ImageSource* image_ = nullptr;
    std::unique_ptr<Tamvik::HiveAccess> file_;
    Tamvik::HiveAccess* hive_ = nullptr;
};

}  // namespace TamvikTool
