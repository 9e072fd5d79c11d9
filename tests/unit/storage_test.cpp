// Guards the storage of hives in files: what a call changed is in the file
// when it returns, the free space index finds exactly the cell the walk from
// the first bin finds, a file that can't grow loses nothing, and a read-only
// hive is never written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <clocale>
#include <functional>
#include <optional>
#include <random>

#include "nodes/CaseRun.h"
#include "store/Allocator.h"
#include "store/Hive.h"
#include "store/NameIndex.h"
#include "store/VolumeStorage.h"
#include "support/Device.h"
#include "support/Fixture.h"
#include "support/Listing.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;

Tamvik::Hive* Behind(HKEY hive) { return dynamic_cast<Tamvik::Hive*>(reinterpret_cast<Tamvik::Node*>(hive)); }

// Runs body in a child process and gives its exit status; the child never
// returns into the test.
int InChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Bytes SmallHive(std::int64_t claimedBinsSize = -1) {
    HiveBuilder builder;
    builder.AddTree(TreeKey{"Root", {}, {TreeKey{"Data", {{"V", 4, {1, 0, 0, 0}}}}}});
    builder.SetBinsSize(claimedBinsSize);
    return builder.Build();
}

// A process that dies right after a call returned leaves what the call did in
// the file: no close, no flush, no destructor runs.
TEST(Storage, WhatACallReportedDoneOutlivesTheProcess) {
    if (VolumeMode()) GTEST_SKIP() << "a device writes through as it is asked";
    TempFile file(SmallHive());
    const BYTE data[6] = {'s', 0, 'e', 0, 't', 0};
    const int status = InChild([&] {
        HKEY hive = nullptr, key = nullptr, made = nullptr;
        if (OpenHiveW(file.WidePath().c_str(), &hive, false) != Result::Ok) return 10;
        if (RegOpenKeyExW(hive, u"R\\Data", 0, 0, &key) != Result::Ok) return 11;
        if (RegSetValueNewW(key, u"Kept", 0, 1, data, sizeof data) != Result::Ok) return 12;
        if (RegCreateKeyExW(key, u"Made", &made) != Result::Ok) return 13;
        if (RegDeleteValueW(key, u"V") != Result::Ok) return 14;
        return 0;
    });
    ASSERT_EQ(status, 0);
    const Listing listing = ListFile(file.Path());
    EXPECT_TRUE(listing.problems.empty());
    EXPECT_EQ(listing.lines, (std::vector<std::string>{"K\t\\", "K\t\\Data", "V\t\\Data\tKept\t1\t730065007400",
                                                       "K\t\\Data\\Made"}));
}

// Keeps a child's files from growing, in one of two ways: a size limit on the
// process, or a full disk (a small file system mounted where only the child
// sees it, which needs root: false then). path is the file to edit, set to a
// copy on that file system.
bool SizeLimit(std::string&, std::uint64_t size) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{size, size};
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}
bool FullDisk(std::string& path, std::uint64_t) {
    const std::string dir = path + ".disk", copy = dir + "/hive";
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mkdir(dir.c_str(), 0700) != 0 || mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256k") != 0)
        return false;
    const Bytes bytes = ReadFileBytes(path);
    FILE* hive = fopen(copy.c_str(), "wb");
    FILE* filler = fopen((dir + "/filler").c_str(), "wb");
    const bool copied =
        hive != nullptr && fwrite(bytes.data(), 1, bytes.size(), hive) == bytes.size() && fclose(hive) == 0;
    setvbuf(filler, nullptr, _IONBF, 0);
    const Bytes block(512, 0);
    while (fwrite(block.data(), 1, block.size(), filler) == block.size()) {
    }
    fclose(filler);
    path = copy;
    return copied;
}

// A file that can't grow refuses the new bin; the edit fails, the file and
// what later reads see stay as they were, and an edit that fits still works.
// With bytes behind the bins, the new bin first lands on them and is then
// refused past the end: those bytes must come back. A header that claims bins
// far past the file's end puts the new bin there: refused, it must not have
// cost memory for the whole distance.
TEST(Storage, AFileThatCantGrowLosesNothing) {
    if (VolumeMode()) GTEST_SKIP() << "the device's refusals are tested with the volume";
    for (const auto limit : {SizeLimit, FullDisk})
        for (const auto& [behind, claimed] :
             {std::pair<std::size_t, std::int64_t>{0, -1}, {4096, -1}, {0, 0x70000000}}) {
            SCOPED_TRACE(std::to_string(limit == FullDisk) + " " + std::to_string(behind + claimed));
            Bytes before = SmallHive(claimed);
            for (std::size_t i = 0; i < behind; ++i) before.push_back(static_cast<std::uint8_t>(i * 7 + 1));
            TempFile file(before);
            const Bytes big(40000, 7);
            const BYTE small[4] = {9, 9, 9, 9};
            const int status = InChild([&] {
                std::string path = file.Path();
                if (!limit(path, before.size())) return 99;
                rusage usage{};
                getrusage(RUSAGE_SELF, &usage);
                const long startKiB = usage.ru_maxrss;
                HKEY hive = nullptr, key = nullptr;
                if (OpenHiveA(path.c_str(), &hive, false) != Result::Ok) return 21;
                if (RegOpenKeyExW(hive, u"R\\Data", 0, 0, &key) != Result::Ok) return 22;
                if (RegSetValueNewW(key, u"Big", 0, 3, big.data(), static_cast<DWORD>(big.size())) != Result::Invalid)
                    return 23;
                DWORD size = 0;
                if (RegQueryValueExW(key, u"Big", nullptr, nullptr, nullptr, &size) != Result::Invalid) return 24;
                if (RegSetValueNewW(key, u"Small", 0, 3, small, sizeof small) != Result::Ok) return 25;
                getrusage(RUSAGE_SELF, &usage);
                if (usage.ru_maxrss - startKiB > (1 << 20)) return 27;  // a GiB: far below the distance
                if (CloseHive(&hive) != Result::Ok) return 26;
                if (path != file.Path()) file.Write(ReadFileBytes(path));  // out of the child's file system
                return 0;
            });
            if (status == 99 && limit == FullDisk)
                GTEST_SKIP() << "a full disk needs root, to mount a small file system";
            ASSERT_EQ(status, 0);
            const Bytes after = file.Read();
            ASSERT_EQ(after.size(), before.size());
            EXPECT_TRUE(std::equal(after.end() - static_cast<std::ptrdiff_t>(behind), after.end(),
                                   before.end() - static_cast<std::ptrdiff_t>(behind)));
            EXPECT_EQ(ListFile(file.Path()).lines.back(), "V\t\\Data\tSmall\t3\t09090909");
        }
}

// A new bin that lands on bytes behind the bins holds zeros where it has no
// cells, as one written past the file's end does: a mapped file's growth
// copies only the cells and leaves the zeros to the reserve.
TEST(Storage, ANewBinOverBytesBehindTheBinsHoldsZeros) {
    std::vector<Bytes> bins;
    for (const std::size_t behind : {0, 6144, 65536}) {  // none, shorter than the new bin, longer
        Bytes before = SmallHive();
        const std::size_t binsEnd = before.size();
        for (std::size_t i = 0; i < behind; ++i) before.push_back(static_cast<std::uint8_t>(i * 7 + 1));
        TempFile file(before);
        HKEY hive = nullptr, key = nullptr;
        ASSERT_EQ(OpenHiveA(file.Path().c_str(), &hive, false), Result::Ok);
        ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &key), Result::Ok);
        const Bytes data(5000, 7);  // more than the first bin holds: a bin of two pages, mostly free
        ASSERT_EQ(RegSetValueNewW(key, u"Big", 0, 3, data.data(), static_cast<DWORD>(data.size())), Result::Ok);
        ASSERT_EQ(CloseHive(&hive), Result::Ok);
        const Bytes after = file.Read();
        ASSERT_GE(after.size(), binsEnd + 8192);
        bins.emplace_back(after.begin() + static_cast<std::ptrdiff_t>(binsEnd + 32),  // past the new bin's header
                          after.begin() + static_cast<std::ptrdiff_t>(binsEnd + 8192));
    }
    EXPECT_EQ(bins[1], bins[0]);
    EXPECT_EQ(bins[2], bins[0]);
    EXPECT_EQ(bins[0].back(), 0);
}

// A hive opened read-only is never written: whatever its edits answer, after
// the close the file has its bytes and its time as before. Its keys still
// take the edits in memory.
TEST(Storage, AReadOnlyHiveIsNeverWritten) {
    if (VolumeMode()) GTEST_SKIP() << "a volume opens writable";
    TempFile file(SmallHive());
    const timespec past[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.Path().c_str(), past, 0), 0);
    const Bytes before = file.Read();
    HKEY hive = nullptr, key = nullptr, made = nullptr;
    ASSERT_EQ(OpenHiveW(file.WidePath().c_str(), &hive, true), Result::Ok);
    ASSERT_EQ(RegOpenKeyExW(hive, u"R\\Data", 0, 0, &key), Result::Ok);
    const BYTE data[4] = {1, 2, 3, 4};
    RegSetValueNewW(key, u"V", 0, 3, data, sizeof data);
    RegCreateKeyExW(key, u"Made", &made);
    DWORD values[2] = {};
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values[0], nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(RegDeleteValueW(key, u"V"), Result::Ok);
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values[1], nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(values[1] + 1, values[0]) << "the handle's key forgets the value in memory";
    RegDeleteKeyW(key, u"");
    EXPECT_EQ(CloseHive(&hive), Result::Ok);
    struct stat info {};
    ASSERT_EQ(stat(file.Path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mtim.tv_sec, past[1].tv_sec);
    EXPECT_EQ(file.Read(), before);
}

// What a key's node learnt of its list holds only while the file stays: here
// a key deleted and another made through a second handle take the first one's
// cell, and a lookup through the first handle's older list finds the new name
// there, as reading the list afresh does.
TEST(Storage, LookupsAnswerForTheFileAsItIsNow) {
    HiveBuilder builder;
    builder.AddTree(TreeKey{"Root"});
    TestHive test(builder);
    HKEY made = nullptr, a = nullptr, c = nullptr, seen = nullptr, found = nullptr, e = nullptr;
    ASSERT_EQ(RegCreateKeyExW(test.Key(), u"X", &made), Result::Ok);
    ASSERT_EQ(RegCreateKeyExW(made, u"C", &c) + RegCreateKeyExW(made, u"A", &a), Result::Ok);
    ASSERT_EQ(RegOpenKeyExW(test.hive, u"R\\X", 0, 0, &seen), Result::Ok);
    ASSERT_EQ(RegOpenKeyExW(seen, u"C", 0, 0, &found), Result::Ok);
    const std::uint32_t cOffset = reinterpret_cast<Tamvik::Node*>(found)->GetOffset();
    ASSERT_EQ(RegDeleteKeyW(made, u"C"), Result::Ok);
    ASSERT_EQ(RegCreateKeyExW(made, u"E", &e), Result::Ok);
    ASSERT_EQ(reinterpret_cast<Tamvik::Node*>(e)->GetOffset(), cOffset) << "E takes C's cell";
    EXPECT_EQ(RegOpenKeyExW(seen, u"E", 0, 0, &found), Result::Ok);
}

// Names compare under the locale in force at each call, and what a list
// learnt of its names under other rules is not trusted: a lookup that needs
// its case rules fails in C, finds the key in C.utf8, and fails again in C.
TEST(Storage, LookupsFollowTheLocaleFromCallToCall) {
    TreeKey root{"Root", {}, {TreeKey{"\xE9"}}};  // é, stored compressed, among enough keys for an index
    for (int i = 0; i < 40; ++i) root.subkeys.push_back(TreeKey{"k" + std::to_string(i)});
    HiveBuilder builder;
    builder.AddTree(root);
    TestHive test(builder);
    for (const char* locale : {"C", "C.utf8", "C"}) {
        if (std::setlocale(LC_CTYPE, locale) == nullptr) GTEST_SKIP() << "no " << locale << " locale here";
        HKEY found = nullptr;
        EXPECT_EQ(RegOpenKeyExW(test.Key(), u"\u00C9", 0, 0, &found) == Result::Ok, locale[1] != 0) << locale;
    }
}

// The bulk name runs give what the case map gives unit by unit, at every
// length around the eight-unit steps, with units past ASCII anywhere.
TEST(Storage, NameRunsAgreeWithTheCaseMap) {
    std::mt19937 random(7);
    const char16_t pool[] = {u'a', u'z', u'A', u'Q', u'0', u'\\', u'`', u'{', u'@', u'[', 0x7F, 0xE9, 0xFF, 0x130, 0x3B1};
    for (const char* locale : {"C", "C.utf8"}) {
        if (std::setlocale(LC_CTYPE, locale) == nullptr) continue;
        const Tamvik::CaseRulesHold rules;
        const Tamvik::CaseMap& map = Tamvik::CurrentCaseMap();
        for (int round = 0; round < 400; ++round) {
            const std::size_t length = round % 21;
            const bool narrow = round % 2 == 0;  // bytes only: the pool's first 13
            std::u16string in(length, 0), upper(length, 0), out(length + 1, u'#');
            std::vector<std::uint8_t> bytes(length);
            for (std::size_t i = 0; i < length; ++i) {
                in[i] = pool[random() % (narrow ? 13 : std::size(pool))];
                bytes[i] = static_cast<std::uint8_t>(in[i]);
                upper[i] = map.Upper(in[i]);
            }
            const bool slash = upper.find(u'\\') != std::u16string::npos;
            EXPECT_EQ(Tamvik::UpperRun(map, in.data(), length, out.data(), u'\\'), slash) << locale << round;
            EXPECT_EQ(out, upper + u'#') << locale << round;
            if (!narrow) continue;
            Tamvik::WidenRun(bytes.data(), length, out.data());
            EXPECT_EQ(out, in + u'#') << round;
            EXPECT_TRUE(Tamvik::NarrowRunMatches(map, bytes.data(), length, upper.data())) << locale << round;
            for (std::size_t i = 0; i < length; ++i) {
                std::u16string other = upper;
                other[i] = in[i] == upper[i] ? (in[i] == u'a' ? u'B' : u'a') : in[i];
                EXPECT_FALSE(Tamvik::NarrowRunMatches(map, bytes.data(), length, other.data())) << locale << round << i;
            }
        }
    }
    std::setlocale(LC_CTYPE, "C");
}

// A list's learnt names point each hash at the first position that had it,
// from the first few names through every growth of the table, and forget
// them all when cleared; a wrong position costs a whole scan.
TEST(Storage, TheNameIndexPointsAtFirstPositions) {
    Tamvik::NameIndex index;
    const auto hashOf = [](std::uint32_t i) { return std::uint64_t{i} * 0x9E3779B97F4A7C15ull; };
    for (std::uint32_t i = 0; i < 300; ++i) {
        index.Add(hashOf(i), i);
        index.Add(hashOf(i / 2), 1000 + i);  // a hash met before: its first position stays
    }
    for (std::uint32_t i = 0; i < 300; ++i) ASSERT_EQ(index.Find(hashOf(i)), i);
    EXPECT_FALSE(index.Find(hashOf(300)));
    index.Clear();
    EXPECT_FALSE(index.Find(hashOf(1)));
    index.Add(hashOf(1), 5);
    EXPECT_EQ(index.Find(hashOf(1)), 5u);
}

// The first fit as the walk from the first bin finds it, worked out from the
// bytes alone: the cell offset for a cell of need bytes, or none.
std::optional<std::uint32_t> ReferenceFirstFit(const std::uint8_t* file, std::uint64_t fileSize, std::uint32_t need) {
    auto word = [&](std::uint64_t at) {
        std::uint32_t value = 0;
        for (int i = 3; i >= 0; --i) value = value << 8 | (at + i < fileSize ? file[at + i] : 0);
        return value;
    };
    const std::uint64_t binsSize = word(0x28);
    for (std::uint64_t bin = 0; bin < binsSize;) {
        const std::uint64_t at = 4096 + bin;
        const std::uint32_t binSize = word(at + 8);
        if (word(at) != 0x6E696268 || word(at + 4) != bin || binSize == 0 || at + binSize > fileSize) return {};
        for (std::uint64_t position = 32; position + 4 <= binSize;) {
            const auto size = static_cast<std::int32_t>(word(at + position));
            if (size == 0) break;
            const std::uint32_t magnitude = size < 0 ? 0u - static_cast<std::uint32_t>(size) : size;
            const std::uint32_t rest = magnitude - need;
            if (size > 0 && magnitude >= need && position + magnitude <= binSize && (rest % 8 == 0 || rest == 4))
                return static_cast<std::uint32_t>(bin + position);
            position += magnitude;
        }
        bin += binSize;
    }
    return {};
}

// Bins of three sizes holding free cells of every kind: multiples of 8, cells
// of 8k + 4, and bins without room.
Bytes ScatteredHive() {
    HiveBuilder builder;
    builder.AddTree(TreeKey{"Root", {}, {TreeKey{"A"}}});
    std::mt19937 random(11);
    for (int bin = 0; bin < 40; ++bin) {
        builder.AddBin(4096 * (1 + bin % 3));
        for (int cell = 0; cell < 6; ++cell) {
            const std::uint32_t size = 8 * (1 + random() % 60) + (random() % 4 == 0 ? 4 : 0);
            builder.AddCells({random() % 2 == 0 ? -static_cast<std::int32_t>(size) : static_cast<std::int32_t>(size)});
        }
        builder.CloseBin(bin % 5 == 0);
    }
    return builder.Build();
}

// One seeded script of cells made and released; at each new cell the index
// must give the reference walk's cell (or a new bin where the walk finds
// none).
void RunScript(HKEY handle, std::uint32_t seed, int steps) {
    Tamvik::Hive* hive = Behind(handle);
    std::mt19937 random(seed);
    std::vector<std::uint32_t> made;
    for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
        if (!made.empty() && random() % 5 < 2) {
            const std::size_t pick = random() % made.size();
            Tamvik::FreeCellAt(hive, made[pick]);
            made.erase(made.begin() + static_cast<std::ptrdiff_t>(pick));
            continue;
        }
        const std::uint32_t asked = random() % 8 == 0 ? 4000 + random() % 9000 : random() % 400;
        const std::uint32_t binsSize = hive->BinsSize();
        std::optional<std::uint32_t> expected;
        if (hive->Image() != nullptr)
            expected = ReferenceFirstFit(hive->Image()->At(0, 0), hive->Image()->Size(), Tamvik::NeedFor(asked));
        const std::uint32_t cell = Tamvik::CreateCell(hive, asked, [&](std::uint8_t* record, std::uint32_t room) {
            for (std::uint32_t i = 0; i < room; ++i) record[i] = static_cast<std::uint8_t>(step + i);
        });
        EXPECT_NE(cell, 0u) << "step " << step;
        if (hive->Image() != nullptr) {
            EXPECT_EQ(cell, expected.value_or(binsSize + 32)) << "step " << step;
        }
        made.push_back(cell);
    }
    hive->Flush();
}

// The index against the walk: on a hive of scattered free cells (and the same
// script through a volume, whose walk is literal, to the same bytes), and on
// a real hive with its own history of free space.
TEST(Storage, TheFreeSpaceIndexFindsTheFirstFit) {
    if (VolumeMode()) GTEST_SKIP() << "the volume runs inside this test";
    for (const std::uint32_t seed : {1u, 2u, 3u}) {
        TestHive indexed(ScatteredHive());
        ASSERT_EQ(indexed.openResult, Result::Ok);
        RunScript(indexed.hive, seed, 600);
        indexed.Close();
        TempFile literal(ScatteredHive());
        TestDevice device;
        HKEY hive = nullptr;
        ASSERT_EQ(OpenHiveByVolumeW(literal.WidePath().c_str(), &device, &hive), Result::Ok);
        RunScript(hive, seed, 600);
        ASSERT_EQ(CloseHiveByVolume(&hive, &device), Result::Ok);
        Tamvik::currentDevice = nullptr;
        EXPECT_EQ(Image(indexed.Disk()).WithoutBinTimes(), Image(literal.Read()).WithoutBinTimes()) << "seed " << seed;
    }
    if (SharedHives().empty()) GTEST_SKIP() << "../shared/hives is absent: the real hive part is skipped";
    TestHive real(ReadFileBytes(SharedHives() + "/clean/dfwinreg__SYSTEM"));
    ASSERT_EQ(real.openResult, Result::Ok);
    RunScript(real.hive, 4, 3000);
}

}  // namespace

// Which watched cells a write marks: those it overlaps, overlapping cells
// included, none it only touches; more marks than cells stand for all.
TEST(Storage, AWriteWatchMarksTheCellsAWriteReaches) {
    Tamvik::WriteWatch watch;
    for (auto [cell, length] : {std::pair{100u, 20u}, {200u, 8u}, {96u, 40u}, {8192u, 12u}}) watch.Add(cell, length);
    const struct {
        std::uint64_t offset, length;
        std::vector<std::uint32_t> marked;
    } writes[] = {{120, 80, {96}}, {199, 1, {}}, {207, 10, {200}}, {0, 97, {96}},   {130, 100, {96, 200}},
                  {8190, 2, {}},   {8203, 1, {8192}}, {4096, 4096, {}}, {8, 0, {}}, {0, 1u << 20, {96, 100, 200, 8192}}};
    for (const auto& w : writes) {
        watch.Written(w.offset, w.length);
        std::vector<std::uint32_t> marked;
        EXPECT_FALSE(watch.TakeMarks(marked)) << w.offset;
        std::sort(marked.begin(), marked.end());
        EXPECT_EQ(marked, w.marked) << w.offset << "+" << w.length;
    }
    for (int i = 0; i < 5; ++i) watch.Written(100, 1);
    std::vector<std::uint32_t> marked;
    EXPECT_TRUE(watch.TakeMarks(marked));
    watch.Clear();
    watch.Written(100, 1);
    EXPECT_FALSE(watch.TakeMarks(marked));
    EXPECT_TRUE(marked.empty());
}
