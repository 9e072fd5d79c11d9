// Storage operations for a hive on a raw volume: every seek, read and write is
// passed on to the caller's device, the last one given to an open. The store
// knows the device only as an opaque pointer and the three calls it makes on
// it, which the exported interface supplies.
#pragma once

#include <cstdint>

namespace Tamvik {

struct DeviceCalls {
    bool (*seek)(void* device, void* handle, std::uint64_t position, std::uint32_t origin);
    bool (*read)(void* device, void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count);
    bool (*write)(void* device, void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count);
};

// The process-wide device: set by each open by volume with a device, never cleared.
extern void* currentDevice;
extern const DeviceCalls* currentDeviceCalls;

bool VolumeSeek(void* context, std::uint64_t* position, std::uint32_t origin);
bool VolumeRead(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count);
bool VolumeWrite(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count);

}  // namespace Tamvik
