// A volume device over an ordinary file that records its calls (see Device.h).
#include "support/Device.h"

#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

namespace TamvikTest {

namespace {

struct OpenFile {
    std::FILE* file = nullptr;
    std::uint64_t base = 0;
    int number = 0;
    ~OpenFile() {
        if (file != nullptr) std::fclose(file);
    }
};

// A hive may be closed through another device than the one that opened it,
// so handles belong to all test devices together. Handles are never reused.
std::map<void*, std::unique_ptr<OpenFile>>& Handles() {
    static std::map<void*, std::unique_ptr<OpenFile>> handles;
    return handles;
}

OpenFile* Lookup(void* handle) {
    auto it = Handles().find(handle);
    return it == Handles().end() ? nullptr : it->second.get();
}

int Number(void* handle) {
    OpenFile* open = Lookup(handle);
    return open == nullptr ? -1 : open->number;
}

}  // namespace

bool TestDevice::DeviceOpen(void** handle, const char16_t* path, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
    const std::string narrow(path, path + std::char_traits<char16_t>::length(path));
    const std::string text = "open " + std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c) + " " +
                             narrow;
    std::FILE* file = refuseOpen ? nullptr : std::fopen(narrow.c_str(), "r+b");
    if (file == nullptr) {
        calls.push_back({0, text});
        return false;
    }
    static int opened = 0;
    auto open = std::make_unique<OpenFile>();
    open->file = file;
    open->base = hiveOffset_;
    open->number = ++opened;
    *handle = reinterpret_cast<void*>(static_cast<std::uintptr_t>(open->number) * 16);
    calls.push_back({open->number, text});
    Handles().emplace(*handle, std::move(open));
    return true;
}

bool TestDevice::DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) {
    calls.push_back({Number(handle), "seek " + std::to_string(position) + " " + std::to_string(origin)});
    OpenFile* open = Lookup(handle);
    if (open == nullptr) return false;
    const off_t to = static_cast<off_t>(origin == 0 ? open->base + position : position);
    return fseeko(open->file, to, origin == 0 ? SEEK_SET : origin == 2 ? SEEK_END : SEEK_CUR) == 0;
}

bool TestDevice::Transfer(void* handle, void* buffer, std::uint32_t size, std::uint32_t* count, bool write) {
    OpenFile* open = Lookup(handle);
    const std::uint64_t at = open == nullptr ? 0 : static_cast<std::uint64_t>(ftello(open->file)) - open->base;
    calls.push_back({Number(handle), std::string(write ? "write " : "read ") + std::to_string(size) +
                                         (*count != 1 ? "x" + std::to_string(*count) : "") + " @" + std::to_string(at)});
    const std::uint64_t end = at + static_cast<std::uint64_t>(size) * *count;
    const auto& from = write ? refuseWritesFrom : refuseReadsFrom;
    bool refused = open == nullptr || (from && end > *from);
    if (write && ++writes_ == refuseWriteAt_) refused = true;
    if (refused) return false;
    const std::uint32_t asked = *count;
    *count = static_cast<std::uint32_t>(write ? std::fwrite(buffer, size, asked, open->file)
                                              : std::fread(buffer, size, asked, open->file));
    if (write) std::fflush(open->file);
    return *count == asked;
}

bool TestDevice::DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    return Transfer(handle, buffer, elementSize, count, false);
}

bool TestDevice::DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    return Transfer(handle, const_cast<void*>(buffer), elementSize, count, true);
}

bool TestDevice::DeviceClose(void* handle) {
    calls.push_back({Number(handle), "close"});
    return Handles().erase(handle) == 1;
}

int TestDevice::OpenHandles() { return static_cast<int>(Handles().size()); }

bool VolumeMode() {
    const char* mode = std::getenv("TAMVIK_TEST_OPEN");
    return mode != nullptr && std::strcmp(mode, "volume") == 0;
}

namespace {
// The library keeps one current device per process: one serves the suite.
TestDevice& SuiteDevice() {
    static TestDevice device;
    device.calls.clear();
    return device;
}
}  // namespace

RegAPI::LONG OpenTestHive(const std::string& path, RegAPI::HKEY* hive, bool readOnly) {
    const std::u16string wide(path.begin(), path.end());
    if (VolumeMode()) return RegAPI::OpenHiveByVolumeW(wide.c_str(), &SuiteDevice(), hive);
    return RegAPI::OpenHiveW(wide.c_str(), hive, readOnly);
}

RegAPI::LONG CloseTestHive(RegAPI::HKEY* hive) {
    return VolumeMode() ? RegAPI::CloseHiveByVolume(hive, &SuiteDevice()) : RegAPI::CloseHive(hive);
}

}  // namespace TamvikTest
