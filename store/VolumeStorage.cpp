#include "store/VolumeStorage.h"

namespace Tamvik {

void* currentDevice = nullptr;
const DeviceCalls* currentDeviceCalls = nullptr;

bool VolumeSeek(void* context, std::uint64_t* position, std::uint32_t origin) {
    const std::uint32_t mapped = origin == 0 ? 0 : origin == 2 ? 2 : 1;
    return currentDeviceCalls->seek(currentDevice, context, *position, mapped);
}

bool VolumeRead(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    return currentDeviceCalls->read(currentDevice, context, buffer, elementSize, count);
}

bool VolumeWrite(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    return currentDeviceCalls->write(currentDevice, context, buffer, elementSize, count);
}

}  // namespace Tamvik
