// Dirty hives and their transaction logs, through the tamvik tool: replays of
// the real dirty hives against the hives Windows made of them (as hivex and
// libregf read both), replays over damaged logs that must stop and write
// nothing, what info and check say, and the refusal of every editing command.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "store/ByteOrder.h"
#include "support/Files.h"
#include "support/Peers.h"
#include "support/ToolRun.h"
#include "tools/tamvik/logs/Marvin32.h"

namespace {

namespace fs = std::filesystem;
using TamvikTest::Bytes;
using TamvikTest::Capture;
using TamvikTest::Quoted;
using TamvikTest::ReadFileBytes;

constexpr std::size_t kEntryHeader = 40;

std::uint32_t U32(const Bytes& b, std::size_t at) { return Tamvik::LoadU32(&b.at(at + 3) - 3); }
std::uint64_t U64(const Bytes& b, std::size_t at) { return U32(b, at) | static_cast<std::uint64_t>(U32(b, at + 4)) << 32; }
void Put32(Bytes& b, std::size_t at, std::uint32_t v) { Tamvik::StoreU32(&b.at(at + 3) - 3, v); }
void Put64(Bytes& b, std::size_t at, std::uint64_t v) { Tamvik::StoreU64(&b.at(at + 7) - 7, v); }
void WriteBytes(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
// Applies change to the bytes of a file.
void Alter(const std::string& path, const std::function<void(Bytes&)>& change) {
    Bytes b = ReadFileBytes(path);
    change(b);
    WriteBytes(path, b);
}

// Outputs are compared with the tool's stdout and stderr together.
struct Outcome {
    int status;
    std::string text;
};

class ReplayTest : public TamvikTest::ToolTest {
protected:
    // The real hives are needed: skips the test when they are absent.
    bool NeedShared() {
        shared_ = TamvikTest::SharedHives();
        return !shared_.empty();
    }
    std::string Damaged(const std::string& path) const { return shared_ + "/damaged/" + path; }

    // Copies a file of the damaged folder into the scratch folder as name.
    std::string Stage(const std::string& from, const std::string& name) const {
        fs::copy_file(Damaged(from), At(name), fs::copy_options::overwrite_existing);
        fs::permissions(At(name), fs::perms::owner_read | fs::perms::owner_write);
        return At(name);
    }
    std::string StageNewDirty() const {
        for (const char* suffix : {".LOG1", ".LOG2"})
            Stage(std::string("yarp__NewDirtyHive1/NewDirtyHive") + suffix, std::string("NewDirtyHive") + suffix);
        return Stage("yarp__NewDirtyHive1/NewDirtyHive", "NewDirtyHive");
    }

    Outcome Tool(const std::vector<std::string>& args) const {
        const TamvikTest::ToolRun run = Cli(args);
        return {run.status, run.Text()};
    }
    // The listing of a hive as a peer reads it, complaints included.
    static std::string Listing(const std::string& reader, const std::string& hive) {
        const TamvikTest::PeerListing peer = TamvikTest::RunPeer(reader, hive);
        std::string text;
        for (const auto* lines : {&peer.lines, &peer.errors})
            for (const std::string& line : *lines) text += line + "\n";
        return text;
    }
    // Files of the scratch folder whose name holds part.
    std::vector<std::string> FilesWith(const std::string& part) const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir))
            if (entry.path().filename().string().find(part) != std::string::npos)
                names.push_back(entry.path().filename().string());
        return names;
    }

    std::string shared_;
};

// --- Marvin32 -----------------------------------------------------------------

TEST_F(ReplayTest, Marvin32GivesBothHashesStoredInEveryEntryOfTheRealLogs) {
    if (!NeedShared()) GTEST_SKIP() << "../shared/hives is absent";
    int entries = 0;
    for (const char* name : {"NewDirtyHive.LOG1", "NewDirtyHive.LOG2"}) {
        const Bytes log = ReadFileBytes(Damaged(std::string("yarp__NewDirtyHive1/") + name));
        for (std::size_t at = 512; at + kEntryHeader <= log.size() && std::memcmp(&log[at], "HvLE", 4) == 0;
             at += U32(log, at + 4)) {
            const std::uint32_t size = U32(log, at + 4);
            ASSERT_TRUE(size >= kEntryHeader && at + size <= log.size()) << name << " at " << at;
            EXPECT_EQ(TamvikLogs::Marvin32(&log[at + kEntryHeader], size - kEntryHeader), U64(log, at + 24)) << name;
            EXPECT_EQ(TamvikLogs::Marvin32(&log[at], 32), U64(log, at + 32)) << name << " at " << at;
            ++entries;
        }
    }
    EXPECT_EQ(entries, 4);
}

// --- the real dirty hives against Windows' own replay -----------------------

struct RealCase {
    const char* name;
    const char* folder;
    const char* hive;
    std::vector<std::pair<const char*, const char*>> logs;  // file there, name staged
    const char* windows;                                    // the hive Windows made
    std::size_t truncateHive = 0;                           // cut the staged hive to this size
    bool sameBytes = false;                                 // the whole file equals Windows'
};

void PrintTo(const RealCase& c, std::ostream* os) { *os << c.name; }

class ReplayRealTest : public ReplayTest, public ::testing::WithParamInterface<RealCase> {};

TEST_P(ReplayRealTest, ListsAsTheHiveWindowsMade) {
    if (!NeedShared()) GTEST_SKIP() << "../shared/hives is absent";
    const RealCase& c = GetParam();
    const std::string hive = Stage(std::string(c.folder) + "/" + c.hive, c.hive);
    for (const auto& [from, name] : c.logs) Stage(std::string(c.folder) + "/" + from, name);
    if (c.truncateHive != 0) fs::resize_file(hive, c.truncateHive);
    const Bytes before = ReadFileBytes(hive);

    const Outcome run = Tool({"replay", hive});
    ASSERT_EQ(run.status, 0) << run.text;
    EXPECT_EQ(ReadFileBytes(hive), before) << "the dirty hive itself must stay as it was";
    const std::string out = hive + ".replayed", windows = Damaged(c.windows);
    if (c.sameBytes) {
        EXPECT_EQ(ReadFileBytes(out), ReadFileBytes(windows)) << "not byte for byte what Windows made";
    }
    if (!TamvikTest::PeersMissing().empty()) GTEST_SKIP() << TamvikTest::PeersMissing();
    for (const char* reader : {"hivex", "libregf"}) {
        const std::string ours = Listing(reader, out);
        EXPECT_EQ(ours.find("#error"), std::string::npos) << reader << ":\n" << ours.substr(0, 2000);
        EXPECT_GT(ours.size(), 10u) << reader;
        EXPECT_TRUE(ours == Listing(reader, windows)) << reader << " lists the replayed hive otherwise than Windows'";
    }
    const Outcome check = Tool({"check", "-q", out});
    EXPECT_EQ(check.status, 0) << check.text;
}

INSTANTIATE_TEST_SUITE_P(
    Replay, ReplayRealTest,
    ::testing::Values(RealCase{"NewFormatAcrossTwoLogs",
                               "yarp__NewDirtyHive1",
                               "NewDirtyHive",
                               {{"NewDirtyHive.LOG1", "NewDirtyHive.LOG1"}, {"NewDirtyHive.LOG2", "NewDirtyHive.LOG2"}},
                               "yarp__NewDirtyHive1/RecoveredHive_Windows10",
                               0,
                               true},
                      RealCase{"OldFormatLogInLowerCase",
                               "yarp__OldDirtyHive",
                               "OldDirtyHive",
                               {{"OldDirtyHive.LOG1", "OldDirtyHive.log1"}},
                               "yarp__OldDirtyHive/RecoveredHive_Windows7"},
                      // The same log as the old-format hive's: Windows' result is that one's.
                      RealCase{"GarbageBaseBlockFromTheLog",
                               "yarp__BadBaseBlockHive",
                               "BadBaseBlockHive",
                               {{"BadBaseBlockHive.LOG1", "BadBaseBlockHive.LOG1"}},
                               "yarp__OldDirtyHive/RecoveredHive_Windows7"},
                      // Entries 2 and 4 rewrite all the bins: the file grows back to them.
                      RealCase{"HiveShorterThanItsLog",
                               "yarp__NewDirtyHive1",
                               "NewDirtyHive",
                               {{"NewDirtyHive.LOG1", "NewDirtyHive.LOG1"}, {"NewDirtyHive.LOG2", "NewDirtyHive.LOG2"}},
                               "yarp__NewDirtyHive1/RecoveredHive_Windows10",
                               12288}),
    [](const auto& info) { return std::string(info.param.name); });

// Windows marks whole 4096-byte blocks dirty, so the real bitmap holds only
// bytes 0x00 and 0xFF. With its last byte made 0x0F only pages 944 to 947 stay
// dirty (the low bits); the log's last four pages are then left over.
TEST_F(ReplayTest, OldFormatBitmapCountsFromTheLowestBitOfEachByte) {
    if (!NeedShared()) GTEST_SKIP() << "../shared/hives is absent";
    const std::string hive = Stage("yarp__OldDirtyHive/OldDirtyHive", "OldDirtyHive");
    const std::string log = Stage("yarp__OldDirtyHive/OldDirtyHive.LOG1", "OldDirtyHive.LOG1");
    Alter(log, [](Bytes& b) { b[512 + 4 + 118] = 0x0F; });
    const Outcome run = Tool({"replay", hive});
    ASSERT_EQ(run.status, 0) << run.text;
    const Bytes out = ReadFileBytes(hive + ".replayed"), primary = ReadFileBytes(hive), logged = ReadFileBytes(log);
    const std::size_t page944 = 4096 + 944 * 512, page948 = page944 + 4 * 512, logPage56 = 1024 + 56 * 512;
    EXPECT_TRUE(std::equal(&out[page944], &out[page948], &logged[logPage56]));
    EXPECT_TRUE(std::equal(&out[page948], &out[page948 + 2048], &primary[page948]));
}

// --- damaged and missing logs ---------------------------------------------------

struct DamageCase {
    const char* name;
    const char* hive;  // staged with its logs
    std::function<void(const std::string& dir)> damage;
    const char* message;
    bool partialWrites;  // --partial writes what comes before the break
};

// Offsets of the entries of NewDirtyHive.LOG2 (sequence 3, 4, 5).
constexpr std::size_t kEntry4 = 0x2000, kEntry5 = 0x8000, kEntry5Size = 0x2000;

void PrintTo(const DamageCase& c, std::ostream* os) { *os << c.name; }

class ReplayDamageTest : public ReplayTest, public ::testing::WithParamInterface<DamageCase> {};

TEST_P(ReplayDamageTest, StopsWithAClearMessageAndWritesNothing) {
    if (!NeedShared()) GTEST_SKIP() << "../shared/hives is absent";
    const DamageCase& c = GetParam();
    StageNewDirty();
    Stage("yarp__OldDirtyHive/OldDirtyHive", "OldDirtyHive");
    Stage("yarp__OldDirtyHive/OldDirtyHive.LOG1", "OldDirtyHive.LOG1");
    c.damage(dir.string());
    const std::string hive = At(c.hive);

    const Outcome run = Tool({"replay", hive});
    EXPECT_EQ(run.status, 1) << run.text;
    EXPECT_NE(run.text.find(c.message), std::string::npos) << run.text;
    EXPECT_NE(run.text.find("no file written"), std::string::npos) << run.text;
    EXPECT_TRUE(FilesWith(".replayed").empty());
    EXPECT_TRUE(FilesWith(".tmp-").empty());

    const Outcome partial = Tool({"replay", "--partial", hive});
    EXPECT_EQ(partial.status, c.partialWrites ? 0 : 1) << partial.text;
    EXPECT_EQ(fs::exists(hive + ".replayed"), c.partialWrites);
    if (c.partialWrites) {
        EXPECT_EQ(Tool({"check", "-q", hive + ".replayed"}).status, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Replay, ReplayDamageTest,
    ::testing::Values(
        DamageCase{
            "WrongEntryHash", "NewDirtyHive",
            [](const std::string& d) { Alter(d + "/NewDirtyHive.LOG2", [](Bytes& b) { b[kEntry4 + 300] ^= 1; }); },
            "(sequence 4): hash-1 is wrong", true},
        DamageCase{"SequenceSkips", "NewDirtyHive",
                   [](const std::string& d) {
                       Alter(d + "/NewDirtyHive.LOG2", [](Bytes& b) {
                           std::memmove(&b[kEntry4], &b[kEntry5], kEntry5Size);  // 3, 5: entry 4 is gone
                       });
                   },
                   "the sequence numbers skip from 3 to 5", true},
        DamageCase{"TruncatedLog", "NewDirtyHive",
                   [](const std::string& d) { fs::resize_file(d + "/NewDirtyHive.LOG2", kEntry4 + 12000); },
                   "the log is truncated", true},
        DamageCase{"FirstLogMissing", "NewDirtyHive",
                   [](const std::string& d) { fs::remove(d + "/NewDirtyHive.LOG1"); }, "a log is missing", true},
        DamageCase{"AnotherHivesLog", "NewDirtyHive",
                   [](const std::string& d) {
                       fs::remove(d + "/NewDirtyHive.LOG2");
                       fs::copy_file(d + "/OldDirtyHive.LOG1", d + "/NewDirtyHive.LOG1",
                                     fs::copy_options::overwrite_existing);
                   },
                   "its timestamp differs from the hive's", false},
        DamageCase{"LogsAbsent", "NewDirtyHive",
                   [](const std::string& d) {
                       fs::remove(d + "/NewDirtyHive.LOG1");
                       fs::remove(d + "/NewDirtyHive.LOG2");
                   },
                   "no logs beside it", false},
        DamageCase{"TruncatedOldLog", "OldDirtyHive",
                   [](const std::string& d) { fs::resize_file(d + "/OldDirtyHive.LOG1", 20000); },
                   "64 dirty pages, the file holds 37", false},
        // The last entry claims 0x9000 bytes of bins but brings none past
        // 0x5000; its hashes are made anew, so only the bins betray it.
        DamageCase{"LogLargerThanItsHive", "NewDirtyHive",
                   [](const std::string& d) {
                       Alter(d + "/NewDirtyHive.LOG2", [](Bytes& b) {
                           Put32(b, kEntry5 + 16, 0x9000);
                           Put64(b, kEntry5 + 32, TamvikLogs::Marvin32(&b[kEntry5], 32));
                       });
                   },
                   "the bin at 0x5000 is broken", false}),
    [](const auto& info) { return std::string(info.param.name); });

// --- info, check and the output file -----------------------------------------

TEST_F(ReplayTest, InfoAndCheckTellADirtyHiveAndWhatItsLogsHold) {
    if (!NeedShared()) GTEST_SKIP() << "../shared/hives is absent";
    const std::string fresh = StageNewDirty();
    const std::string garbage = Stage("yarp__BadBaseBlockHive/BadBaseBlockHive", "BadBaseBlockHive");
    Stage("yarp__BadBaseBlockHive/BadBaseBlockHive.LOG1", "BadBaseBlockHive.Log1");
    const std::string clean = Stage("yarp__NewDirtyHive1/RecoveredHive_Windows10", "Recovered");
    const struct {
        std::string hive;
        std::vector<std::string> said;
        int checkStatus;
    } cases[] = {
        {fresh,
         {"dirty           yes: sequence numbers 3 and 2 differ",
          "NewDirtyHive.LOG2: new format, 3 entries of 3 pages; applies 3 entries",
          "replay          would apply 4 entries (sequence 2 to 5, 4 pages)"},
         1},
        {garbage,
         {"dirty           yes: base block checksum is wrong, sequence numbers 5 and 4 differ",
          "BadBaseBlockHive.Log1: old format, 64 dirty pages; applies"},
         1},
        {clean, {"dirty           no"}, 0},
    };
    for (const auto& c : cases) {
        const Outcome info = Tool({"info", c.hive});
        EXPECT_EQ(info.status, 0) << info.text;
        for (const std::string& line : c.said) EXPECT_NE(info.text.find(line), std::string::npos) << info.text;
        const Outcome check = Tool({"check", c.hive});
        EXPECT_EQ(check.status, c.checkStatus) << check.text;
        EXPECT_EQ(check.text.find("tamvik replay") != std::string::npos, c.checkStatus != 0) << check.text;
    }
}

TEST_F(ReplayTest, OutputNeverReplacesAFileUnasked) {
    if (!NeedShared()) GTEST_SKIP() << "../shared/hives is absent";
    const std::string hive = StageNewDirty(), out = At("out.hiv");
    const Bytes dirty = ReadFileBytes(hive);
    ASSERT_EQ(Tool({"replay", hive, "-o", out}).status, 0);
    const Outcome again = Tool({"replay", hive, "-o", out});
    EXPECT_EQ(again.status, 2);
    EXPECT_NE(again.text.find("exists"), std::string::npos) << again.text;
    const Outcome self = Tool({"replay", hive, "-o", hive});
    EXPECT_EQ(self.status, 2);
    EXPECT_NE(self.text.find("is the hive itself"), std::string::npos) << self.text;
    EXPECT_EQ(ReadFileBytes(hive), dirty);

    // Named explicitly and forced, the hive is replaced in place; then it is
    // clean and a replay has nothing to do.
    ASSERT_EQ(Tool({"replay", hive, "-o", hive, "--force"}).status, 0);
    EXPECT_EQ(ReadFileBytes(hive), ReadFileBytes(out));
    const Outcome clean = Tool({"replay", hive});
    EXPECT_EQ(clean.status, 0);
    EXPECT_NE(clean.text.find("nothing to replay"), std::string::npos) << clean.text;
    EXPECT_FALSE(fs::exists(hive + ".replayed"));
    EXPECT_TRUE(FilesWith(".tmp-").empty());
}

// --- editing commands refuse a dirty hive ---------------------------------------

TEST_F(ReplayTest, EveryEditingCommandRefusesADirtyHiveUnlessForced) {
    const std::string hive = At("h.hiv"), reg = At("in.reg");
    ASSERT_EQ(Tool({"new", hive}).status, 0);
    ASSERT_EQ(Tool({"mkkey", hive, "Clean"}).status, 0) << "a clean hive is edited without --force";
    // Sequence numbers 2 and 1, as a write that never ended leaves them; the
    // checksum is made right so that only the numbers tell.
    Alter(hive, [](Bytes& b) {
        Put32(b, 4, 2);
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < 127; ++i) sum ^= U32(b, 4 * i);
        Put32(b, 0x1FC, sum);
    });
    const std::string text = "Windows Registry Editor Version 5.00\n\n[\\Imp]\n\"a\"=\"b\"\n";
    WriteBytes(reg, Bytes(text.begin(), text.end()));
    // In this order each forced edit finds what the one before made.
    const std::vector<std::vector<std::string>> edits = {
        {"set", hive, "Clean", "v", "sz", "text"},
        {"rm", hive, "Clean", "v"},
        {"mkkey", hive, "New"},
        {"rmkey", hive, "New"},
        {"import", hive, reg},
    };
    for (const auto& edit : edits) {
        const Bytes before = ReadFileBytes(hive);
        const Outcome refused = Tool(edit);
        EXPECT_EQ(refused.status, 3) << edit[0] << ": " << refused.text;
        EXPECT_NE(refused.text.find("sequence numbers 2 and 1 differ"), std::string::npos) << refused.text;
        EXPECT_NE(refused.text.find("tamvik replay"), std::string::npos) << refused.text;
        EXPECT_EQ(ReadFileBytes(hive), before) << edit[0] << " changed the dirty hive";
        std::vector<std::string> forced = edit;
        forced.push_back("--force");
        const Outcome done = Tool(forced);
        EXPECT_EQ(done.status, 0) << edit[0] << " --force: " << done.text;
    }
    EXPECT_EQ(Tool({"get", hive, "Imp", "a"}).text, "b\n");
}

}  // namespace
