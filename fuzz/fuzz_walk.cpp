// Fuzz harness: the input is a hive file. It is opened (through an in-memory
// volume device, or as a memory-backed file when the input asks for it) and
// walked completely through the public functions. A walk only reads, so the
// file must come out of it byte for byte as it went in.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"

using namespace TamvikFuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Bytes bytes(data, data + size);
    FixBaseBlock(bytes);
    const bool viaFile = WantsFile(bytes);
    {
        // Opened writable on purpose, so that a stray write would land and be seen.
        HiveUnderTest hive(bytes, viaFile, /*readOnly=*/false);
        if (hive.Open() != RegAPI::Result::Ok) return 0;
        WalkHive(hive.Handle());
        // A second walk runs over the caches the first one left behind.
        WalkLimits quick;
        quick.maxKeys = 200;
        quick.maxIndex = 16;
        WalkHive(hive.Handle(), quick);
        hive.Close();
        Expect(hive.DeviceWrites() == 0, "a read-only walk wrote to the device");
        Expect(hive.Contents() == bytes, "a read-only walk changed the file");
    }
    return 0;
}
