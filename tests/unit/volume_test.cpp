// Guards hives on a raw volume: which calls the library makes on the caller's
// device, in which order and with which handle, how it takes a device that
// refuses, and that one process-wide current device serves every hive opened
// by volume.
#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "store/Format.h"
#include "store/VolumeStorage.h"
#include "support/Device.h"
#include "support/Fixture.h"
#include "support/Listing.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;

HiveBuilder SmallTree(std::uint8_t seed) {
    HiveBuilder builder;
    builder.AddTree(TreeKey{"Root", {}, {TreeKey{"Data", {{"V", 3, {seed, 2, 3, 4, 5, 6, 7, 8}}}}}});
    return builder;
}

Bytes SmallHive(std::uint8_t seed) { return SmallTree(seed).Build(); }

int FirstByteOfV(HKEY hive) {
    HKEY data = nullptr;
    BYTE buffer[8] = {};
    DWORD size = sizeof buffer;
    if (RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data) != Result::Ok ||
        RegQueryValueExW(data, u"V", nullptr, nullptr, buffer, &size) != Result::Ok)
        return -1;
    return buffer[0];
}

std::vector<std::string> Texts(const std::vector<DeviceCall>& calls) {
    std::vector<std::string> texts;
    for (const DeviceCall& call : calls) texts.push_back(std::to_string(call.handle) + " " + call.text);
    return texts;
}

// Devices die with their test; the library's current device must not outlive them.
class Volume : public ::testing::Test {
protected:
    void TearDown() override { Tamvik::currentDevice = nullptr; }
};

// What a new value of 12 bytes costs below a key whose list and value are
// cached: the lookup builds the one value; the vk goes into the first fit
// (bin header, whole bin) behind a base block write; the list of one moves
// (its release reads its header, the bin header, the cell behind it and
// walks the bin for the one before it); the new list and the data cell are
// found and written the same way; then the vk is patched and the owner saved.
const std::string kEditTrace =
    "seek 4392 0; read 12 @4392; seek 4392 0; read 32 @4392; "
    "seek 4096 0; read 32 @4096; seek 4096 0; read 4096 @4096; seek 0 0; write 4096 @0; seek 4448 0; write 36 @4448; "
    "seek 4424 0; read 12 @4424; seek 4424 0; read 8 @4424; seek 4424 0; read 12 @4424; seek 4424 0; read 12 @4424; "
    "seek 4096 0; read 32 @4096; seek 4432 0; read 12 @4432; seek 4128 0; read 12 @4128; seek 4200 0; read 12 @4200; "
    "seek 4288 0; read 12 @4288; seek 4376 0; read 12 @4376; seek 4392 0; read 12 @4392; seek 4424 0; write 12 @4424; "
    "seek 4096 0; read 32 @4096; seek 4096 0; read 4096 @4096; seek 0 0; write 4096 @0; seek 4480 0; write 20 @4480; "
    "seek 4096 0; read 32 @4096; seek 4096 0; read 4096 @4096; seek 0 0; write 4096 @0; seek 4496 0; write 20 @4496; "
    "seek 4448 0; read 12 @4448; seek 4448 0; read 32 @4448; seek 4448 0; read 12 @4448; seek 4448 0; write 32 @4448; "
    "seek 4288 0; read 12 @4288; seek 4288 0; write 88 @4288; close; ";

// The exact calls of an open, a read, an edit and a close, position by position.
TEST_F(Volume, CallsComeInTheirOrder) {
    TempFile file(SmallHive(1));
    TestDevice device;
    HKEY hive = nullptr, data = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    const int h = device.calls.at(0).handle;
    EXPECT_EQ(Texts(device.calls), (std::vector<std::string>{std::to_string(h) + " open 3 0 3 " + file.Path(),
                                                            std::to_string(h) + " seek 0 0",
                                                            std::to_string(h) + " read 4096 @0"}));
    EXPECT_EQ(FirstByteOfV(hive), 1);
    device.calls.clear();
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    const BYTE more[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ASSERT_EQ(RegSetValueNewW(data, u"W", 0, 3, more, sizeof more), Result::Ok);
    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
    std::string trace;
    for (const std::string& text : Texts(device.calls)) trace += text.substr(text.find(' ') + 1) + "; ";
    EXPECT_EQ(trace, kEditTrace);
    for (const DeviceCall& call : device.calls) EXPECT_EQ(call.handle, h) << call.text;
    // Growing V to the key's largest length (W's) leaves the key's record unwritten.
    const Image image(file.Read());
    const std::string owner = "write 88 @" + std::to_string(4096 + image.SubKeys(image.Root()).at(0));
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    device.calls.clear();
    ASSERT_EQ(RegSetValueExW(data, u"V", 0, 3, more, sizeof more), Result::Ok);
    for (const DeviceCall& call : device.calls) EXPECT_NE(call.text, owner);
    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
}

// A lookup on a volume reads as a scan from position 0 does: the list once,
// then each position up to the match (its cell header and its cell, four
// calls; in an ri the leaves it passes as well); only the cached child is free.
TEST_F(Volume, LookupsScanTheDeviceLiterally) {
    struct Step {
        const char16_t* name;
        std::size_t lf, ri;  // device calls with an lf of A, B, C, and an ri of leaves [A, B] and [C]
        std::size_t lying;   // with the lf under a count far past it
    };
    const Step steps[] = {{u"C", 4 + 12, 4 + 8 + 8 + 12, 4 + 12}, {u"C", 0, 0, 0}, {u"A", 4, 8, 4}, {u"B", 8, 8 + 8, 8},
                          {u"Z", 12, 8 + 8 + 12, 12},
                          // a miss leaves the last position's node cached, and the lying list has none
                          {u"C", 0, 0, 12}};
    // The last run's count lies far past the list: the scan still ends where the positions do, at once.
    for (const auto& [kind, count] : {std::pair{ListKind::Lf, 3u}, {ListKind::Ri, 3u}, {ListKind::Lf, 0xFFFFFFFFu}}) {
        HiveBuilder builder;
        builder.AddTree(TreeKey{"Root", {}, {TreeKey{"A"}, TreeKey{"B"}, TreeKey{"C"}}, kind});
        builder.Patch32(builder.KeyOffset(""), Tamvik::NkField::SubKeyCount, count);
        TempFile file(builder.Build());
        const auto start = std::chrono::steady_clock::now();
        TestDevice device;
        HKEY hive = nullptr, root = nullptr, found = nullptr;
        ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
        ASSERT_EQ(RegOpenKeyExW(hive, u"R", 0, 0, &root), Result::Ok);
        for (const Step& step : steps) {
            device.calls.clear();
            const std::u16string name(step.name);
            EXPECT_EQ(RegOpenKeyExW(root, step.name, 0, 0, &found), name == u"Z" ? Result::Invalid : Result::Ok);
            EXPECT_EQ(device.calls.size(), count != 3 ? step.lying : kind == ListKind::Lf ? step.lf : step.ri)
                << (kind == ListKind::Lf ? "lf " : "ri ") << Utf8(name);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << count;
        ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
    }
}

TEST_F(Volume, AHiveInsideADiskImageIsEditedInPlace) {
    Bytes image(65536, 0xA5);
    const Bytes hive = SmallHive(3);
    image.insert(image.end(), hive.begin(), hive.end());
    image.insert(image.end(), 4096, 0x5A);
    TempFile file(image);
    TestDevice device(65536);
    HKEY handle = nullptr, data = nullptr;
    ASSERT_EQ(OpenHiveByVolumeA(file.Path().c_str(), &device, &handle), Result::Ok);
    EXPECT_EQ(FirstByteOfV(handle), 3);
    ASSERT_EQ(RegOpenKeyExW(handle, u"R\\Data", 0, 0, &data), Result::Ok);
    const BYTE added[6] = {0xC0, 0xFF, 0xEE, 0, 1, 2};
    ASSERT_EQ(RegSetValueNewW(data, u"Added", 0, 3, added, sizeof added), Result::Ok);
    ASSERT_EQ(CloseHiveByVolume(&handle, &device), Result::Ok);
    const Bytes after = file.Read();
    ASSERT_EQ(after.size(), image.size());
    EXPECT_EQ(Bytes(after.begin(), after.begin() + 65536), Bytes(65536, 0xA5));
    EXPECT_EQ(Bytes(after.end() - 4096, after.end()), Bytes(4096, 0x5A));
    TempFile cut(Bytes(after.begin() + 65536, after.end() - 4096));
    EXPECT_EQ(ListFile(cut.Path()).lines.back(), "V\t\\Data\tAdded\t3\tc0ffee000102");
}

// The last device given to an open serves every hive opened by volume, each
// with its own handle; a close goes to the device given to the close.
TEST_F(Volume, OneCurrentDeviceServesAll) {
    TempFile first(SmallHive(1)), second(SmallHive(2));
    TestDevice a, b, refusing, closer;
    HKEY hive1 = nullptr, hive2 = nullptr, other = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(first.WidePath().c_str(), &a, &hive1), Result::Ok);
    ASSERT_EQ(OpenHiveByVolumeW(second.WidePath().c_str(), &b, &hive2), Result::Ok);
    const int h1 = a.calls[0].handle, h2 = b.calls[0].handle;
    a.calls.clear(), b.calls.clear();
    EXPECT_EQ(FirstByteOfV(hive1) * 10 + FirstByteOfV(hive2), 12);
    EXPECT_TRUE(a.calls.empty());
    std::set<int> handles;
    for (const DeviceCall& call : b.calls) handles.insert(call.handle);
    EXPECT_EQ(handles, (std::set<int>{h1, h2}));
    // A null device changes nothing; a refused DeviceOpen is 87 but its device is current from then on.
    EXPECT_EQ(OpenHiveByVolumeW(first.WidePath().c_str(), nullptr, &other), Result::Invalid);
    refusing.refuseOpen = true;
    EXPECT_EQ(OpenHiveByVolumeW(first.WidePath().c_str(), &refusing, &other), Result::Invalid);
    EXPECT_EQ(other, nullptr);
    b.calls.clear(), refusing.calls.clear();
    EXPECT_EQ(FirstByteOfV(hive1), 1);
    EXPECT_TRUE(b.calls.empty() && !refusing.calls.empty());
    ASSERT_EQ(CloseHiveByVolume(&hive1, &closer), Result::Ok);
    EXPECT_EQ(Texts(closer.calls), std::vector<std::string>{std::to_string(h1) + " close"});
    EXPECT_EQ(CloseHiveByVolume(&hive2, &b), Result::Ok);
    EXPECT_EQ(TestDevice::OpenHandles(), 0);
}

TEST_F(Volume, RefusalsAtOpenAndClose) {
    TempFile good(SmallHive(1)), zeros(Bytes(8192, 0));
    HiveBuilder bad;
    bad.AddTree(TreeKey{"Root"});
    bad.SetChecksumValid(false);
    TempFile badSum(bad.Build());
    TestDevice device, unreadable;
    unreadable.refuseReadsFrom = 0;
    HKEY hive = nullptr, fileHive = nullptr;
    EXPECT_EQ(OpenHiveByVolumeA(nullptr, &device, &hive), Result::Invalid);
    EXPECT_EQ(OpenHiveByVolumeA("\xFF", &device, &hive), Result::Invalid);
    EXPECT_EQ(OpenHiveByVolumeW(nullptr, &device, &hive), Result::Invalid);
    EXPECT_TRUE(device.calls.empty()) << "a bad path is refused before the device is asked";
    EXPECT_EQ(OpenHiveByVolumeW(zeros.WidePath().c_str(), &device, &hive), Result::HiveRefused);
    EXPECT_EQ(OpenHiveByVolumeW(badSum.WidePath().c_str(), &device, &hive), Result::HiveRefused);
    EXPECT_EQ(OpenHiveByVolumeW(good.WidePath().c_str(), &unreadable, &hive), Result::HiveRefused);
    EXPECT_EQ(hive, nullptr);
    EXPECT_EQ(device.calls.back().text, "close") << "a refused hive's handle is closed";
    EXPECT_EQ(TestDevice::OpenHandles(), 0);
    // The two close functions refuse each other's hives, and anything that isn't a hive.
    ASSERT_EQ(OpenHiveByVolumeW(good.WidePath().c_str(), &device, &hive), Result::Ok);
    ASSERT_EQ(OpenHiveW(good.WidePath().c_str(), &fileHive, true), Result::Ok);
    HKEY key = nullptr, none = nullptr;
    ASSERT_EQ(RegOpenKeyExW(hive, u"", 0, 0, &key), Result::Ok);
    EXPECT_EQ(CloseHive(&hive) + CloseHiveByVolume(&fileHive, &device), 87 + 87);
    EXPECT_EQ(CloseHiveByVolume(&key, &device) + CloseHiveByVolume(&none, &device) + CloseHiveByVolume(nullptr, &device),
              3 * 87);
    EXPECT_EQ(CloseHiveByVolume(&hive, &device) + CloseHive(&fileHive), 0);
}

// Only the write of a new bin is looked at: refused, the edit fails and the
// hive stays sound; any other refused write goes unnoticed.
TEST_F(Volume, WritesTheDeviceRefuses) {
    TempFile file(SmallHive(5));
    const Bytes before = file.Read();
    TestDevice device;
    device.refuseWritesFrom = before.size();
    HKEY hive = nullptr, data = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &data), Result::Ok);
    const Bytes big(8000, 0x42);
    const BYTE small[6] = {6, 5, 4, 3, 2, 1};
    EXPECT_EQ(RegSetValueNewW(data, u"Big", 0, 3, big.data(), 8000), Result::Invalid);
    EXPECT_EQ(RegSetValueNewW(data, u"Small", 0, 3, small, sizeof small), Result::Ok);
    device.refuseWritesFrom.reset();
    device.RefuseWrite(1);
    EXPECT_EQ(RegSetValueNewW(data, u"Lost", 0, 3, small, sizeof small), Result::Ok);
    device.refuseReadsFrom = 4096;
    EXPECT_EQ(FirstByteOfV(hive), -1) << "unreadable cells: lookups fail without harm";
    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
    EXPECT_EQ(file.Read().size(), before.size());
    const Listing listing = ListFile(file.Path());
    EXPECT_TRUE(listing.problems.empty());
    EXPECT_EQ(listing.lines, (std::vector<std::string>{"K\t\\", "K\t\\Data", "V\t\\Data\tV\t3\t0502030405060708",
                                                       "V\t\\Data\tSmall\t3\t060504030201",
                                                       "V\t\\Data\tLost\t3\t060504030201"}));
}

// A cell that claims more than a MiB is asked for its last byte before memory
// for it is had: a damaged size costs one small read, not a huge block.
TEST_F(Volume, AHugeCellIsProbedAtItsLastByte) {
    HiveBuilder builder = SmallTree(1);
    const Image image(builder.Build());
    const std::uint32_t list = image.U32(builder.KeyOffset("Data"), Tamvik::NkField::ValueListCell);
    const std::uint32_t data = image.U32(image.U32(list, 0), Tamvik::VkField::DataCell);
    constexpr std::int32_t kClaimed = 3 << 20;
    builder.SetCellSize(data, -kClaimed);
    TempFile file(builder.Build());
    TestDevice device;
    HKEY hive = nullptr, key = nullptr;
    ASSERT_EQ(OpenHiveByVolumeW(file.WidePath().c_str(), &device, &hive), Result::Ok);
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &key), Result::Ok);
    device.calls.clear();
    BYTE buffer[8] = {};
    DWORD size = sizeof buffer;
    RegQueryValueExW(key, u"V", nullptr, nullptr, buffer, &size);
    const std::string last = std::to_string(4096ull + data + kClaimed - 1);
    ASSERT_GE(device.calls.size(), 2u);
    EXPECT_EQ(device.calls.back().text, "read 1 @" + last);
    for (const DeviceCall& call : device.calls) EXPECT_EQ(call.text.find("read 3145728"), std::string::npos);
    ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
}

}  // namespace
