// One open hive as the Python package holds it, and the package's
// exceptions raised from C++.
#pragma once

#include <Python.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "api/HiveAccess.h"

namespace TamvikTool {
class EditSession;
class HiveSession;
}

namespace TamvikPython {

struct HiveState {
    HiveState();
    ~HiveState();
    std::string path;
    bool writable = false;
    // A writable hive's lock, taken and its hive checked as the tool does
    // before an edit; held until the hive is closed. It holds the open hive.
    std::unique_ptr<TamvikTool::EditSession> gate;
    // A read-only hive: a file opened directly, or a hive inside an image.
    std::unique_ptr<Tamvik::HiveAccess> file;
    std::unique_ptr<TamvikTool::HiveSession> inImage;
    Tamvik::HiveAccess* access = nullptr;  // whichever of them holds the hive; null once closed
    // Lists the reads fill, kept so that their buffers serve the next read.
    // A read takes one (leaving an empty one for a read that runs meanwhile,
    // from a finalizer) and gives it back when done.
    std::vector<Tamvik::SubKeyItem> subKeyItems;
    std::vector<Tamvik::ValueItem> valueItems;

    // The open hive; null with ValueError set once it is closed.
    Tamvik::HiveAccess* Open();
};

// The edit gate's refusals, numbered after the library's statuses.
constexpr int kStatusDirty = 100;
constexpr int kStatusLocked = 101;
constexpr int kStatusUnsafe = 102;  // a volume Windows left hibernated or unclean, refused for writing

// Sets the package's exception for a status (tamvik.Error, or the subclass
// that fits it and the system's error number) and returns null.
PyObject* Raise(int code, const std::string& text, std::uint64_t fileOffset = Tamvik::kNoFileOffset, int osError = 0);
inline PyObject* Raise(const Tamvik::Status& status, int osError = 0) {
    return Raise(static_cast<int>(status.code), status.text, status.fileOffset, osError);
}
// The same with the message text of a not-found status replaced.
PyObject* RaiseNotFound(const std::string& text);

// tamvik's exception factory, given by the package when it loads:
// factory(code, text, offset or None, os_error) gives the exception to raise.
void SetErrorFactory(PyObject* factory);

}  // namespace TamvikPython
