// Dirty hives and their transaction logs, through the tamvik tool: logs laid
// out by the log builder (which entries a replay applies, where it stops and
// why, what info and check say), replays of the real dirty hives against the
// hives Windows made of them (as hivex and libregf read both), and the
// refusal of every editing command.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/HiveBuilder.h"
#include "support/LogBuilder.h"
#include "support/Peers.h"
#include "support/ToolRun.h"
#include "tools/tamvik/logs/Marvin32.h"

namespace {

namespace fs = std::filesystem;
using namespace TamvikTest;

void WriteBytes(const std::string& path, const Bytes& bytes) { WriteText(path, std::string(bytes.begin(), bytes.end())); }

// The hive in state k: its root holds the value n = k, always in the same
// cell of its second bin (the first is free), so pages 8 to 11 of the bins,
// the second byte of an old-format bitmap, carry the whole state.
Bytes State(std::uint32_t k) {
    HiveBuilder b;
    b.AddBin(), b.AddBin();
    b.AddTree({"", {{"n", 4, {static_cast<std::uint8_t>(k), 0, 0, 0}}}});
    return b.Build();
}
LogPage Bins(std::uint32_t k, std::uint32_t from = 0, std::uint32_t size = 8192) {
    const Bytes hive = State(k);
    return {from, Bytes(hive.begin() + 4096 + from, hive.begin() + 4096 + from + size)};
}

enum class Fault { None, Hash, Cut, BinsTooLarge, BinsOdd, Split };  // Split: two pages, the later one first
enum class Kind { New, Old, OldCut, Foreign };  // Foreign: an old-format log of another hive (timestamp 0)
struct EntryCase {
    std::uint32_t sequence;
    Fault fault = Fault::None;
};
struct LogCase {
    const char* suffix;
    Kind kind;
    std::uint32_t base;  // both sequence numbers of its base block
    std::vector<EntryCase> entries = {};
};
// A new-format log's entries carry the whole state their number names; an
// old-format log pages 8 to 11 of the state its number names (bitmap byte 0x0F).
const std::vector<LogCase> kTwoLogs = {{".LOG1", Kind::New, 2, {{2}}}, {".LOG2", Kind::New, 3, {{3}, {4}, {5}}}};

class ReplayTest : public ToolTest {
protected:
    static std::string Damaged(const std::string& path) { return SharedHives() + "/damaged/" + path; }
    // Copies a file of the damaged folder into the scratch folder as name.
    std::string Stage(const std::string& from, const std::string& name) const {
        fs::copy_file(Damaged(from), At(name), fs::copy_options::overwrite_existing);
        fs::permissions(At(name), fs::perms::owner_read | fs::perms::owner_write);
        return At(name);
    }

    // Writes the hive "h" in state 0 with these sequence numbers and its logs.
    std::string Lay(std::uint32_t primary, std::uint32_t secondary, bool checksumValid, const std::vector<LogCase>& logs,
                    std::uint8_t clustering = 1) const {
        Bytes hive = State(0);
        hive[0x2C] = clustering;  // the log's sectors are clustering times 512 bytes
        SetBaseBlock(hive.data(), primary, secondary, checksumValid);
        WriteBytes(At("h"), hive);
        for (const LogCase& c : logs) {
            const bool old = c.kind != Kind::New;
            LogBuilder log(hive, old ? LogBuilder::kOld : LogBuilder::kNew, c.base,
                           c.kind == Kind::Foreign ? 0 : kHiveTime);
            for (std::uint32_t page = 8; old && page < 12; ++page) log.AddDirtyPage(page, Bins(c.base, page * 512, 512).bytes);
            std::vector<std::pair<std::size_t, Fault>> faults;
            for (const EntryCase& e : c.entries) {
                std::vector<LogPage> pages = {Bins(e.sequence)};
                if (e.fault == Fault::Split) pages = {Bins(e.sequence, 4608, 3584), Bins(e.sequence, 0, 4608)};
                const std::uint32_t binsSize = e.fault == Fault::BinsTooLarge ? 0x3000 : e.fault == Fault::BinsOdd ? 0x2800 : 0;
                faults.emplace_back(log.AddEntry(e.sequence, pages, binsSize), e.fault);
            }
            Bytes bytes = log.Build();
            for (const auto& [at, fault] : faults)
                if (fault == Fault::Hash) bytes[at + 600] ^= 1;
                else if (fault == Fault::Cut) bytes.resize(at + 600);
            if (c.kind == Kind::OldCut) bytes.resize(bytes.size() - 1024);
            WriteBytes(At(std::string("h") + c.suffix), bytes);
        }
        return At("h");
    }

    // The listing of a hive as a peer reads it, complaints included.
    static std::string Listing(const std::string& reader, const std::string& hive) {
        const PeerListing peer = RunPeer(reader, hive);
        std::string text;
        for (const auto* lines : {&peer.lines, &peer.errors})
            for (const std::string& line : *lines) text += line + "\n";
        return text;
    }
    // Whether a file of the scratch folder has part in its name.
    bool AnyFileWith(const std::string& part) const {
        return std::any_of(fs::directory_iterator(dir), fs::directory_iterator(), [&](const auto& entry) {
            return entry.path().filename().string().find(part) != std::string::npos;
        });
    }
};

// --- Marvin32 -----------------------------------------------------------------

// The log builder hashes with this code: known answers pin it (a whole word,
// and three bytes left over); the real logs' hashes pin it again through the
// byte-identical replay of the Windows 10 hive below.
TEST(ReplayMarvin32, GivesKnownAnswers) {
    EXPECT_EQ(TamvikLogs::Marvin32(reinterpret_cast<const std::uint8_t*>("HvLE"), 4), 0x914527932CF336DDu);
    EXPECT_EQ(TamvikLogs::Marvin32(reinterpret_cast<const std::uint8_t*>("abcdefg"), 7), 0x0C00597AC6BF45F2u);
}

// --- which entries apply, where a replay stops, and what info says ----------

struct BuiltCase {
    const char* name;
    std::uint32_t primary, secondary;  // the hive's sequence numbers
    bool checksumValid;
    std::vector<LogCase> logs;
    int status;           // of replay without --partial: 0 writes, 1 refuses
    const char* message;  // in its output
    int state;            // n in the hive written (by --partial where refused); -1: none is
    std::vector<const char*> info = {};
    std::uint8_t clustering = 1;
};

class ReplayBuiltTest : public ReplayTest, public ::testing::WithParamInterface<BuiltCase> {};

TEST_P(ReplayBuiltTest, AppliesWhatWindowsWouldAndTellsWhereItStops) {
    const BuiltCase& c = GetParam();
    const std::string hive = Lay(c.primary, c.secondary, c.checksumValid, c.logs, c.clustering), out = hive + ".replayed";
    const char* verdict = c.status == 0 ? "would apply" : c.state >= 0 ? "would stop early" : "not possible";
    const ToolRun info = Cli({"info", hive}), check = Cli({"check", hive});
    EXPECT_EQ(info.status, 0) << info.Text();
    EXPECT_NE(info.Text().find(std::string("replay          ") + verdict), std::string::npos) << info.Text();
    for (const char* line : c.info) EXPECT_NE(info.Text().find(line), std::string::npos) << info.Text();
    EXPECT_EQ(check.status, 1) << check.Text();
    EXPECT_NE(check.Text().find(std::string("the hive is dirty; replay ") + verdict), std::string::npos) << check.Text();

    const ToolRun run = Cli({"replay", hive});
    EXPECT_EQ(run.status, c.status) << run.Text();
    EXPECT_NE(run.Text().find(c.message), std::string::npos) << run.Text();
    if (c.status != 0) {
        EXPECT_NE(run.Text().find("no file written"), std::string::npos) << run.Text();
        EXPECT_FALSE(AnyFileWith(".replayed"));
        EXPECT_FALSE(AnyFileWith(".tmp-"));
        const ToolRun partial = Cli({"replay", "--partial", hive});
        EXPECT_EQ(partial.status, c.state >= 0 ? 0 : 1) << partial.Text();
    }
    ASSERT_EQ(fs::exists(out), c.state >= 0);
    if (c.state < 0) return;
    EXPECT_EQ(Cli({"get", out, "", "n"}).Text(), std::to_string(c.state) + "\n");
    EXPECT_EQ(Cli({"check", "-q", out}).status, 0);
    EXPECT_NE(Cli({"info", out}).Text().find("dirty           no"), std::string::npos);
}

const Kind New = Kind::New, Old = Kind::Old;

INSTANTIATE_TEST_SUITE_P(
    Replay, ReplayBuiltTest,
    ::testing::Values(
        BuiltCase{"TwoLogsInTurn", 3, 2, true, kTwoLogs, 0, "applied 4 entries (sequence 2 to 5, 4 pages)", 5,
                  {"dirty           yes: sequence numbers 3 and 2 differ",
                   "h.LOG2: new format, 3 entries of 3 pages; applies 3 entries",
                   "replay          would apply 4 entries (sequence 2 to 5, 4 pages)"}},
        // Both logs begun anew since the hive was last written: nothing is lost.
        BuiltCase{"LogsBegunAfterTheHive", 3, 2, true, {{".LOG1", New, 7, {{7}, {8}}}, {".LOG2", New, 9, {{9}, {10, Fault::Split}, {11}}}},
                  0, "applied 5 entries (sequence 7 to 11, 6 pages)", 11, {}, 8},
        // Entries the chain holds, in the older log too, are no loss.
        BuiltCase{"OlderLogBesideTheCurrentOne", 5, 4, true, {{".LOG1", New, 4, {{4}, {5}}}, {".LOG2", New, 2, {{2}, {3}, {4}, {5}}}},
                  0, "applied 2 entries (sequence 4 to 5", 5},
        BuiltCase{"BaseBlockFromTheLatestLog", 3, 2, false, kTwoLogs, 0,
                  "applied 3 entries (sequence 3 to 5, 3 pages), base block taken from the log", 5},
        BuiltCase{"FirstLogMissing", 3, 2, true, {kTwoLogs[1]}, 1,
                  "the first entry in the logs has sequence 3, the hive needs 2 first: a log is missing", 5},
        // Windows passes over a log begun before the hive's last write, entry 4 with it.
        BuiltCase{"FirstEntryOlderThanTheHive", 5, 4, true, {{".LOG1", New, 3, {{3}, {4}}}, {".LOG2", New, 5, {{5}, {6}, {8}}}},
                  1, "h.LOG1 begins with sequence 3, older than the hive's 4; replay leaves out sequence 4", 6},
        BuiltCase{"OnlyLogOlderThanTheHive", 5, 4, true, {{".LOG1", New, 3, {{3}, {4}, {5}}}}, 1,
                  "h.LOG1 begins with sequence 3, older than the hive's 4; no file written", -1},
        BuiltCase{"FirstEntryIsNotTheBase", 3, 2, true, {kTwoLogs[0], {".LOG2", New, 3, {{4}, {5}}}}, 1,
                  "h.LOG2 begins with sequence 4, not with its base block's 3; replay stops after sequence 2", 2},
        BuiltCase{"SequenceSkips", 3, 2, true, {kTwoLogs[0], {".LOG2", New, 3, {{3}, {5}}}}, 1,
                  "the sequence numbers skip from 3 to 5", 3},
        BuiltCase{"WrongEntryHash", 3, 2, true, {kTwoLogs[0], {".LOG2", New, 3, {{3}, {4, Fault::Hash}, {5}}}}, 1,
                  "(sequence 4): hash-1 is wrong", 3},
        BuiltCase{"TruncatedLog", 3, 2, true, {kTwoLogs[0], {".LOG2", New, 3, {{3, Fault::Cut}}}}, 1,
                  "the log is truncated", 2},
        BuiltCase{"EntryBinsSizeNotWholeBins", 3, 2, true, {kTwoLogs[0], {".LOG2", New, 3, {{3}, {4, Fault::BinsOdd}}}}, 1,
                  "(sequence 4): bins size 0x2800 is not a positive multiple of 4096", 3},
        // The last entry claims 0x3000 bytes of bins but brings none past 0x2000.
        BuiltCase{"BinsSizeTooLarge", 3, 2, true, {kTwoLogs[0], {".LOG2", New, 3, {{3}, {4, Fault::BinsTooLarge}}}}, 1,
                  "the bin at 0x2000 is broken", -1},
        BuiltCase{"AnotherHivesLog", 3, 2, true, {{".LOG1", Kind::Foreign, 5}}, 1, "its timestamp differs from the hive's",
                  -1},
        BuiltCase{"LogsAbsent", 3, 2, true, {}, 1, "no logs beside it", -1},
        // Windows takes the second log only when the first doesn't apply.
        BuiltCase{"OldFormatFirstLogFirst", 5, 4, true, {{".LOG1", Old, 5}, {".LOG2", Old, 7}}, 0,
                  "applied 4 dirty pages", 5, {"h.LOG2: old format, 4 dirty pages; not used: "}},
        BuiltCase{"OldFormatGarbageBaseBlock", 5, 4, false, {{".Log1", Old, 5}}, 0, "base block taken from the log", 5,
                  {"dirty           yes: base block checksum is wrong, sequence numbers 5 and 4 differ",
                   "h.Log1: old format, 4 dirty pages; applies"},
                  8},
        BuiltCase{"TruncatedOldLog", 5, 4, true, {{".LOG1", Kind::OldCut, 5}}, 1, "4 dirty pages, the file holds 2", -1}),
    [](const auto& info) { return std::string(info.param.name); });

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

class ReplayRealTest : public ReplayTest, public ::testing::WithParamInterface<RealCase> {};

TEST_P(ReplayRealTest, ListsAsTheHiveWindowsMade) {
    SKIP_WITHOUT_SHARED_HIVES();
    const RealCase& c = GetParam();
    const std::string hive = Stage(std::string(c.folder) + "/" + c.hive, c.hive);
    for (const auto& [from, name] : c.logs) Stage(std::string(c.folder) + "/" + from, name);
    if (c.truncateHive != 0) fs::resize_file(hive, c.truncateHive);
    const Bytes before = ReadFileBytes(hive);

    const ToolRun run = Cli({"replay", hive});
    ASSERT_EQ(run.status, 0) << run.Text();
    EXPECT_EQ(ReadFileBytes(hive), before) << "the dirty hive itself must stay as it was";
    const std::string out = hive + ".replayed", windows = Damaged(c.windows);
    EXPECT_TRUE(!c.sameBytes || ReadFileBytes(out) == ReadFileBytes(windows)) << "not byte for byte what Windows made";
    if (!PeersMissing().empty()) GTEST_SKIP() << PeersMissing();
    for (const char* reader : {"hivex", "libregf"}) {
        const std::string ours = Listing(reader, out);
        EXPECT_EQ(ours.find("#error"), std::string::npos) << reader << ":\n" << ours.substr(0, 2000);
        EXPECT_GT(ours.size(), 10u) << reader;
        EXPECT_TRUE(ours == Listing(reader, windows)) << reader << " lists the replayed hive otherwise than Windows'";
    }
    const ToolRun check = Cli({"check", "-q", out});
    EXPECT_EQ(check.status, 0) << check.Text();
}

const std::vector<std::pair<const char*, const char*>> kNewDirtyLogs = {{"NewDirtyHive.LOG1", "NewDirtyHive.LOG1"},
                                                                        {"NewDirtyHive.LOG2", "NewDirtyHive.LOG2"}};

INSTANTIATE_TEST_SUITE_P(
    Replay, ReplayRealTest,
    ::testing::Values(
        RealCase{"NewFormatAcrossTwoLogs", "yarp__NewDirtyHive1", "NewDirtyHive", kNewDirtyLogs,
                 "yarp__NewDirtyHive1/RecoveredHive_Windows10", 0, true},
        RealCase{"OldFormatLogInLowerCase", "yarp__OldDirtyHive", "OldDirtyHive",
                 {{"OldDirtyHive.LOG1", "OldDirtyHive.log1"}}, "yarp__OldDirtyHive/RecoveredHive_Windows7"},
        // The same log as the old-format hive's: Windows' result is that one's.
        RealCase{"GarbageBaseBlockFromTheLog", "yarp__BadBaseBlockHive", "BadBaseBlockHive",
                 {{"BadBaseBlockHive.LOG1", "BadBaseBlockHive.LOG1"}}, "yarp__OldDirtyHive/RecoveredHive_Windows7"},
        // Entries 2 and 4 rewrite all the bins: the file grows back to them.
        RealCase{"HiveShorterThanItsLog", "yarp__NewDirtyHive1", "NewDirtyHive", kNewDirtyLogs,
                 "yarp__NewDirtyHive1/RecoveredHive_Windows10", 12288}),
    [](const auto& info) { return std::string(info.param.name); });

// --- the output file -------------------------------------------------------------

TEST_F(ReplayTest, OutputNeverReplacesAFileUnasked) {
    const std::string hive = Lay(3, 2, true, kTwoLogs), out = At("out.hiv");
    const Bytes dirty = ReadFileBytes(hive);
    ASSERT_EQ(Cli({"replay", hive, "-o", out}).status, 0);
    const ToolRun again = Cli({"replay", hive, "-o", out});
    EXPECT_EQ(again.status, 2);
    EXPECT_NE(again.Text().find("exists"), std::string::npos) << again.Text();
    const ToolRun self = Cli({"replay", hive, "-o", hive});
    EXPECT_EQ(self.status, 2);
    EXPECT_NE(self.Text().find("is the hive itself"), std::string::npos) << self.Text();
    EXPECT_EQ(ReadFileBytes(hive), dirty);

    // Named explicitly and forced, the hive is replaced in place; then it is
    // clean and a replay has nothing to do.
    ASSERT_EQ(Cli({"replay", hive, "-o", hive, "--force"}).status, 0);
    EXPECT_EQ(ReadFileBytes(hive), ReadFileBytes(out));
    const ToolRun clean = Cli({"replay", hive});
    EXPECT_EQ(clean.status, 0);
    EXPECT_NE(clean.Text().find("nothing to replay"), std::string::npos) << clean.Text();
    EXPECT_FALSE(fs::exists(hive + ".replayed"));
    EXPECT_FALSE(AnyFileWith(".tmp-"));
}

// --- editing commands refuse a dirty hive ---------------------------------------

TEST_F(ReplayTest, EveryEditingCommandRefusesADirtyHiveUnlessForced) {
    const std::string hive = At("h.hiv"), reg = At("in.reg");
    ASSERT_EQ(Cli({"new", hive}).status, 0);
    ASSERT_EQ(Cli({"mkkey", hive, "Clean"}).status, 0) << "a clean hive is edited without --force";
    // Sequence numbers 2 and 1, as a write that never ended leaves them; the
    // checksum is made right so that only the numbers tell.
    Bytes b = ReadFileBytes(hive);
    SetBaseBlock(b.data(), 2, 1);
    WriteBytes(hive, b);
    WriteText(reg, "Windows Registry Editor Version 5.00\n\n[\\Imp]\n\"a\"=\"b\"\n");
    // In this order each forced edit finds what the one before made.
    const std::vector<std::vector<std::string>> edits = {{"set", hive, "Clean", "v", "sz", "text"},
                                                         {"rm", hive, "Clean", "v"}, {"mkkey", hive, "New"},
                                                         {"rmkey", hive, "New"}, {"import", hive, reg}};
    for (const auto& edit : edits) {
        const Bytes before = ReadFileBytes(hive);
        const ToolRun refused = Cli(edit);
        EXPECT_EQ(refused.status, 3) << edit[0] << ": " << refused.Text();
        EXPECT_NE(refused.Text().find("sequence numbers 2 and 1 differ"), std::string::npos) << refused.Text();
        EXPECT_NE(refused.Text().find("tamvik replay"), std::string::npos) << refused.Text();
        EXPECT_EQ(ReadFileBytes(hive), before) << edit[0] << " changed the dirty hive";
        std::vector<std::string> forced = edit;
        forced.push_back("--force");
        EXPECT_EQ(Cli(forced).status, 0) << edit[0] << " --force";
    }
    EXPECT_EQ(Cli({"get", hive, "Imp", "a"}).Text(), "b\n");
}

}  // namespace
