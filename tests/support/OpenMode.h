// Opens test hives either as files or through a volume device that stands on
// the same file, so that one suite runs against both back-ends. The mode comes
// from the environment: TAMVIK_TEST_OPEN=volume selects the device.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "RegAPI.h"

namespace TamvikTest {

// A volume device over an ordinary file, with the hive at a byte offset.
class FileVolumeDevice : public CRegVolumeDevice {
public:
    explicit FileVolumeDevice(std::uint64_t hiveOffset = 0) : hiveOffset_(hiveOffset) {}
    bool DeviceOpen(void** handle, const char16_t* path, std::uint32_t, std::uint32_t, std::uint32_t) override;
    bool DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) override;
    bool DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceClose(void* handle) override;

    int openHandles = 0;

private:
    std::uint64_t hiveOffset_;
};

// True when the suite runs with hives opened by volume.
bool VolumeMode();
// Opens a hive the way the mode says (read-write unless readOnly; a volume
// device is always read-write). Gives the result number of the open.
RegAPI::LONG OpenTestHive(const std::string& path, RegAPI::HKEY* hive, bool readOnly = false);
// Closes a hive opened by OpenTestHive.
RegAPI::LONG CloseTestHive(RegAPI::HKEY* hive);

}  // namespace TamvikTest
