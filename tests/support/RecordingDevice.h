// A volume device for tests: it stands on ordinary files like FileVolumeDevice,
// but writes down every call the library makes, so that a test can check the
// order and the arguments of the calls, and it can be told to refuse chosen
// calls, so that a test can see how the library takes a failing device.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "RegAPI.h"

namespace TamvikTest {

// One call as the device saw it.
struct DeviceCall {
    enum class Kind { Open, Seek, Read, Write, Close };
    explicit DeviceCall(Kind k) : kind(k) {}
    Kind kind;
    void* handle = nullptr;        // the handle passed in (for Open: the one given out, null if refused)
    std::u16string path;           // Open only
    std::uint32_t openArgs[3] = {0, 0, 0};  // Open only: the three integers
    std::uint64_t position = 0;    // Seek: the position as given; Read/Write: the hive position they work at
    std::uint32_t origin = 0;      // Seek only
    std::uint32_t elementSize = 0; // Read/Write
    std::uint32_t count = 0;       // Read/Write: the count asked for
    bool refused = false;          // the device answered false on purpose
};

const char* KindName(DeviceCall::Kind kind);

class RecordingDevice : public CRegVolumeDevice {
public:
    // hiveOffset: where the hive starts inside each file this device opens
    // (0 for a plain hive file, more for a "disk image").
    explicit RecordingDevice(std::uint64_t hiveOffset = 0) : hiveOffset_(hiveOffset) {}
    ~RecordingDevice() override = default;

    bool DeviceOpen(void** handle, const char16_t* path, std::uint32_t a, std::uint32_t b, std::uint32_t c) override;
    bool DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) override;
    bool DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceClose(void* handle) override;

    // --- What was called ---------------------------------------------------------
    const std::vector<DeviceCall>& Calls() const { return calls_; }
    void ClearCalls() { calls_.clear(); }
    std::size_t Count(DeviceCall::Kind kind) const;
    // Calls of one kind only, in order.
    std::vector<DeviceCall> CallsOf(DeviceCall::Kind kind) const;
    // Handles this device gave out that no device has closed yet.
    std::size_t OpenHandles() const;

    // --- Refusals ------------------------------------------------------------------
    bool refuseOpen = false;
    // Writes that would touch a byte at or behind this hive position are refused.
    std::optional<std::uint64_t> refuseWritesFrom;
    // The Nth write (1-based, counted over the device's life) is refused.
    std::optional<std::size_t> refuseWriteNumber;
    // Reads that would touch a byte at or behind this hive position are refused.
    std::optional<std::uint64_t> refuseReadsFrom;

private:
    std::uint64_t hiveOffset_;
    std::vector<DeviceCall> calls_;
    std::vector<void*> given_;  // handles from DeviceOpen, for OpenHandles
    std::size_t writes_ = 0;
};

}  // namespace TamvikTest
