#include "support/OpenMode.h"

#include <cstdlib>
#include <cstring>

namespace TamvikTest {

namespace {
// One device serves every hive the suite opens by volume, as the library keeps one current device.
FileVolumeDevice& SharedDevice() {
    static FileVolumeDevice device;
    return device;
}

std::string Narrow(const char16_t* path) {
    std::string out;
    for (; *path; ++path) out += static_cast<char>(*path);
    return out;
}

// What the device keeps per open hive: the stream and where the hive starts in it.
struct DeviceFile {
    std::FILE* file;
    std::uint64_t base;
};
}  // namespace

bool FileVolumeDevice::DeviceOpen(void** handle, const char16_t* path, std::uint32_t, std::uint32_t, std::uint32_t) {
    std::FILE* file = std::fopen(Narrow(path).c_str(), "r+b");
    if (file == nullptr) return false;
    *handle = new DeviceFile{file, hiveOffset_};  // released by DeviceClose
    ++openHandles;
    return true;
}

bool FileVolumeDevice::DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) {
    auto* device = static_cast<DeviceFile*>(handle);
    if (origin == 0) return fseeko(device->file, static_cast<off_t>(device->base + position), SEEK_SET) == 0;
    return fseeko(device->file, static_cast<off_t>(position), origin == 2 ? SEEK_END : SEEK_CUR) == 0;
}

bool FileVolumeDevice::DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    auto* device = static_cast<DeviceFile*>(handle);
    std::uint32_t asked = *count;
    *count = static_cast<std::uint32_t>(std::fread(buffer, elementSize, asked, device->file));
    return *count == asked;
}

bool FileVolumeDevice::DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    auto* device = static_cast<DeviceFile*>(handle);
    std::uint32_t asked = *count;
    *count = static_cast<std::uint32_t>(std::fwrite(buffer, elementSize, asked, device->file));
    return *count == asked;
}

bool FileVolumeDevice::DeviceClose(void* handle) {
    auto* device = static_cast<DeviceFile*>(handle);
    std::fclose(device->file);
    delete device;  // made by DeviceOpen
    --openHandles;
    return true;
}

bool VolumeMode() {
    const char* mode = std::getenv("TAMVIK_TEST_OPEN");
    return mode != nullptr && std::strcmp(mode, "volume") == 0;
}

RegAPI::LONG OpenTestHive(const std::string& path, RegAPI::HKEY* hive, bool readOnly) {
    std::u16string wide(path.begin(), path.end());
    if (VolumeMode()) return RegAPI::OpenHiveByVolumeW(wide.c_str(), &SharedDevice(), hive);
    return RegAPI::OpenHiveW(wide.c_str(), hive, readOnly);
}

RegAPI::LONG CloseTestHive(RegAPI::HKEY* hive) {
    if (VolumeMode()) return RegAPI::CloseHiveByVolume(hive, &SharedDevice());
    return RegAPI::CloseHive(hive);
}

}  // namespace TamvikTest
