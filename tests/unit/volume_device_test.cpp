// Hives on a raw volume: what the library asks of the caller's device, in
// which order and with which handle, how it takes a device that refuses, and
// that one process-wide current device serves every hive opened by volume.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "RegAPI.h"
#include "store/VolumeStorage.h"
#include "support/ApiListing.h"
#include "support/HiveBuilder.h"
#include "support/RecordingDevice.h"
#include "support/TempFile.h"

namespace {

using namespace RegAPI;
using TamvikTest::Bytes;
using TamvikTest::DeviceCall;
using TamvikTest::HiveBuilder;
using TamvikTest::RecordingDevice;
using TamvikTest::TempFile;
using TamvikTest::TreeKey;
using Kind = DeviceCall::Kind;

// A small sound hive: root, key "Data" with one binary value "V" of 8 bytes
// (in a data cell, so that reading it goes to the device).
Bytes SmallHive(std::uint8_t seed) {
    TreeKey data;
    data.name = "Data";
    data.values = {{"V", 3, Bytes{seed, 2, 3, 4, 5, 6, 7, 8}}};
    TreeKey root;
    root.name = "Root";
    root.subkeys = {data};
    HiveBuilder builder;
    builder.AddTree(root);
    return builder.Build();
}

// The first byte of value V of key Data, read through the hive; -1 on failure.
int FirstByteOfV(HKEY hive) {
    HKEY data = nullptr;
    if (RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data) != Result::Ok) return -1;
    BYTE buffer[8] = {};
    DWORD size = sizeof buffer;
    if (RegQueryValueExW(data, u"V", nullptr, nullptr, buffer, &size) != Result::Ok) return -1;
    return buffer[0];
}

// Every test makes its own devices, which die with it. The library's current
// device is cleared afterwards, so that it never points at a dead device.
class VolumeDeviceTest : public ::testing::Test {
protected:
    void TearDown() override { Tamvik::currentDevice = nullptr; }

    static void* OpenedHandle(const RecordingDevice& device) {
        std::vector<DeviceCall> opens = device.CallsOf(Kind::Open);
        return opens.empty() ? nullptr : opens.back().handle;
    }
};

TEST_F(VolumeDeviceTest, OpenGivesThePathAnd303ThenReadsTheBaseBlockFromPositionZero) {
    TempFile file(SmallHive(1));
    RecordingDevice device;
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    ASSERT_NE(hive, nullptr);

    const std::vector<DeviceCall>& calls = device.Calls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(calls[0].kind, Kind::Open);
    EXPECT_EQ(calls[0].path, file.WidePath());
    EXPECT_EQ(calls[0].openArgs[0], 3u);
    EXPECT_EQ(calls[0].openArgs[1], 0u);
    EXPECT_EQ(calls[0].openArgs[2], 3u);
    void* handle = calls[0].handle;
    EXPECT_EQ(calls[1].kind, Kind::Seek);
    EXPECT_EQ(calls[1].handle, handle);
    EXPECT_EQ(calls[1].position, 0u);
    EXPECT_EQ(calls[1].origin, 0u);
    EXPECT_EQ(calls[2].kind, Kind::Read);
    EXPECT_EQ(calls[2].handle, handle);
    EXPECT_EQ(calls[2].elementSize, 4096u);
    EXPECT_EQ(calls[2].count, 1u);
    EXPECT_EQ(device.Count(Kind::Write), 0u);  // opening writes nothing

    EXPECT_EQ(FirstByteOfV(hive), 1);
    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
    EXPECT_EQ(hive, nullptr);
    EXPECT_EQ(device.Calls().back().kind, Kind::Close);
    EXPECT_EQ(device.Calls().back().handle, handle);
    EXPECT_EQ(device.OpenHandles(), 0u);
}

TEST_F(VolumeDeviceTest, NarrowOpenGivesTheWidenedPath) {
    TempFile file(SmallHive(1));
    RecordingDevice device;
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeA(file.Path().c_str(), &device, &hive), Result::Ok);
    EXPECT_EQ(device.Calls().front().path, file.WidePath());
    EXPECT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
}

TEST_F(VolumeDeviceTest, SeeksGetTheirPositionByValueWithOriginZero) {
    TempFile file(SmallHive(7));
    const std::uint64_t fileSize = file.Read().size();
    RecordingDevice device;
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    EXPECT_EQ(FirstByteOfV(hive), 7);
    HKEY data = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    const BYTE more[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ASSERT_EQ(RegSetValueNewW(data, u"W", 0, 3, more, sizeof more), Result::Ok);

    std::vector<DeviceCall> seeks = device.CallsOf(Kind::Seek);
    ASSERT_GT(seeks.size(), 3u);
    for (const DeviceCall& seek : seeks) {
        EXPECT_EQ(seek.origin, 0u);
        // A pointer passed for the position would land far outside the file.
        EXPECT_LT(seek.position, fileSize);
    }
    // Each read and write works where the seek before it pointed.
    const std::vector<DeviceCall>& calls = device.Calls();
    for (std::size_t i = 1; i < calls.size(); ++i) {
        if (calls[i].kind == Kind::Read || calls[i].kind == Kind::Write) {
            if (calls[i - 1].kind == Kind::Seek) {
                EXPECT_EQ(calls[i].position, calls[i - 1].position) << "call " << i;
            }
            EXPECT_EQ(calls[i].count, 1u) << "call " << i;
        }
    }
    EXPECT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
}

TEST_F(VolumeDeviceTest, HiveInsideADiskImageIsReadAndEditedInPlace) {
    // 64 KiB of something else before the hive and 4 KiB after it.
    const Bytes hive = SmallHive(3);
    Bytes image(65536, 0xA5);
    image.insert(image.end(), hive.begin(), hive.end());
    image.insert(image.end(), 4096, 0x5A);
    TempFile file(image);
    RecordingDevice device(65536);
    HKEY handle = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &handle), Result::Ok);
    EXPECT_EQ(FirstByteOfV(handle), 3);
    HKEY data = nullptr;
    ASSERT_EQ(RegOpenKeyExW(handle, u"R\\Data", 0, 0, &data), Result::Ok);
    const BYTE added[6] = {0xC0, 0xFF, 0xEE, 0, 1, 2};
    ASSERT_EQ(RegSetValueNewW(data, u"Added", 0, 3, added, sizeof added), Result::Ok);
    ASSERT_EQ(CloseHiveByVolume(&handle, &device), Result::Ok);

    // The hive cut out of the image is a sound hive file with the new value,
    // and nothing outside it was touched.
    const Bytes after = file.Read();
    ASSERT_EQ(after.size(), image.size());
    EXPECT_TRUE(std::all_of(after.begin(), after.begin() + 65536, [](std::uint8_t b) { return b == 0xA5; }));
    EXPECT_TRUE(std::all_of(after.end() - 4096, after.end(), [](std::uint8_t b) { return b == 0x5A; }));
    TempFile cut(Bytes(after.begin() + 65536, after.end() - 4096));
    TamvikTest::ApiListing listing = TamvikTest::ListHiveFile(cut.Path());
    ASSERT_TRUE(listing.opened);
    EXPECT_TRUE(listing.problems.empty());
    EXPECT_NE(std::find(listing.lines.begin(), listing.lines.end(), "V\t\\Data\tAdded\t3\tc0ffee000102"),
              listing.lines.end());
}

TEST_F(VolumeDeviceTest, TheLastDeviceGivenToAnOpenServesBothHives) {
    TempFile first(SmallHive(1));
    TempFile second(SmallHive(2));
    RecordingDevice a;
    RecordingDevice b;
    HKEY hive1 = nullptr;
    HKEY hive2 = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(first.WidePath().c_str(), &a, &hive1), Result::Ok);
    void* handle1 = OpenedHandle(a);
    ASSERT_EQ(OpenHiveByVolumeW(second.WidePath().c_str(), &b, &hive2), Result::Ok);
    void* handle2 = OpenedHandle(b);
    ASSERT_NE(handle1, handle2);
    a.ClearCalls();
    b.ClearCalls();

    // The first hive is now served by the second device, with its own handle.
    EXPECT_EQ(FirstByteOfV(hive1), 1);
    EXPECT_TRUE(a.Calls().empty());
    ASSERT_FALSE(b.Calls().empty());
    for (const DeviceCall& call : b.Calls()) EXPECT_EQ(call.handle, handle1);

    b.ClearCalls();
    EXPECT_EQ(FirstByteOfV(hive2), 2);
    EXPECT_TRUE(a.Calls().empty());
    ASSERT_FALSE(b.Calls().empty());
    for (const DeviceCall& call : b.Calls()) EXPECT_EQ(call.handle, handle2);

    // The close goes to the device given to the close.
    b.ClearCalls();
    ASSERT_EQ(CloseHiveByVolume(&hive1, &a), Result::Ok);
    ASSERT_EQ(a.Calls().size(), 1u);
    EXPECT_EQ(a.Calls()[0].kind, Kind::Close);
    EXPECT_EQ(a.Calls()[0].handle, handle1);
    EXPECT_TRUE(b.Calls().empty());
    EXPECT_EQ(CloseHiveByVolume(&hive2, &b), Result::Ok);
}

TEST_F(VolumeDeviceTest, CloseGoesToTheDeviceGivenToTheClose) {
    TempFile file(SmallHive(1));
    RecordingDevice opener;
    RecordingDevice closer;
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &opener, &hive), Result::Ok);
    void* handle = OpenedHandle(opener);
    ASSERT_EQ(CloseHiveByVolume(&hive, &closer), Result::Ok);
    EXPECT_EQ(hive, nullptr);
    EXPECT_EQ(opener.Count(Kind::Close), 0u);
    ASSERT_EQ(closer.Calls().size(), 1u);
    EXPECT_EQ(closer.Calls()[0].kind, Kind::Close);
    EXPECT_EQ(closer.Calls()[0].handle, handle);
    EXPECT_EQ(opener.OpenHandles(), 0u);
}

TEST_F(VolumeDeviceTest, RefusedDeviceOpenIs87AndTheDeviceStillBecomesCurrent) {
    TempFile file(SmallHive(1));
    RecordingDevice good;
    HKEY open = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &good, &open), Result::Ok);

    RecordingDevice refusing;
    refusing.refuseOpen = true;
    HKEY hive = reinterpret_cast<HKEY>(&refusing);  // a sentinel that must stay
    EXPECT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &refusing, &hive), Result::Invalid);
    EXPECT_EQ(hive, reinterpret_cast<HKEY>(&refusing));
    ASSERT_EQ(refusing.Calls().size(), 1u);
    EXPECT_EQ(refusing.Calls()[0].kind, Kind::Open);
    EXPECT_EQ(refusing.Count(Kind::Close), 0u);

    // The refused open has made the refusing device current: the open hive's
    // reads now reach it, with the first device's handle.
    refusing.ClearCalls();
    good.ClearCalls();
    EXPECT_EQ(FirstByteOfV(open), 1);
    EXPECT_TRUE(good.Calls().empty());
    EXPECT_FALSE(refusing.Calls().empty());
    EXPECT_EQ(CloseHiveByVolume(&open, &good), Result::Ok);
}

TEST_F(VolumeDeviceTest, NullDeviceIs87AndLeavesTheCurrentDevice) {
    TempFile file(SmallHive(4));
    RecordingDevice device;
    HKEY open = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &open), Result::Ok);
    HKEY other = nullptr;
    EXPECT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), nullptr, &other), Result::Invalid);
    EXPECT_EQ(OpenHiveByVolumeA(file.Path().c_str(), nullptr, &other), Result::Invalid);
    EXPECT_EQ(other, nullptr);
    device.ClearCalls();
    EXPECT_EQ(FirstByteOfV(open), 4);
    EXPECT_FALSE(device.Calls().empty());
    EXPECT_EQ(CloseHiveByVolume(&open, &device), Result::Ok);
}

TEST_F(VolumeDeviceTest, NullOrInvalidPathIs87BeforeTheDeviceIsAsked) {
    RecordingDevice device;
    HKEY hive = nullptr;
    EXPECT_EQ(OpenHiveByVolumeA(nullptr, &device, &hive), Result::Invalid);
    EXPECT_EQ(OpenHiveByVolumeA("\xFF", &device, &hive), Result::Invalid);
    EXPECT_EQ(OpenHiveByVolumeW(nullptr, &device, &hive), Result::Invalid);
    EXPECT_TRUE(device.Calls().empty());
    EXPECT_EQ(hive, nullptr);
}

TEST_F(VolumeDeviceTest, DeviceThatHoldsNoHiveIs5AndItsHandleIsClosed) {
    TempFile zeros(Bytes(8192, 0));
    RecordingDevice device;
    HKEY hive = reinterpret_cast<HKEY>(&device);
    EXPECT_EQ(OpenHiveByVolumeW(zeros.WidePath().c_str(), &device, &hive), Result::HiveRefused);
    EXPECT_EQ(hive, reinterpret_cast<HKEY>(&device));
    ASSERT_EQ(device.Count(Kind::Close), 1u);
    EXPECT_EQ(device.CallsOf(Kind::Close)[0].handle, OpenedHandle(device));
    EXPECT_EQ(device.OpenHandles(), 0u);
}

TEST_F(VolumeDeviceTest, HiveWithWrongChecksumIs5) {
    HiveBuilder builder;
    TreeKey root;
    root.name = "Root";
    builder.AddTree(root);
    builder.SetChecksumValid(false);
    TempFile file(builder.Build());
    RecordingDevice device;
    HKEY hive = nullptr;
    EXPECT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::HiveRefused);
    EXPECT_EQ(device.OpenHandles(), 0u);
}

TEST_F(VolumeDeviceTest, DeviceThatCannotReadTheBaseBlockIs5) {
    TempFile file(SmallHive(1));
    RecordingDevice device;
    device.refuseReadsFrom = 0;
    HKEY hive = nullptr;
    EXPECT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::HiveRefused);
    EXPECT_EQ(hive, nullptr);
    EXPECT_EQ(device.OpenHandles(), 0u);
}

TEST_F(VolumeDeviceTest, UnreadableCellsMakeLookupsFailWithoutHarm) {
    TempFile file(SmallHive(1));
    RecordingDevice device;
    device.refuseReadsFrom = 4096;  // the base block only
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    HKEY key = nullptr;
    EXPECT_NE(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &key), Result::Ok);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
}

TEST_F(VolumeDeviceTest, RefusedAppendBinGives87AndTheHiveStaysSound) {
    TempFile file(SmallHive(5));
    const Bytes before = file.Read();
    RecordingDevice device;
    device.refuseWritesFrom = before.size();  // nothing may be written behind the last bin
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    HKEY data = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);

    const Bytes big(8000, 0x42);  // more than one bin of 4096 can hold
    EXPECT_EQ(RegSetValueNewW(data, u"Big", 0, 3, big.data(), static_cast<DWORD>(big.size())), Result::Invalid);
    std::vector<DeviceCall> writes = device.CallsOf(Kind::Write);
    EXPECT_TRUE(std::any_of(writes.begin(), writes.end(), [&](const DeviceCall& w) {
        return w.refused && w.position >= before.size();
    }));

    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExW(data, u"Big", nullptr, nullptr, nullptr, &size), Result::Invalid);
    // What was there still reads, and a value that fits can still be added.
    EXPECT_EQ(FirstByteOfV(hive), 5);
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    const BYTE small[6] = {6, 5, 4, 3, 2, 1};
    EXPECT_EQ(RegSetValueNewW(data, u"Small", 0, 3, small, sizeof small), Result::Ok);
    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);

    const Bytes after = file.Read();
    EXPECT_EQ(after.size(), before.size());
    TamvikTest::ApiListing listing = TamvikTest::ListHiveFile(file.Path());
    ASSERT_TRUE(listing.opened);
    EXPECT_TRUE(listing.problems.empty());
    const std::vector<std::string> expected = {
        "K\t\\",
        "K\t\\Data",
        "V\t\\Data\tV\t3\t0502030405060708",
        "V\t\\Data\tSmall\t3\t060504030201",
    };
    EXPECT_EQ(listing.lines, expected);
}

TEST_F(VolumeDeviceTest, AppendBinGrowsTheHiveWhenTheDeviceAllows) {
    TempFile file(SmallHive(5));
    const std::size_t before = file.Read().size();
    RecordingDevice device;
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    HKEY data = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    const Bytes big(8000, 0x42);
    ASSERT_EQ(RegSetValueNewW(data, u"Big", 0, 3, big.data(), static_cast<DWORD>(big.size())), Result::Ok);
    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
    EXPECT_GT(file.Read().size(), before);
    TamvikTest::ApiListing listing = TamvikTest::ListHiveFile(file.Path());
    EXPECT_TRUE(listing.problems.empty());
    EXPECT_EQ(listing.lines.size(), 4u);
}

TEST_F(VolumeDeviceTest, OutcomeOfAnOrdinaryCellWriteIsNotLookedAt) {
    // Only the write of a new bin is checked; refusing the first write of a
    // small value (the base block in front of its cell) still gives success.
    TempFile file(SmallHive(5));
    RecordingDevice device;
    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    device.refuseWriteNumber = 1;
    HKEY data = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    const BYTE small[6] = {6, 5, 4, 3, 2, 1};
    EXPECT_EQ(RegSetValueNewW(data, u"Small", 0, 3, small, sizeof small), Result::Ok);
    std::vector<DeviceCall> writes = device.CallsOf(Kind::Write);
    ASSERT_FALSE(writes.empty());
    EXPECT_TRUE(writes[0].refused);
    EXPECT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
}

TEST_F(VolumeDeviceTest, CloseFunctionsRefuseTheOtherKindOfHive) {
    TempFile volumeFile(SmallHive(1));
    TempFile plainFile(SmallHive(2));
    RecordingDevice device;
    HKEY byVolume = nullptr;
    HKEY byFile = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(volumeFile.WidePath().c_str(), &device, &byVolume), Result::Ok);
    ASSERT_EQ(OpenHiveW(plainFile.WidePath().c_str(), &byFile, false), Result::Ok);

    // Neither close hands its handle to the wrong kind of storage.
    EXPECT_EQ(CloseHive(&byVolume), Result::Invalid);
    EXPECT_NE(byVolume, nullptr);
    EXPECT_EQ(CloseHiveByVolume(&byFile, &device), Result::Invalid);
    EXPECT_NE(byFile, nullptr);
    EXPECT_EQ(device.Count(Kind::Close), 0u);
    EXPECT_EQ(FirstByteOfV(byVolume), 1);
    EXPECT_EQ(FirstByteOfV(byFile), 2);

    EXPECT_EQ(CloseHive(&byFile), Result::Ok);
    EXPECT_EQ(CloseHiveByVolume(&byVolume, &device), Result::Ok);
    EXPECT_EQ(device.OpenHandles(), 0u);
}

TEST_F(VolumeDeviceTest, CloseByVolumeOfNothingOrOfAKeyIs87) {
    TempFile file(SmallHive(1));
    RecordingDevice device;
    EXPECT_EQ(CloseHiveByVolume(nullptr, &device), Result::Invalid);
    HKEY none = nullptr;
    EXPECT_EQ(CloseHiveByVolume(&none, &device), Result::Invalid);

    HKEY hive = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    HKEY data = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    HKEY key = data;
    EXPECT_EQ(CloseHiveByVolume(&key, &device), Result::Invalid);
    EXPECT_EQ(key, data);
    EXPECT_EQ(device.Count(Kind::Close), 0u);

    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
    EXPECT_EQ(CloseHiveByVolume(&hive, &device), Result::Invalid);  // now null
    EXPECT_EQ(device.Count(Kind::Close), 1u);
}

}  // namespace
