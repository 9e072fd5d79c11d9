// Opening and closing hives held in ordinary files.
#include <memory>
#include <new>

#include "api/Convert.h"
#include "api/EntryFrame.h"
#include "store/FileStorage.h"

namespace RegAPI {

using namespace Tamvik;

LONG OpenHiveW(const WCHAR* path, HKEY* hive, bool readOnly) {
    if (path == nullptr || hive == nullptr) return Result::Invalid;
    std::optional<std::string> narrowPath = NarrowArgument(path);
    if (!narrowPath) return Result::Invalid;
    FileStore* store = OpenFileStore(narrowPath->c_str(), readOnly ? "rb" : "r+b");
    if (store == nullptr) return Result::Invalid;
    std::unique_ptr<Hive> opened;
    try {
        opened = std::make_unique<Hive>(WString(path), store, &FileSeek, &FileRead, &FileWrite);
    } catch (const std::bad_alloc&) {
        opened.reset();
    }
    if (opened == nullptr || !opened->VerifyBaseBlock()) {
        CloseFileStore(store);
        return Result::HiveRefused;
    }
    *hive = HandleOf(opened.release());  // the caller owns it until CloseHive
    return Result::Ok;
}

LONG OpenHiveA(const char* path, HKEY* hive, bool readOnly) {
    if (path == nullptr) return Result::Invalid;
    std::optional<WString> widePath = WidenArgument(path);
    if (!widePath) return Result::Invalid;
    return OpenHiveW(widePath->c_str(), hive, readOnly);
}

LONG CloseHive(HKEY* hive) {
    if (hive == nullptr) return Result::Invalid;
    Hive* open = HiveOf(*hive);
    // A hive on a volume is closed through its device, never handed to the stream close.
    if (open == nullptr || !IsFileStorage(open->storage)) return Result::Invalid;
    CloseFileStore(open->closeHandle);
    delete open;  // made by OpenHiveW and owned by the caller until now
    *hive = nullptr;
    return Result::Ok;
}

}  // namespace RegAPI
