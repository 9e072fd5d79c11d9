// Storage operations for a hive on a raw volume: every seek, read and write is
// passed to the caller's device, the last one given to an open.
#pragma once

#include <cstdint>

#include "RegAPI.h"

namespace Tamvik {

// The process-wide device: set by each open by volume with a device, never cleared.
extern CRegVolumeDevice* currentDevice;

bool VolumeSeek(void* context, std::uint64_t* position, std::uint32_t origin);
bool VolumeRead(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count);
bool VolumeWrite(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count);

}  // namespace Tamvik
