// Opening and closing hives on a raw volume, through the caller's device.
#include <memory>
#include <new>

#include "store/CodePage.h"
#include "api/EntryFrame.h"
#include "store/VolumeStorage.h"

namespace {

// The three calls the store makes on a caller's device.
const Tamvik::DeviceCalls kDeviceCalls = {
    [](void* device, void* handle, std::uint64_t position, std::uint32_t origin) {
        return static_cast<CRegVolumeDevice*>(device)->DeviceSeek(handle, position, origin);
    },
    [](void* device, void* handle, void* buffer, std::uint32_t size, std::uint32_t* count) {
        return static_cast<CRegVolumeDevice*>(device)->DeviceRead(handle, buffer, size, count);
    },
    [](void* device, void* handle, const void* buffer, std::uint32_t size, std::uint32_t* count) {
        return static_cast<CRegVolumeDevice*>(device)->DeviceWrite(handle, buffer, size, count);
    },
};

}  // namespace

namespace RegAPI {

using namespace Tamvik;

LONG OpenHiveByVolumeW(const WCHAR* path, CRegVolumeDevice* device, HKEY* hive) {
    if (device == nullptr) return Result::Invalid;
    currentDevice = device;
    currentDeviceCalls = &kDeviceCalls;
    if (path == nullptr || hive == nullptr) return Result::Invalid;
    void* handle = nullptr;
    if (!device->DeviceOpen(&handle, path, 3, 0, 3)) return Result::Invalid;
    std::unique_ptr<Hive> opened;
    try {
        opened = std::make_unique<Hive>(WString(path), handle, &VolumeSeek, &VolumeRead, &VolumeWrite);
    } catch (const std::bad_alloc&) {
        opened.reset();
    }
    if (opened == nullptr || !opened->VerifyBaseBlock()) {
        device->DeviceClose(handle);
        return Result::HiveRefused;
    }
    *hive = HandleOf(opened.release());  // the caller owns it until CloseHiveByVolume
    return Result::Ok;
}

LONG OpenHiveByVolumeA(const char* path, CRegVolumeDevice* device, HKEY* hive) {
    if (path == nullptr) return Result::Invalid;
    std::optional<WString> widePath = WidenArgument(path);
    if (!widePath) return Result::Invalid;
    return OpenHiveByVolumeW(widePath->c_str(), device, hive);
}

LONG CloseHiveByVolume(HKEY* hive, CRegVolumeDevice* device) {
    if (hive == nullptr) return Result::Invalid;
    Hive* open = HiveOf(*hive);
    if (open == nullptr || device == nullptr) return Result::Invalid;
    // A hive in a file is closed with CloseHive: its handle means nothing to a device.
    if (open->Image() != nullptr) return Result::Invalid;
    device->DeviceClose(open->closeHandle);
    delete open;  // made by OpenHiveByVolumeW and owned by the caller until now
    *hive = nullptr;
    return Result::Ok;
}

}  // namespace RegAPI
