// The one door through which every byte of a hive passes: a context and three
// operations, set either for a file or for a caller's volume device.
#pragma once

#include <cstdint>

namespace Tamvik {

using SeekOp = bool (*)(void* context, std::uint64_t* position, std::uint32_t origin);
using ReadOp = bool (*)(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count);
using WriteOp = bool (*)(void* context, const void* buffer, std::uint32_t elementSize,
                         std::uint32_t* count);

struct StorageOps {
    void* context = nullptr;
    SeekOp seek = nullptr;
    ReadOp read = nullptr;
    WriteOp write = nullptr;
};

}  // namespace Tamvik
