// Shared pieces of the fuzz harnesses: a volume device over bytes in memory,
// a hive in a memory-backed file, the fix-up that lets mutated hives past the
// base block test, and a bounded walk of a whole hive through the public
// functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RegAPI.h"

namespace TamvikFuzz {

using Bytes = std::vector<std::uint8_t>;

// A volume device whose "volume" is a byte vector. Writes go to that vector
// (a private copy of the fuzzer's input); the file grows when a write runs
// past its end, up to a cap so that a damaged BinsSize can't eat the memory.
class MemoryDevice : public CRegVolumeDevice {
public:
    explicit MemoryDevice(Bytes bytes) : bytes_(std::move(bytes)) {}

    bool DeviceOpen(void** handle, const char16_t* path, std::uint32_t, std::uint32_t, std::uint32_t) override;
    bool DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) override;
    bool DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceClose(void* handle) override;

    const Bytes& Contents() const { return bytes_; }
    std::uint64_t Writes() const { return writes_; }
    int OpenHandles() const { return openHandles_; }

    // Largest file the device lets a hive grow to.
    static constexpr std::uint64_t kMaxSize = 64u << 20;

private:
    Bytes bytes_;
    std::uint64_t position_ = 0;
    std::uint64_t writes_ = 0;
    int openHandles_ = 0;
};

// One hive under test, reached either through a MemoryDevice or as a file
// (a memfd, so that the stream back-end with its page cache runs without
// touching the disk).
class HiveUnderTest {
public:
    HiveUnderTest(const Bytes& bytes, bool viaFile, bool readOnly);
    ~HiveUnderTest();
    HiveUnderTest(const HiveUnderTest&) = delete;
    HiveUnderTest& operator=(const HiveUnderTest&) = delete;

    // Opens the hive; gives the result number (checked to be one of the seven).
    RegAPI::LONG Open();
    // Closes it if it is open; the result must be 0.
    void Close();
    RegAPI::HKEY Handle() const { return hive_; }
    // The bytes of the file as they stand now.
    Bytes Contents() const;
    // Writes that reached the device (0 for a file).
    std::uint64_t DeviceWrites() const;

private:
    bool viaFile_;
    bool readOnly_;
    std::unique_ptr<MemoryDevice> device_;
    int fd_ = -1;
    std::u16string path_;
    RegAPI::HKEY hive_ = nullptr;
};

// Makes the base block pass the open test (signature and checksum) unless the
// input asks to be taken as it is: bit 0 of the byte at 0x1F8, which lies in
// the reserved part of the base block, keeps the block untouched. Without
// this nearly every mutation would end at the checksum and nothing behind it
// would be reached.
void FixBaseBlock(Bytes& hive);
// Bit 1 of the same byte: open the hive as a file instead of through a device.
bool WantsFile(const Bytes& hive);

// Limits that keep the walk itself finite on a hive whose lists form cycles
// or claim huge counts.
struct WalkLimits {
    int maxDepth = 48;
    int maxKeys = 1500;                   // keys visited in all
    std::uint32_t maxIndex = 96;          // entries per list looked at
    std::size_t maxDataBytes = 256u << 10;  // largest value buffer handed over
    std::size_t maxPaths = 64;            // full paths kept for lookups from the hive
};

// What a walk saw; the edit harness picks its targets from it.
struct WalkResult {
    int keys = 0;
    int values = 0;
    std::vector<std::u16string> keyPaths;  // below the root, components joined by '\'
};

// Opens the root key of hive and walks everything under it through the wide
// and narrow functions, with buffers of exactly the announced capacity (so
// that ASan sees any byte written behind them), then looks up each kept path
// from the hive handle. Aborts when a call gives a number outside the seven.
WalkResult WalkHive(RegAPI::HKEY hive, const WalkLimits& limits = {});

// Aborts with a message when result isn't one of the seven result numbers.
void CheckResult(RegAPI::LONG result, const char* call);
// Aborts with a message when result isn't one of those allowed.
void Expect(bool condition, const char* what);

}  // namespace TamvikFuzz
