// A volume device for tests that stands on ordinary files: it writes down each
// call the library makes, can be told to refuse chosen calls, and is what the
// whole suite opens hives through when TAMVIK_TEST_OPEN=volume.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "RegAPI.h"

namespace TamvikTest {

struct DeviceCall {
    int handle;        // 1, 2, ... in the order the devices gave them out; 0 for a refused open
    std::string text;  // "open 3 0 3 PATH", "seek 4096 0", "read 12 @4144", "write 4096 @0", "close"
};

class TestDevice : public CRegVolumeDevice {
public:
    // hiveOffset: where the hive starts inside the files this device opens.
    explicit TestDevice(std::uint64_t hiveOffset = 0) : hiveOffset_(hiveOffset) {}

    bool DeviceOpen(void** handle, const char16_t* path, std::uint32_t a, std::uint32_t b, std::uint32_t c) override;
    bool DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) override;
    bool DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceClose(void* handle) override;

    std::vector<DeviceCall> calls;
    bool refuseOpen = false;
    // Transfers that would touch a byte at or behind this hive position fail.
    std::optional<std::uint64_t> refuseReadsFrom, refuseWritesFrom;
    // The n-th write from now on fails (1: the next one).
    void RefuseWrite(int n) { refuseWriteAt_ = writes_ + n; }
    // Handles of all test devices that no device has closed yet.
    static int OpenHandles();

private:
    bool Transfer(void* handle, void* buffer, std::uint32_t size, std::uint32_t* count, bool write);
    std::uint64_t hiveOffset_;
    int writes_ = 0;
    int refuseWriteAt_ = -1;
};

// True when the suite runs with every hive opened by volume.
bool VolumeMode();
// Opens a hive as the mode says (a device is always read-write).
RegAPI::LONG OpenTestHive(const std::string& path, RegAPI::HKEY* hive, bool readOnly = false);
RegAPI::LONG CloseTestHive(RegAPI::HKEY* hive);

}  // namespace TamvikTest
