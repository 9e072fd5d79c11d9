// Broken and odd hives from other projects' test suites: each must open or be
// refused with a result number, a full walk of it must end, and edits on a
// copy of it must end with result numbers too and leave a hive that opens.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "RegAPI.h"
#include "support/OpenMode.h"
#include "support/TempFile.h"

using namespace RegAPI;
using namespace TamvikTest;
namespace fs = std::filesystem;

namespace {

const std::set<LONG> kResultNumbers = {0, 5, 57, 72, 87, 234, 1015};

// Every file below the damaged folder, the replay logs included (they are no
// hives and must be refused like any other such file).
std::vector<std::string> DamagedFiles() {
    std::vector<std::string> files;
    const std::string shared = SharedHivesDir();
    if (shared.empty() || !fs::is_directory(shared + "/damaged")) return files;
    for (const auto& entry : fs::recursive_directory_iterator(shared + "/damaged"))
        if (entry.is_regular_file()) files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

// A depth-first walk through the public functions, bounded in depth and in
// keys visited, so that lists forming cycles (or one key listed under two
// parents) end it. Collects any result outside the seven numbers.
class BoundedWalk {
public:
    explicit BoundedWalk(int maxKeys = 1500, int maxDepth = 40) : maxKeys_(maxKeys), maxDepth_(maxDepth) {}

    void Hive(HKEY hive) {
        HKEY root = nullptr;
        LONG result = RegOpenKeyExW(hive, u"", 0, 0, &root);
        Check(result, "RegOpenKeyExW root");
        if (result == Result::Ok) Key(root, 0);
    }

    void Key(HKEY key, int depth) {
        if (++keys > maxKeys_) return;
        DWORD subKeys = 0, valueCount = 0;
        Check(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &valueCount, nullptr,
                               nullptr, nullptr, nullptr),
              "RegQueryInfoKeyW");
        for (DWORD i = 0; i < std::min<DWORD>(valueCount, 100); ++i) Value(key, i);
        for (DWORD i = 0; i < std::min<DWORD>(subKeys, 400) && keys <= maxKeys_; ++i) {
            DWORD room = static_cast<DWORD>(name_.size());
            LONG result = RegEnumKeyExW(key, i, name_.data(), &room, nullptr, nullptr, nullptr, nullptr);
            Check(result, "RegEnumKeyExW");
            std::vector<char> narrow(600);
            DWORD narrowRoom = static_cast<DWORD>(narrow.size() - 1);
            Check(RegEnumKeyExA(key, i, narrow.data(), &narrowRoom, nullptr, nullptr, nullptr, nullptr),
                  "RegEnumKeyExA");
            if (result != Result::Ok || room == 0 || depth + 1 >= maxDepth_) continue;
            const std::u16string child(name_.data(), room);
            if (child.find_first_of(std::u16string(u"\\\0", 2)) != std::u16string::npos) continue;
            HKEY opened = nullptr;
            result = RegOpenKeyExW(key, child.c_str(), 0, 0, &opened);
            Check(result, "RegOpenKeyExW");
            if (result == Result::Ok) Key(opened, depth + 1);
        }
    }

    void Check(LONG result, const std::string& call) {
        if (kResultNumbers.count(result) == 0) odd.push_back(call + " gave " + std::to_string(result));
    }

    int keys = 0;
    int values = 0;
    std::vector<std::string> odd;

private:
    void Value(HKEY key, DWORD index) {
        DWORD room = static_cast<DWORD>(name_.size()), size = 0, type = 0;
        LONG result = RegEnumValueW(key, index, name_.data(), &room, nullptr, &type, nullptr, &size);
        Check(result, "RegEnumValueW");
        if (result != Result::Ok) return;
        ++values;
        const std::u16string name(name_.data(), room);
        std::vector<BYTE> data(std::min<DWORD>(size, 1u << 20));
        DWORD given = static_cast<DWORD>(data.size());
        Check(RegQueryValueExW(key, name.c_str(), nullptr, &type, data.data(), &given), "RegQueryValueExW");
        std::vector<char> narrowName(2 * name_.size());
        DWORD narrowRoom = static_cast<DWORD>(narrowName.size());
        given = static_cast<DWORD>(data.size());
        Check(RegEnumValueA(key, index, narrowName.data(), &narrowRoom, nullptr, &type, data.data(), &given),
              "RegEnumValueA");
    }

    int maxKeys_;
    int maxDepth_;
    std::vector<WCHAR> name_ = std::vector<WCHAR>(65537);
};

class DamagedHives : public ::testing::Test {
protected:
    void SetUp() override {
        files_ = DamagedFiles();
        if (files_.empty()) GTEST_SKIP() << "shared hives folder (damaged/) not found; nothing to test";
    }
    std::vector<std::string> files_;
};

// Edits on the root key and on its first subkey of each hive: whatever the
// damage, each call ends with a number.
void EditCopy(HKEY hive, BoundedWalk& walk, const std::string& file) {
    HKEY root = nullptr;
    if (RegOpenKeyExW(hive, u"", 0, 0, &root) != Result::Ok) return;
    const BYTE data[40] = {'d', 0, 'a', 0, 't', 0, 'a', 0};
    HKEY created = nullptr;
    walk.Check(RegCreateKeyExA(root, "TamvikNew", &created), file + ": RegCreateKeyExA");
    walk.Check(RegSetValueNewW(root, u"TamvikValue", 0, 1, data, sizeof data), file + ": RegSetValueNewW");
    walk.Check(RegSetValueExW(root, u"TamvikValue", 0, 1, data, 10), file + ": RegSetValueExW");
    walk.Check(RegSetValueNewA(root, "TamvikNarrow", 0, 1, data, 4), file + ": RegSetValueNewA");
    walk.Check(RegDeleteValueW(root, u"TamvikValue"), file + ": RegDeleteValueW");
    walk.Check(RegDeleteKeyA(root, "TamvikNew"), file + ": RegDeleteKeyA");

    // The first subkey: its first value is rewritten with its own type, then
    // deleted, and then the subkey itself goes if it has no subkeys.
    std::vector<WCHAR> name(65537);
    DWORD room = static_cast<DWORD>(name.size());
    if (RegEnumKeyExW(root, 0, name.data(), &room, nullptr, nullptr, nullptr, nullptr) != Result::Ok) return;
    const std::u16string childName(name.data(), room);
    if (childName.empty() || childName.find_first_of(std::u16string(u"\\\0", 2)) != std::u16string::npos) return;
    HKEY child = nullptr;
    if (RegOpenKeyExW(root, childName.c_str(), 0, 0, &child) != Result::Ok) return;
    room = static_cast<DWORD>(name.size());
    DWORD type = 0, size = 0;
    if (RegEnumValueW(child, 0, name.data(), &room, nullptr, &type, nullptr, &size) == Result::Ok) {
        const std::u16string valueName(name.data(), room);
        std::vector<BYTE> fresh(std::max<DWORD>(std::min<DWORD>(size, 70000), 1), 0x42);
        walk.Check(RegSetValueExW(child, valueName.c_str(), 0, type, fresh.data(), static_cast<DWORD>(fresh.size())),
                   file + ": RegSetValueExW existing");
        walk.Check(RegDeleteValueW(child, valueName.c_str()), file + ": RegDeleteValueW existing");
    }
    walk.Check(RegDeleteKeyW(root, childName.c_str()), file + ": RegDeleteKeyW existing");
}

}  // namespace

// Each file opens (0), or is refused as no hive (5); 87 only for a file that
// can't be opened at all. An opened one walks to its end and closes.
TEST_F(DamagedHives, EachOpensOrIsRefusedAndItsWalkEnds) {
    for (const std::string& path : files_) {
        SCOPED_TRACE(path);
        HKEY hive = nullptr;
        const LONG opened = OpenTestHive(path, &hive, /*readOnly=*/true);
        EXPECT_TRUE(opened == Result::Ok || opened == Result::HiveRefused || opened == Result::Invalid) << opened;
        if (opened != Result::Ok) continue;
        BoundedWalk walk;
        walk.Hive(hive);
        EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
        EXPECT_EQ(CloseTestHive(&hive), Result::Ok);
    }
}

// Base blocks whose signature or checksum is wrong are refused; the files
// that differ from a sound hive only behind the base block open.
TEST_F(DamagedHives, RefusalFollowsTheBaseBlockAlone) {
    const std::string dir = SharedHivesDir() + "/damaged/";
    auto openResult = [&](const std::string& name) {
        HKEY hive = nullptr;
        LONG result = OpenTestHive(dir + name, &hive, /*readOnly=*/true);
        if (result == Result::Ok) CloseTestHive(&hive);
        return result;
    };
    for (const char* refused : {"EZ-Registry__SAN_OTHER", "yarp__BadBaseBlockHive/BadBaseBlockHive",
                                "yarp__GarbageHive", "yarp__EffectiveSizeHive", "yarp__TruncatedHiveBin",
                                "nt-hive2__NewDirtyHive.clean1"})
        EXPECT_EQ(openResult(refused), Result::HiveRefused) << refused;
    for (const char* opens : {"yarp__TruncatedHive", "yarp__TruncatedNameHive", "plaso__corrupt_sub_key_list.hiv",
                              "yarp__DuplicateSubkeysHive", "EZ-Registry__SAMBadHBinHeader"})
        EXPECT_EQ(openResult(opens), Result::Ok) << opens;
}

// Edits on a copy of each openable file end with result numbers, the walk
// after them ends, and the copy still opens: every edit writes a fresh base
// block. The original files are never opened for writing.
TEST_F(DamagedHives, EditsOnCopiesEnd) {
    for (const std::string& path : files_) {
        SCOPED_TRACE(path);
        TempFile copy = TempFile::CopyOf(path);
        HKEY hive = nullptr;
        if (OpenTestHive(copy.Path(), &hive) != Result::Ok) continue;
        BoundedWalk walk(600);
        EditCopy(hive, walk, path);
        walk.Hive(hive);
        EXPECT_TRUE(walk.odd.empty()) << walk.odd.front();
        EXPECT_EQ(CloseTestHive(&hive), Result::Ok);
        EXPECT_EQ(OpenTestHive(copy.Path(), &hive, /*readOnly=*/true), Result::Ok);
        if (hive != nullptr) {
            BoundedWalk again(600);
            again.Hive(hive);
            EXPECT_TRUE(again.odd.empty()) << again.odd.front();
            CloseTestHive(&hive);
        }
    }
}
