// What the fuzz harnesses share: the one entry point libFuzzer calls, a hive
// under test reached through an in-memory volume device or a memory-backed
// file, and the fix-up that lets mutated hives past the base block test.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "RegAPI.h"
#include "support/Probe.h"

namespace TamvikFuzz {

using Bytes = std::vector<std::uint8_t>;

// How far a harness walks a hive: far enough to reach what a small hive
// holds, short enough to keep hundreds of inputs a second under ASan.
constexpr TamvikTest::ProbeLimits kWalkLimits{16, 120, 16, 8 << 10, false};
// A shorter walk: over what the first left cached or an edit changed, or to find edit targets.
constexpr TamvikTest::ProbeLimits kSessionWalkLimits{8, 64, 8, 4096, false};

// Each harness defines this; the driver hands it every input.
void Harness(Bytes input);

// Ends the run with a message: a finding.
[[noreturn]] void Fail(const std::string& what);
void Require(bool condition, const std::string& what);
// Fails on any contract violation a probe met.
void Require(const TamvikTest::ProbeResult& probe);

// Makes the base block pass the open test unless bit 0 of the byte at 0x1F8
// (reserved in the base block) asks to take it as it is; without this almost
// every mutation would end at the checksum. Bit 1 opens the hive as a file
// instead of through a device.
void FixBaseBlock(Bytes& hive);

// Whether the tool's structure check finds no problem in a hive: the tool
// edits only such hives (without --force), and only in them is every key an
// edit leaves alone sure to stay readable.
bool SoundForTheTool(const Bytes& hive);

class MemoryDevice;

class HiveUnderTest {
public:
    HiveUnderTest(const Bytes& bytes, bool readOnly = false);
    ~HiveUnderTest();
    HiveUnderTest(const HiveUnderTest&) = delete;
    HiveUnderTest& operator=(const HiveUnderTest&) = delete;

    // Gives the open's result, which must be 0, 5 or 87.
    RegAPI::LONG Open();
    void Close();
    RegAPI::HKEY Handle() const { return hive_; }
    Bytes Contents() const;
    std::uint64_t DeviceWrites() const;

private:
    bool viaFile_, readOnly_;
    std::unique_ptr<MemoryDevice> device_;
    int fd_ = -1;
    std::u16string path_;
    RegAPI::HKEY hive_ = nullptr;
};

}  // namespace TamvikFuzz
