// Opening and closing hive files through the public functions: the three
// results of an open, the test of the base block, and which handle closes what.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "RegAPI.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using RegAPI::HKEY;
using TamvikTest::Bytes;
using TamvikTest::HiveBuilder;
using TamvikTest::TempFile;

// A small sound hive: a root with one subkey and one value.
Bytes SoundHive(HiveBuilder builder = HiveBuilder()) {
    TamvikTest::TreeKey root;
    root.name = "ROOT";
    root.values.push_back({"V", 4, {1, 0, 0, 0}});
    root.subkeys.emplace_back().name = "Child";
    builder.AddTree(root);
    return builder.Build();
}

// Number of descriptors the process holds open: a refused open must not leak its stream.
int OpenDescriptors() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) ++count;
        closedir(dir);
    }
    return count;
}

// Opens path, expecting the result; closes the hive again when it opened.
RegAPI::LONG OpenAndClose(const std::u16string& path, bool readOnly) {
    HKEY hive = nullptr;
    const RegAPI::LONG result = RegAPI::OpenHiveW(path.c_str(), &hive, readOnly);
    if (result == 0) {
        EXPECT_NE(hive, nullptr);
        EXPECT_EQ(RegAPI::CloseHive(&hive), 0);
    } else {
        EXPECT_EQ(hive, nullptr) << "a refused open leaves the out-argument alone";
    }
    return result;
}

TEST(OpenHive, SoundHiveOpensBothWays) {
    TempFile file(SoundHive());
    EXPECT_EQ(OpenAndClose(file.WidePath(), false), 0);
    EXPECT_EQ(OpenAndClose(file.WidePath(), true), 0);
    HKEY hive = nullptr;
    EXPECT_EQ(RegAPI::OpenHiveA(file.Path().c_str(), &hive, false), 0);
    EXPECT_EQ(RegAPI::CloseHive(&hive), 0);
}

TEST(OpenHive, MissingOrUnopenableFileGives87) {
    EXPECT_EQ(OpenAndClose(u"/nonexistent-dir/no-such.hive", false), 87);
    EXPECT_EQ(OpenAndClose(u"/nonexistent-dir/no-such.hive", true), 87);
    EXPECT_EQ(OpenAndClose(u"", true), 87);
    EXPECT_EQ(OpenAndClose(u"", false), 87);
    // A directory can't be opened for update, not even by root.
    EXPECT_EQ(OpenAndClose(u"/tmp", false), 87);
}

TEST(OpenHive, ReadOnlyFileOpensOnlyForReading) {
    TempFile file(SoundHive());
    ASSERT_EQ(chmod(file.Path().c_str(), 0400), 0);
    EXPECT_EQ(OpenAndClose(file.WidePath(), true), 0);
    if (access(file.Path().c_str(), W_OK) == 0) {
        GTEST_SKIP() << "this process may write a read-only file (root?), so the refusal can't be shown";
    }
    EXPECT_EQ(OpenAndClose(file.WidePath(), false), 87);
}

TEST(OpenHive, ShortOrForeignFilesGive5) {
    const Bytes hive = SoundHive();
    TempFile empty;
    EXPECT_EQ(OpenAndClose(empty.WidePath(), false), 5);
    TempFile stub(Bytes(hive.begin(), hive.begin() + 300));  // the checksum field is missing
    EXPECT_EQ(OpenAndClose(stub.WidePath(), false), 5);
    TempFile text(Bytes(5000, 'x'));
    EXPECT_EQ(OpenAndClose(text.WidePath(), true), 5);

    HiveBuilder wrongName;
    wrongName.SetSignature("regq");
    TempFile foreign(SoundHive(wrongName));
    EXPECT_EQ(OpenAndClose(foreign.WidePath(), false), 5);
}

TEST(OpenHive, ShortFileIsJudgedByTheBytesThatArrived) {
    // The first 512 bytes hold signature and checksum: the open can't tell the block is cut.
    const Bytes hive = SoundHive();
    TempFile cut(Bytes(hive.begin(), hive.begin() + 512));
    EXPECT_EQ(OpenAndClose(cut.WidePath(), false), 0);
}

TEST(OpenHive, OneBitOffChecksumIsRefusedAndTheFileReleased) {
    HiveBuilder builder;
    builder.SetChecksumValid(false);
    TempFile file(SoundHive(builder));
    const int before = OpenDescriptors();
    EXPECT_EQ(OpenAndClose(file.WidePath(), false), 5);
    EXPECT_EQ(OpenAndClose(file.WidePath(), true), 5);
    EXPECT_EQ(OpenDescriptors(), before) << "the refused open must close its stream";

    // Mended, the same file opens; and it can be removed afterwards.
    file.Write(SoundHive());
    EXPECT_EQ(OpenAndClose(file.WidePath(), false), 0);
    EXPECT_EQ(OpenDescriptors(), before);
    const std::string path = file.Path();
    EXPECT_EQ(std::remove(path.c_str()), 0);
}

TEST(OpenHive, NullArgumentsGive87) {
    TempFile file(SoundHive());
    HKEY hive = nullptr;
    EXPECT_EQ(RegAPI::OpenHiveW(nullptr, &hive, false), 87);
    EXPECT_EQ(RegAPI::OpenHiveA(nullptr, &hive, false), 87);
}

// A hive opened from a sound file, and its root key.
class OpenedHive : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RegAPI::OpenHiveW(file_.WidePath().c_str(), &hive_, false), 0);
        ASSERT_EQ(RegAPI::RegOpenKeyExW(hive_, u"ROOT", 0, 0, &root_), 0);
    }
    void TearDown() override {
        if (hive_ != nullptr) {
            EXPECT_EQ(RegAPI::CloseHive(&hive_), 0);
        }
    }
    // The root key still answers: the hive behind it is alive.
    void ExpectAlive() {
        RegAPI::DWORD subKeys = 0;
        EXPECT_EQ(RegAPI::RegQueryInfoKeyW(root_, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr,
                                           nullptr, nullptr, nullptr, nullptr),
                  0);
        EXPECT_EQ(subKeys, 1u);
    }

    TempFile file_{SoundHive()};
    HKEY hive_ = nullptr;
    HKEY root_ = nullptr;
};

TEST_F(OpenedHive, CloseTwiceGives0Then87) {
    EXPECT_EQ(RegAPI::CloseHive(&hive_), 0);
    EXPECT_EQ(hive_, nullptr);
    EXPECT_EQ(RegAPI::CloseHive(&hive_), 87);
    EXPECT_EQ(RegAPI::CloseHive(nullptr), 87);
}

TEST_F(OpenedHive, CloseHiveOnAKeyHandleGives87AndClosesNothing) {
    HKEY key = root_;
    EXPECT_EQ(RegAPI::CloseHive(&key), 87);
    EXPECT_EQ(key, root_);
    ExpectAlive();
}

TEST_F(OpenedHive, RegCloseKeyOnTheHiveHandleGives87) {
    EXPECT_EQ(RegAPI::RegCloseKey(hive_), 87);
    ExpectAlive();
    EXPECT_EQ(RegAPI::RegCloseKey(root_), 0);
    EXPECT_EQ(RegAPI::RegCloseKey(root_), 0) << "closing a key changes nothing";
    ExpectAlive();
    EXPECT_EQ(RegAPI::RegCloseKey(nullptr), 87);
}

}  // namespace
