#include "support/RecordingDevice.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>

namespace TamvikTest {

namespace {

// What stands behind one handle: the stream and where the hive starts in it.
struct OpenFile {
    std::FILE* file = nullptr;
    std::uint64_t base = 0;
    ~OpenFile() {
        if (file != nullptr) std::fclose(file);
    }
};

// Handles of all recording devices. A hive may be closed through another
// device than the one that opened it, so the handles can't belong to one device.
std::map<void*, std::unique_ptr<OpenFile>>& Registry() {
    static std::map<void*, std::unique_ptr<OpenFile>> registry;
    return registry;
}

OpenFile* Lookup(void* handle) {
    auto it = Registry().find(handle);
    return it == Registry().end() ? nullptr : it->second.get();
}

std::string NarrowPath(const char16_t* path) {
    std::string out;
    for (; *path != 0; ++path) out += static_cast<char>(*path);
    return out;
}

// The hive position the stream stands at.
std::uint64_t HivePosition(const OpenFile& open) {
    const off_t at = ftello(open.file);
    return at < 0 ? 0 : static_cast<std::uint64_t>(at) - open.base;
}

}  // namespace

const char* KindName(DeviceCall::Kind kind) {
    switch (kind) {
        case DeviceCall::Kind::Open: return "DeviceOpen";
        case DeviceCall::Kind::Seek: return "DeviceSeek";
        case DeviceCall::Kind::Read: return "DeviceRead";
        case DeviceCall::Kind::Write: return "DeviceWrite";
        case DeviceCall::Kind::Close: return "DeviceClose";
    }
    return "?";
}

bool RecordingDevice::DeviceOpen(void** handle, const char16_t* path, std::uint32_t a, std::uint32_t b,
                                 std::uint32_t c) {
    DeviceCall call(DeviceCall::Kind::Open);
    call.path = path;
    call.openArgs[0] = a;
    call.openArgs[1] = b;
    call.openArgs[2] = c;
    auto open = std::make_unique<OpenFile>();
    if (!refuseOpen) open->file = std::fopen(NarrowPath(path).c_str(), "r+b");
    if (open->file == nullptr) {
        call.refused = refuseOpen;
        calls_.push_back(call);
        return false;
    }
    open->base = hiveOffset_;
    // Handles are numbers that are never given out twice, so a closed handle
    // can't come back as a new one.
    static std::uintptr_t nextHandle = 0;
    void* key = reinterpret_cast<void*>(++nextHandle * 16);
    Registry().emplace(key, std::move(open));
    given_.push_back(key);
    *handle = key;
    call.handle = key;
    calls_.push_back(call);
    return true;
}

bool RecordingDevice::DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) {
    DeviceCall call(DeviceCall::Kind::Seek);
    call.handle = handle;
    call.position = position;
    call.origin = origin;
    calls_.push_back(call);
    OpenFile* open = Lookup(handle);
    if (open == nullptr) return false;
    if (origin == 0) return fseeko(open->file, static_cast<off_t>(open->base + position), SEEK_SET) == 0;
    return fseeko(open->file, static_cast<off_t>(position), origin == 2 ? SEEK_END : SEEK_CUR) == 0;
}

bool RecordingDevice::DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    DeviceCall call(DeviceCall::Kind::Read);
    call.handle = handle;
    call.elementSize = elementSize;
    call.count = *count;
    OpenFile* open = Lookup(handle);
    if (open != nullptr) call.position = HivePosition(*open);
    const std::uint64_t end = call.position + static_cast<std::uint64_t>(elementSize) * *count;
    call.refused = refuseReadsFrom && end > *refuseReadsFrom;
    calls_.push_back(call);
    if (open == nullptr || call.refused) return false;
    const std::uint32_t asked = *count;
    *count = static_cast<std::uint32_t>(std::fread(buffer, elementSize, asked, open->file));
    return *count == asked;
}

bool RecordingDevice::DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize,
                                  std::uint32_t* count) {
    DeviceCall call(DeviceCall::Kind::Write);
    call.handle = handle;
    call.elementSize = elementSize;
    call.count = *count;
    OpenFile* open = Lookup(handle);
    if (open != nullptr) call.position = HivePosition(*open);
    ++writes_;
    const std::uint64_t end = call.position + static_cast<std::uint64_t>(elementSize) * *count;
    call.refused = (refuseWritesFrom && end > *refuseWritesFrom) || (refuseWriteNumber && writes_ == *refuseWriteNumber);
    calls_.push_back(call);
    if (open == nullptr || call.refused) return false;
    const std::uint32_t asked = *count;
    *count = static_cast<std::uint32_t>(std::fwrite(buffer, elementSize, asked, open->file));
    // Flushed at once, so that a test can compare the file while the hive is open.
    std::fflush(open->file);
    return *count == asked;
}

bool RecordingDevice::DeviceClose(void* handle) {
    DeviceCall call(DeviceCall::Kind::Close);
    call.handle = handle;
    calls_.push_back(call);
    return Registry().erase(handle) == 1;
}

std::size_t RecordingDevice::Count(DeviceCall::Kind kind) const {
    return static_cast<std::size_t>(
        std::count_if(calls_.begin(), calls_.end(), [kind](const DeviceCall& c) { return c.kind == kind; }));
}

std::vector<DeviceCall> RecordingDevice::CallsOf(DeviceCall::Kind kind) const {
    std::vector<DeviceCall> out;
    for (const DeviceCall& c : calls_)
        if (c.kind == kind) out.push_back(c);
    return out;
}

std::size_t RecordingDevice::OpenHandles() const {
    return static_cast<std::size_t>(
        std::count_if(given_.begin(), given_.end(), [](void* h) { return Registry().count(h) == 1; }));
}

}  // namespace TamvikTest
