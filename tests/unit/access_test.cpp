// Guards the internal API (api/HiveAccess.h) that the tool, the bindings and
// the disk-image support build on: keys and values by cell offset, statuses
// for every offset however bogus, the edits the exported functions refuse,
// and hives opened through a volume device or inspected despite damage.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "api/HiveAccess.h"
#include "store/Format.h"
#include "support/Device.h"
#include "support/Fixture.h"
#include "support/Listing.h"
#include "support/Peers.h"

namespace {

using namespace Tamvik;
using namespace TamvikTest;
using namespace std::string_literals;

// One tree for every case: values in each data form and the default value,
// and subkeys under each kind of list.
HiveBuilder Tree() {
    HiveBuilder b;
    b.AddTree(TreeKey{"R",
                      {{"", 1, {'d', 0}}, {"in", 4, {1, 2, 3, 4}}, {"cell", 3, Bytes(100, 7)}, {"db", 3, Bytes(20000, 9)}},
                      {TreeKey{"Lf", {}, {{"a"}, {"b"}}, ListKind::Lf}, TreeKey{"Li", {}, {{"a"}, {"c"}}, ListKind::Li},
                       TreeKey{"Ri", {}, {{"a"}, {"b"}, {"c"}, {"d"}}, ListKind::Ri, 2}}});
    return b;
}

std::unique_ptr<HiveAccess> Opened(const TempFile& file, OpenMode mode = OpenMode::Writable) {
    std::unique_ptr<HiveAccess> hive;
    EXPECT_TRUE(HiveAccess::Open(file.Path(), mode, &hive)) << file.Path();
    return hive;
}

// Each helper hands one vector to every read, as a walk does: a read holds
// just its own list, whatever the last one left.
std::string Names(HiveAccess& hive, CellOffset key) {
    static std::vector<SubKeyItem> items;
    std::string names = hive.SubKeys(key, &items) ? "" : "! ";
    for (const SubKeyItem& item : items) names += Utf8(item.name) + " ";
    return names;
}

// "name:type:length:sum " for each value, the sum of the data's bytes.
std::string Values(HiveAccess& hive, CellOffset key) {
    static std::vector<ValueItem> items;
    std::string listed = hive.Values(key, true, &items) ? "" : "! ";
    for (const ValueItem& v : items)
        listed += Utf8(v.name) + ":" + std::to_string(v.type) + ":" + std::to_string(v.length) + ":" +
                  std::to_string(std::accumulate(v.data.begin(), v.data.end(), 0)) + " ";
    return listed;
}

CellOffset Key(HiveAccess& hive, const std::u16string& path) {
    CellOffset key = 0;
    EXPECT_TRUE(hive.Find(hive.Root(), path, &key)) << Utf8(path);
    return key;
}

TEST(Access, ReadsEveryFormAndAnswersBogusOffsetsWithAStatus) {
    const HiveBuilder b = Tree();
    TempFile file(b.Build());
    std::unique_ptr<HiveAccess> hive = Opened(file, OpenMode::ReadOnly);
    EXPECT_EQ(Values(*hive, hive->Root()), ":1:2:100 in:4:4:10 cell:3:100:700 db:3:20000:180000 ");
    ValueItem found;
    EXPECT_TRUE(hive->FindValue(hive->Root(), u"", true, &found) && found.data == Bytes({'d', 0}));
    EXPECT_TRUE(hive->FindValue(hive->Root(), u"DB", false, &found) && found.length == 20000 && found.data.empty());
    EXPECT_EQ(hive->FindValue(hive->Root(), u"d", false, &found).code, StatusCode::NotFound);
    ByteVector data;
    EXPECT_TRUE(hive->ValueData(found.cell, &data) && data == Bytes(20000, 9));
    EXPECT_EQ(Names(*hive, Key(*hive, u"\\ri")) + Names(*hive, Key(*hive, u"li")), "a b c d a c ");
    KeyInfo info;
    EXPECT_TRUE(hive->Info(Key(*hive, u"Ri\\C"), &info) && info.name == u"c" && info.parent == b.KeyOffset("Ri"));
    // Offsets that hold no key: none, unaligned, a value, a list, past the bins.
    std::vector<ValueItem> values;
    const std::uint32_t vk = found.cell;
    for (CellOffset bogus : {0u, 4u, 0xFFFFFFFFu, vk, vk + 8, b.KeyOffset("") + 8, b.BinsSize(), b.BinsSize() + 4096}) {
        std::vector<SubKeyItem> items;
        CellOffset cell = 0;
        const Status statuses[] = {hive->Info(bogus, &info), hive->SubKeys(bogus, &items), hive->Values(bogus, true, &values),
                                   hive->FindSubKey(bogus, u"a", &cell), hive->FindValue(bogus, u"in", true, &found)};
        for (const Status& status : statuses) EXPECT_EQ(status.code, StatusCode::Invalid) << bogus;
        EXPECT_EQ(hive->SortSubKeys(bogus, nullptr).code, StatusCode::ReadOnly) << "checked first";
    }
}

TEST(Access, StoresWhatTheExportedFunctionsRefuseAndThePeersAgree) {
    TempFile file(Tree().Build());
    const Bytes before = file.Read();
    std::unique_ptr<HiveAccess> hive = Opened(file);
    const CellOffset root = hive->Root(), lf = Key(*hive, u"Lf"), li = Key(*hive, u"Li"), ri = Key(*hive, u"Ri");
    CellOffset made = 0;
    // Refusals change nothing: an empty or overlong name, a taken name, no key at the offset.
    const std::pair<Status, StatusCode> refusals[] = {
        {hive->CreateSubKey(lf, u"", ListOrder::Library, &made), StatusCode::Invalid},
        {hive->CreateSubKey(lf, std::u16string(65536, u'x'), ListOrder::Library, &made), StatusCode::Invalid},
        {hive->CreateSubKey(lf, u"B", ListOrder::Library, &made), StatusCode::Exists},
        {hive->CreateSubKey(lf + 8, u"n", ListOrder::Library, &made), StatusCode::Invalid},
        {hive->SetValue(lf + 8, u"n", 3, nullptr, 0), StatusCode::Invalid}, {hive->DeleteValue(root, u"none"), StatusCode::NotFound},
        {hive->DeleteSubKey(root, lf), StatusCode::NotEmpty}, {hive->DeleteSubKey(lf, li), StatusCode::NotFound}};
    for (const auto& [status, code] : refusals) EXPECT_EQ(status.code, code) << status.text;
    EXPECT_TRUE(file.Read() == before);
    // A leaf stays in a cell that just holds one more entry (the exported functions would move it).
    HiveBuilder exact;
    exact.AddFree(40);  // where a leaf that moves goes
    const std::uint32_t leaf = exact.AddList("lf", {exact.AddNk({"a"})}, {"a"}, 24);
    const std::uint32_t owner = exact.AddNk({"R", 0x2C, 1, leaf});
    exact.SetRoot(owner);
    TempFile small(exact.Build());
    EXPECT_TRUE(Opened(small)->CreateSubKey(owner, u"b", ListOrder::Library, &made));
    EXPECT_EQ(Image(small.Read()).U32(owner, Tamvik::NkField::SubKeyListCell), leaf);
    // New keys under every kind of list, in both orders, in both name forms;
    // an ri's full leaf moves and the ri follows it.
    for (const auto& [key, name, order] : {std::tuple{lf, u"_"s, ListOrder::Library}, {li, u"B", ListOrder::Windows},
                                           {ri, u"Ключ", ListOrder::Library}, {ri, u"bb", ListOrder::Windows},
                                           {lf, u"a\\b\0c"s, ListOrder::Windows}})
        EXPECT_TRUE(hive->CreateSubKey(key, name, order, &made)) << Utf8(name);
    EXPECT_EQ(Names(*hive, lf) + Names(*hive, li) + Names(*hive, ri),
              "a\\b"s + '\0' + "c _ a b a B c a b bb c d Ключ ");
    bool changed = false;
    EXPECT_TRUE(hive->SortSubKeys(lf, &changed) && changed);
    EXPECT_TRUE(hive->SortSubKeys(lf, &changed) && !changed);
    EXPECT_EQ(Names(*hive, lf), "a a\\b"s + '\0' + "c b _ ");
    // Values: a name with a NUL, empty data, a replacement in place, deletions.
    const Bytes big(30000, 5);
    EXPECT_TRUE(hive->SetValue(root, u"n\0ul"s, 0, nullptr, 0));
    EXPECT_TRUE(hive->SetValue(root, u"IN", 1, big.data(), 30000));
    EXPECT_TRUE(hive->SetValue(root, u"", 3, big.data(), 4));  // the most that is kept inline
    EXPECT_TRUE(hive->DeleteValue(root, u"CELL"));
    EXPECT_TRUE(hive->DeleteSubKey(lf, Key(*hive, u"lf\\_")));
    EXPECT_EQ(Values(*hive, root), ":3:4:20 in:1:30000:150000 db:3:20000:180000 n"s + '\0' + "ul:0:0:0 ");
    EXPECT_TRUE(hive->Close());
    std::unique_ptr<HiveAccess> reading = Opened(file, OpenMode::ReadOnly);
    EXPECT_EQ(reading->SetValue(root, u"x", 3, nullptr, 0).code, StatusCode::ReadOnly);
    EXPECT_EQ(Capture(std::string(TAMVIK_TOOL) + " check -q " + Quoted(file.Path())).first, 0);
    if (!PeersMissing().empty()) GTEST_SKIP() << PeersMissing();
    EXPECT_EQ(CompareListings(ListFile(file.Path()).lines, RunPeer("hivex", file.Path()).lines, "hivex"), "");
}

// Runs of creations under a few parents, one with a list out of Windows'
// order, mixed with deletions and names that differ only in case, against a
// model: each name goes before the first it sorts before, and a name is
// refused exactly when the list holds it in any case.
TEST(Access, CreationsUnderOneParentAfterAnotherFollowTheModel) {
    TempFile file(Tree().Build());
    std::unique_ptr<HiveAccess> hive = Opened(file);
    const CellOffset parents[] = {hive->Root(), Key(*hive, u"Li"), Key(*hive, u"Lf")};
    CellOffset made = 0;
    ASSERT_TRUE(hive->CreateSubKey(parents[2], u"_", ListOrder::Library, &made));  // "_ a b"
    std::vector<std::u16string> model[] = {{u"Lf", u"Li", u"Ri"}, {u"a", u"c"}, {u"_", u"a", u"b"}};
    const auto upper = [](std::u16string name) {
        for (char16_t& c : name) c = c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 32) : c;
        return name;
    };
    std::mt19937 draw(7);
    for (int step = 0; step < 400; ++step) {
        const std::size_t p = draw() % 3;
        std::vector<std::u16string>& names = model[p];
        std::u16string name;
        for (std::size_t n = 2 + draw() % 2; n > 0; --n) name += u"aBz_["[draw() % 5];  // never a name the tree has
        const auto same = std::find_if(names.begin(), names.end(), [&](const auto& e) { return upper(e) == upper(name); });
        if (draw() % 4 == 0 && same != names.end()) {
            CellOffset cell = 0;
            ASSERT_TRUE(hive->FindSubKey(parents[p], name, &cell) && hive->DeleteSubKey(parents[p], cell));
            names.erase(same);
        } else {
            EXPECT_EQ(hive->CreateSubKey(parents[p], name, ListOrder::Windows, &made).code,
                      same == names.end() ? StatusCode::Ok : StatusCode::Exists) << step;
            if (same == names.end())
                names.insert(std::find_if(names.begin(), names.end(), [&](const auto& e) { return upper(name) < upper(e); }), name);
        }
        std::string expected;
        for (const auto& e : names) expected += Utf8(e) + " ";
        ASSERT_EQ(Names(*hive, parents[p]), expected) << step;
    }
}

TEST(Access, ThroughADeviceAndDespiteABadChecksum) {
    HiveBuilder b = Tree();
    TempFile file(b.Build());
    TestDevice device;
    std::unique_ptr<HiveAccess> hive;
    ASSERT_TRUE(HiveAccess::Open(&device, file.WidePath(), OpenMode::Writable, &hive));
    const std::size_t read = device.calls.size();
    EXPECT_EQ(Names(*hive, Key(*hive, u"Ri")), "a b c d ");
    EXPECT_EQ(device.calls.size(), read) << "read once, then served from memory";
    EXPECT_TRUE(hive->SetValue(hive->Root(), u"new", 3, nullptr, 0));
    EXPECT_NE(device.calls.back().text.find("write"), std::string::npos) << "on the device when the call returns";
    EXPECT_TRUE(hive->Close());
    EXPECT_EQ(device.calls.back().text, "close");
    // A header whose bins size cuts through the root's value list (at 0x5ed0):
    // through a device too the file is read whole, as from a file.
    b.SetBinsSize(24280);
    TempFile uncounted(b.Build());
    ASSERT_TRUE(HiveAccess::Open(&device, uncounted.WidePath(), OpenMode::ReadOnly, &hive));
    const std::unique_ptr<HiveAccess> fromFile = Opened(uncounted, OpenMode::ReadOnly);
    EXPECT_EQ(Values(*hive, hive->Root()), Values(*fromFile, fromFile->Root()));
    b.SetBinsSize(-1);
    // A new hive, where no file is yet.
    const std::string fresh = file.Path() + ".new";
    EXPECT_EQ(HiveAccess::CreateHive(file.Path(), {}).code, StatusCode::Exists);
    ASSERT_TRUE(HiveAccess::CreateHive(fresh, {3, u"Start"}));
    KeyInfo root;
    ASSERT_TRUE(HiveAccess::Open(fresh, OpenMode::ReadOnly, &hive) && hive->MinorVersion() == 3);
    EXPECT_TRUE(hive->Info(hive->Root(), &root) && root.name == u"Start");
    EXPECT_EQ(Names(*hive, hive->Root()) + Values(*hive, hive->Root()), "");
    // Its keys' descriptor lets Everyone (S-1-1-0) read, as the system's own hives do.
    const Bytes made = ReadFileBytes(fresh), everyone = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
    EXPECT_NE(std::search(made.begin(), made.end(), everyone.begin(), everyone.end()), made.end());
    std::remove(fresh.c_str());
    b.SetChecksumValid(false);
    TempFile damaged(b.Build());
    EXPECT_EQ(HiveAccess::Open(damaged.Path(), OpenMode::ReadOnly, &hive).code, StatusCode::NotAHive);
    ASSERT_TRUE(HiveAccess::Open(damaged.Path(), OpenMode::Inspect, &hive));
    EXPECT_FALSE(hive->BaseBlockSound());
    EXPECT_EQ(Names(*hive, hive->Root()), "Lf Li Ri ");
}

}  // namespace
