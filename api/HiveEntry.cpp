// Opening and closing hives held in ordinary files.
#include <memory>
#include <new>

#include "store/CodePage.h"
#include "api/EntryFrame.h"
#include "store/FileImage.h"

namespace RegAPI {

using namespace Tamvik;

LONG OpenHiveW(const WCHAR* path, HKEY* hive, bool readOnly) {
    if (path == nullptr || hive == nullptr) return Result::Invalid;
    std::optional<std::string> narrowPath = NarrowArgument(path);
    if (!narrowPath) return Result::Invalid;
    std::unique_ptr<FileImage> image = FileImage::Open(*narrowPath, readOnly);
    if (image == nullptr) return Result::Invalid;
    std::unique_ptr<Hive> opened;
    try {
        opened = std::make_unique<Hive>(WString(path), std::move(image));
    } catch (const std::bad_alloc&) {
        opened.reset();
    }
    // A refused hive takes its file with it.
    if (opened == nullptr || !opened->VerifyBaseBlock()) return Result::HiveRefused;
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
    if (open == nullptr || open->Image() == nullptr) return Result::Invalid;
    open->Sync();
    delete open;  // made by OpenHiveW and owned by the caller until now
    *hive = nullptr;
    return Result::Ok;
}

}  // namespace RegAPI
