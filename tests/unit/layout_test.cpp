// Guards the byte-exact layout rules a model of keys and values can't see:
// first fit and the remainder rule, the size of new bins, merges of freed
// cells, the sizes of new records and lists, when a list stays or moves, the
// form data takes when it is rewritten, what deletion gives back, the sk ring,
// and the base block's checksum.
#include <gtest/gtest.h>

#include <ctime>
#include <set>
#include <tuple>

#include "store/Allocator.h"
#include "store/Format.h"
#include "store/Hive.h"
#include "support/Fixture.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;
using Cells = std::map<std::uint32_t, std::int32_t>;
namespace NkField = Tamvik::NkField;
namespace VkField = Tamvik::VkField;
constexpr std::uint32_t kNone = 0xFFFFFFFF;

Bytes Pattern(std::size_t size, int seed = 1) {
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 7 + seed);
    return data;
}

// --- The allocator, on bins laid out cell by cell ---------------------------------

struct AllocationCase {
    const char* what;
    std::function<void(HiveBuilder&)> lay;
    std::uint32_t asked;
    std::uint32_t offset;  // of the new cell
    Cells written;         // cell headers that differ afterwards
    std::uint32_t binsSize;
};

TEST(Layout, FirstFitAndTheRemainderRule) {
    const AllocationCase cases[] = {
        {"the first that fits, not the best", [](HiveBuilder& b) { b.AddCells({-16, 16, 64, -16, 24, -16}); }, 20, 64,
         {{64, -24}, {88, 40}}, 4096},
        {"exact fit takes the whole cell", [](HiveBuilder& b) { b.AddCells({-16, 24, -16}); }, 20, 48, {{48, -24}}, 4096},
        {"a rest of 8 becomes a free cell", [](HiveBuilder& b) { b.AddCells({-16, 32, -16}); }, 20, 48,
         {{48, -24}, {72, 8}}, 4096},
        {"a foreign rest of 4 goes with the cell", [](HiveBuilder& b) { b.AddCells({-16, 28, -20}); }, 20, 48,
         {{48, -28}}, 4096},
        {"a rest that can't be split is passed by", [](HiveBuilder& b) { b.AddCells({-16, 30, -18, -4000}); }, 20,
         4096 + 32, {{4128, -24}, {4152, 4040}}, 8192},
        {"asked 0 needs 8", [](HiveBuilder& b) { b.AddCells({-16, 8, -16}); }, 0, 48, {{48, -8}}, 4096},
        {"a size of 0 ends the bin, not the search",
         [](HiveBuilder& b) {
             b.AddCells({-16, -16, 64});
             b.SetCellSize(48, 0);
             b.AddBin();
             b.AddCells({-16});
         },
         20, 4144, {{4144, -24}, {4168, 4024}}, 8192},
        {"a foreign bin header ends the search",
         [](HiveBuilder& b) {
             b.AddCells({-4064});
             b.BreakBinSignature(b.AddBin());
         },
         20, 8192 + 32, {{8224, -24}}, 12288},
        {"a BinSize of 0 ends the search",
         [](HiveBuilder& b) {
             b.AddCells({-4064});
             b.SetBinSize(b.AddBin(), 0);
         },
         20, 8192 + 32, {{8224, -24}}, 12288},
    };
    for (const AllocationCase& c : cases) {
        HiveBuilder builder;
        c.lay(builder);
        TestHive test(builder);
        EXPECT_EQ(Tamvik::CreateCell(test.Internal(), c.asked, {}), c.offset) << c.what;
        const Image after(test.Disk());
        EXPECT_EQ(after.BinsSize(), c.binsSize) << c.what;
        for (const auto& [offset, size] : c.written) EXPECT_EQ(after.Size(offset), size) << c.what << " at " << offset;
    }
}

// A need that no cell meets appends a bin of the smallest multiple of 4096
// that holds it; the rest of the bin is one free cell.
TEST(Layout, NewBinsAndTheirSizes) {
    const std::pair<std::uint32_t, std::uint32_t> needToBin[] = {{8, 4096},    {4064, 4096},  {4072, 8192},
                                                                 {8160, 8192}, {8168, 12288}, {12256, 12288}};
    for (const auto& [need, bin] : needToBin) {
        HiveBuilder full;
        full.AddCells({-4064});
        TestHive test(full);
        const auto before = static_cast<std::uint64_t>(std::time(nullptr));
        ASSERT_EQ(Tamvik::CreateCell(test.Internal(), need - 4, {}), 4096u + 32) << need;
        const Image image(test.Disk());
        EXPECT_EQ(image.BinsSize(), 4096 + bin) << need;
        EXPECT_EQ(image.Word(4096 + 4096), Tamvik::kHbinSignature);
        EXPECT_EQ(image.Word(4096 + 4096 + 4), 4096u);
        EXPECT_EQ(image.Word(4096 + 4096 + 8), bin);
        EXPECT_GE(image.Word(4096 + 4096 + 0x14), before) << "seconds since 1970";
        EXPECT_EQ(image.Size(4128), -static_cast<std::int32_t>(need));
        if (need < bin - 32) {
            EXPECT_EQ(image.Size(4128 + need), static_cast<std::int32_t>(bin - 32 - need)) << need;
        }
    }
    HiveBuilder empty;
    empty.AddCells({-4064});
    empty.SetBinsSize(0);
    TestHive test(empty);
    std::uint32_t size = 20, found = 7;
    EXPECT_EQ(Tamvik::FindFreeCell(test.Internal(), size, found), 0u);
    EXPECT_EQ(size, 24u) << "need comes back on every path";
    EXPECT_EQ(found, 7u);
    // The largest asked size taken; one more could bring a cell size past the signed 32 bits of CellSize.
    EXPECT_EQ(Tamvik::NeedFor(0x7FFFFFE4u), 0x7FFFFFE8u);
    EXPECT_EQ(Tamvik::NeedFor(0x7FFFFFE5u), 0u);
}

// A freed cell takes in its free neighbours inside its bin; in version 1.1
// the cell behind learns its new predecessor.
TEST(Layout, FreedCellsMergeWithinTheirBin) {
    struct Case {
        const char* what;
        std::uint32_t minor;
        std::function<void(HiveBuilder&)> lay;
        std::uint32_t freed;
        Cells written;
        std::uint32_t behind = 0;  // v1.1: the cell that must link back to 48
    } cases[] = {
        {"forward", 5, [](HiveBuilder& b) { b.AddCells({-16, -16, 32, -16}); }, 48, {{48, 48}}},
        {"backward", 5, [](HiveBuilder& b) { b.AddCells({-16, 16, -16, -16}); }, 64, {{48, 32}, {64, 16}}},
        {"both ways", 5, [](HiveBuilder& b) { b.AddCells({-16, 16, -16, 16, -16}); }, 64, {{48, 48}, {64, 32}}},
        {"not into the bin before", 5,
         [](HiveBuilder& b) {
             b.AddCells({-16, 4048});
             b.AddBin();
             b.AddCells({-16, -16});
         },
         4128, {{4128, 16}}},
        {"not into the bin behind", 5,
         [](HiveBuilder& b) {
             b.AddCells({-16, -4048});
             b.AddBin();
         },
         48, {{48, 4048}}},
        {"a header naming the cell's own offset places it", 5,
         [](HiveBuilder& b) {
             b.AddCells({-16, -16, 32, -16});
             b.PatchArea(Tamvik::BinField::BinOffset, {48});
         },
         48, {{48, 48}}},
        {"v1.1 forward relinks the cell behind", 1, [](HiveBuilder& b) { b.AddCells({-16, -16, 32, -16}); }, 48,
         {{48, 48}}, 96},
        {"v1.1 backward relinks the cell behind", 1, [](HiveBuilder& b) { b.AddCells({-16, 16, -16, -16}); }, 64,
         {{48, 32}, {64, 16}}, 80},
        {"v1.1 at a bin's end relinks nothing in the next bin", 1,
         [](HiveBuilder& b) {
             b.AddCells({-4064});
             b.AddBin();
             b.AddCells({-16, 16, -4032});
             b.AddBin();
         },
         4160, {{4144, 4048}}},
    };
    for (const Case& c : cases) {
        HiveBuilder builder(c.minor);
        c.lay(builder);
        TestHive test(builder);
        const Bytes before = test.Disk();
        Tamvik::FreeCellAt(test.Internal(), c.freed);
        const Image image(test.Disk());
        for (const auto& [offset, size] : c.written) EXPECT_EQ(image.Size(offset), size) << c.what << " at " << offset;
        EXPECT_EQ(image.BinsSize(), Image(before).BinsSize()) << c.what;
        for (std::uint32_t bin = 0; bin < image.BinsSize(); bin += 4096)
            EXPECT_EQ(image.Word(4096 + bin + 4), Image(before).Word(4096 + bin + 4)) << c.what << ": the bin at " << bin;
        EXPECT_EQ(Bytes(image.file.begin(), image.file.begin() + 4096), Bytes(before.begin(), before.begin() + 4096))
            << c.what << ": freeing writes no base block";
        if (c.behind != 0) {
            EXPECT_EQ(image.Word(4096 + c.behind + 4), 48u) << c.what << ": PrevLink";
        }
    }
    HiveBuilder builder;
    builder.AddCells({-16, 16});
    TestHive test(builder);
    const Bytes before = test.Disk();
    Tamvik::FreeCellAt(test.Internal(), 48);  // free already
    Tamvik::FreeCellAt(test.Internal(), 40);  // no cell starts there
    EXPECT_EQ(test.Disk(), before);
}

// --- New keys, values and their lists ---------------------------------------------

HiveBuilder Tree(std::vector<TreeKey> subkeys, std::vector<TreeValue> values = {}, ListKind list = ListKind::Lf,
                 std::uint32_t minor = 5) {
    HiveBuilder builder(minor);
    TreeKey root{"Root", std::move(values), std::move(subkeys)};
    root.list = list;
    builder.AddTree(root);
    return builder;
}

std::uint32_t Hint(const std::string& name) {
    std::uint32_t hint = 0;
    for (std::size_t i = 0; i < 4 && i < name.size(); ++i) hint |= std::uint32_t(std::uint8_t(name[i])) << (8 * i);
    return hint;
}

TEST(Layout, NewKeysTheirRecordAndTheirLeaf) {
    HiveBuilder builder = Tree({TreeKey{"Leaf"}});
    const auto start = static_cast<std::uint64_t>(std::time(nullptr));
    const EditOutcome out = Edit(builder, [](TestHive& t) { return Create(t.Key(u"Leaf"), "Abcd"); });
    ASSERT_EQ(out.result, Result::Ok);
    const Image image(out.after);
    const std::uint32_t leaf = builder.KeyOffset("Leaf"), sk = builder.TreeSecurity();
    const std::uint32_t list = image.U32(leaf, NkField::SubKeyListCell), nk = image.SubKeys(leaf).at(0);
    EXPECT_EQ(image.Sig(list) + std::to_string(image.U16(list, 2)) + " " + std::to_string(image.Size(list)), "lf1 -24");
    EXPECT_EQ(image.U32(list, 8), Hint("Abcd"));
    EXPECT_EQ(image.Size(nk), -88) << "a 4-byte name: asked 84";
    const std::vector<std::uint32_t> fields = {
        image.U16(nk, 0),  image.U16(nk, NkField::Flags),         image.U32(nk, NkField::ParentCell),
        image.U32(nk, NkField::SubKeyCount), image.U32(nk, NkField::SubKeyListCell), image.U32(nk, NkField::ValueCount),
        image.U32(nk, NkField::ValueListCell), image.U32(nk, NkField::SecurityCell), image.U32(nk, NkField::ClassCell),
        image.U32(nk, NkField::MaxSubKeyName), image.U16(nk, NkField::NameLength), image.U16(nk, NkField::ClassLength)};
    EXPECT_EQ(fields, (std::vector<std::uint32_t>{0x6B6E, 0x20, leaf, 0, 0, 0, kNone, sk, kNone, 0, 4, 0}));
    EXPECT_GE(image.U32(nk, NkField::Timestamp), start) << "seconds since 1970";
    EXPECT_EQ(image.Name(nk), "Abcd");
    EXPECT_EQ(image.U32(leaf, NkField::SubKeyCount), 1u);
    EXPECT_EQ(image.U32(leaf, NkField::MaxSubKeyName), 8u) << "twice the name's bytes";
    EXPECT_EQ(image.U32(leaf, NkField::Timestamp), 0u) << "the owner's time stays";
    EXPECT_EQ(image.U32(sk, Tamvik::SkField::RefCount), 3u) << "one more key shares the sk";

    // A second entry moves a leaf sized for one; a 5-byte name takes 96 bytes.
    const EditOutcome two = Edit(builder, [](TestHive& t) {
        return Create(t.Key(u"Leaf"), "Bcdef") + Create(t.Key(u"Leaf"), "Abcde");
    });
    const Image twice(two.after);
    const std::uint32_t moved = twice.U32(leaf, NkField::SubKeyListCell);
    EXPECT_EQ(twice.Size(moved), -32);
    EXPECT_EQ(twice.SubKeyNames(leaf), (std::vector<std::string>{"Abcde", "Bcdef"}));
    EXPECT_EQ(twice.Size(twice.SubKeys(leaf)[0]), -96);
    EXPECT_EQ(twice.U32(leaf, NkField::MaxSubKeyName), 10u);
}

// Entries land in _stricmp order (an underscore before the letters, case
// folded, a name without a code page 936 form as '?'); an lf keeps the first
// four bytes as given, an lh the hash; entries that move keep their hints.
TEST(Layout, WhereANewEntryLands) {
    struct Case {
        ListKind kind;
        std::vector<std::string> existing, added, order;
    } cases[] = {
        {ListKind::Lf, {"B", "D"}, {"A", "c", "E"}, {"A", "B", "c", "D", "E"}},
        {ListKind::Lf, {"B", "D"}, {"_under", "bb", "Ca"}, {"_under", "B", "bb", "Ca", "D"}},
        {ListKind::Lf, {"B", "D"}, {"cAmElCase", "x"}, {"B", "cAmElCase", "D", "x"}},
        {ListKind::Lh, {"B", "D"}, {"ab", "C", "Dabc"}, {"ab", "B", "C", "D", "Dabc"}},
        {ListKind::Lf, {"\xC4"}, {"0digit", "@at"}, {"0digit", "\xC4", "@at"}},
    };
    for (const Case& c : cases) {
        std::vector<TreeKey> keys;
        for (const std::string& name : c.existing) keys.push_back(TreeKey{name});
        HiveBuilder builder = Tree(keys, {}, c.kind);
        const EditOutcome out = Edit(builder, [&](TestHive& t) {
            LONG sum = 0;
            for (const std::string& name : c.added) sum += Create(t.Key(), name.c_str());
            return sum;
        });
        ASSERT_EQ(out.result, Result::Ok);
        const Image image(out.after);
        const std::uint32_t root = image.Root(), list = image.U32(root, NkField::SubKeyListCell);
        EXPECT_EQ(image.SubKeyNames(root), c.order);
        EXPECT_EQ(image.Sig(list), c.kind == ListKind::Lh ? "lh" : "lf") << "a list keeps its kind";
        for (std::uint32_t i = 0; i < c.order.size(); ++i)
            EXPECT_EQ(image.U32(list, 8 + 8 * i), c.kind == ListKind::Lh ? LhHash(c.order[i]) : Hint(c.order[i]))
                << c.order[i];
    }
    EXPECT_EQ(LhHash("ab"), 2471u);
    // A new name equal to the last entry's narrow form (\xC4 has none in code
    // page 936, so it compares as '?') finds no place: the create fails.
    const EditOutcome lossy = Edit(Tree({TreeKey{"\xC4"}}, {}, ListKind::Lf), [](TestHive& t) { return Create(t.Key(), "?"); });
    EXPECT_EQ(lossy.result, Result::CannotCreate);
    EXPECT_EQ(Image(lossy.after).SubKeyNames(Image(lossy.after).Root()), std::vector<std::string>{"\xC4"});
    // A leaf of 65535 entries, all its count can say, takes no more.
    HiveBuilder full;
    const std::uint32_t a = full.AddNk({"A"});
    full.SetRoot(full.AddNk({"Root", 0x2C, 0xFFFF, full.AddList("lh", std::vector<std::uint32_t>(0xFFFF, a))}));
    const EditOutcome refused = Edit(full, [](TestHive& t) { return Create(t.Key(), "B"); });
    EXPECT_EQ(refused.result, Result::CannotCreate);
    EXPECT_EQ(Image(refused.after).U32(Image(refused.after).Root(), NkField::SubKeyCount), 0xFFFFu);
}

// A leaf stays only in a cell of at least c * 8 + 24 bytes, rewritten with
// its size and zeros behind the entries; a leaf that would just hold one
// more entry moves. A value list stays only in a cell larger than c * 4 + 8.
TEST(Layout, ListsStayOrMove) {
    for (const auto& [cellSize, stays] : {std::pair{40u, true}, {32u, false}}) {
        HiveBuilder b;
        const std::uint32_t bk = b.AddNk({"B"}), dk = b.AddNk({"D"}), hole = b.AddFree(40);  // where a moved leaf goes
        const std::uint32_t list = b.AddList("lf", {bk, dk}, {"B", "D"}, cellSize);
        b.PatchArea(list + 4 + 20, Bytes(cellSize - 24, 0xEE));  // behind the entries
        b.SetRoot(b.AddNk({"Root", 0x2C, 2, list}));
        const Image image(Edit(b, [](TestHive& t) { return Create(t.Key(), "C"); }).after);
        const std::uint32_t now = image.U32(image.Root(), NkField::SubKeyListCell);
        EXPECT_EQ(now, stays ? list : hole) << cellSize;
        EXPECT_EQ(image.Size(now), -40) << cellSize << ": its size kept, or asked 32 when it moves";
        EXPECT_EQ(image.SubKeyNames(image.Root()), (std::vector<std::string>{"B", "C", "D"}));
        if (stays) {
            EXPECT_EQ(image.U32(list, 28) | image.U32(list, 32), 0u) << "zeros behind the entries";
        }
        if (!stays) {
            EXPECT_GT(image.Size(list), 0) << "the old leaf is released";
        }
    }
    for (const auto& [count, cellSize, stays] : {std::tuple{2u, 16u, false}, {2u, 24u, true}, {8u, 40u, false},
                                                 {8u, 48u, true}}) {
        HiveBuilder b;
        b.AddCells({32, static_cast<std::int32_t>(count * 4 + 8)});  // for the new vk, and for a list that moves
        std::vector<std::uint32_t> values;
        for (std::uint32_t i = 0; i < count; ++i) values.push_back(b.AddVk({std::string(1, char('A' + i)), 0x80000001, i}));
        const std::uint32_t list = b.AddOffsets(values, cellSize);
        b.PatchArea(list + 4 + count * 4, Bytes(cellSize - 4 - count * 4, 0xEE));
        b.SetRoot(b.AddNk({"Root", 0x2C, 0, kNone, count, list}));
        const BYTE one = 1;
        const Image image(Edit(b, [&](TestHive& t) { return RegSetValueNewW(t.Key(), u"New", 0, 3, &one, 1); }).after);
        const std::uint32_t now = image.U32(image.Root(), NkField::ValueListCell);
        EXPECT_EQ(now == list, stays) << count << " in " << cellSize;
        EXPECT_EQ(image.Size(now), -static_cast<std::int32_t>(cellSize)) << "kept, or a cell sized for it taken whole";
        if (stays) {
            EXPECT_EQ(image.U32(now, count * 4 + 4), 0u) << "zeros behind the entries";
        }
    }
}

// Value cells and list cells by size, data inline up to 4 bytes and in a
// cell from 5, a db from 16345 bytes in newer hives, in the order added.
TEST(Layout, NewValuesTheirCellsAndTheirList) {
    HiveBuilder builder = Tree({TreeKey{"K"}});
    std::vector<std::int32_t> listSizes;
    const EditOutcome out = Edit(builder, [&](TestHive& t) {
        HKEY key = t.Key(u"K");
        const std::pair<const char16_t*, Bytes> adds[] = {
            {u"Four", {9, 8, 7, 6}}, {u"Fiver", Pattern(5)}, {u"Cell12", Pattern(12)},  {u"Cell13", Pattern(13)},
            {u"Z", Pattern(16344)},  {u"A", Pattern(16345)}, {u"M", Pattern(40000)},
        };
        LONG sum = 0;
        for (const auto& [name, data] : adds) {
            sum += RegSetValueNewW(key, name, 0, 3, data.data(), static_cast<DWORD>(data.size()));
            listSizes.push_back(Image(t.Disk()).Size(Image(t.Disk()).U32(builder.KeyOffset("K"), NkField::ValueListCell)));
        }
        return sum;
    });
    ASSERT_EQ(out.result, Result::Ok);
    EXPECT_EQ(listSizes, (std::vector<std::int32_t>{-8, -16, -16, -24, -24, -32, -32}));
    const Image image(out.after);
    const std::uint32_t key = builder.KeyOffset("K"), list = image.U32(key, NkField::ValueListCell);
    auto vk = [&](int i) { return image.U32(list, 4 * i); };
    auto dataCell = [&](int i) { return image.U32(vk(i), VkField::DataCell); };
    EXPECT_EQ(image.Size(vk(0)), -32) << "a 4-byte name: asked 28";
    EXPECT_EQ(image.Size(vk(1)), -40);
    EXPECT_EQ(image.U32(vk(0), VkField::DataLength), 0x80000004u);
    EXPECT_EQ(image.U32(vk(0), VkField::DataCell), 0x06070809u);
    EXPECT_EQ(image.U16(vk(0), VkField::Flags), 1u);
    EXPECT_EQ(image.U32(vk(1), VkField::DataLength), 5u);
    const std::vector<std::int32_t> dataSizes = {image.Size(dataCell(1)), image.Size(dataCell(2)),
                                                 image.Size(dataCell(3)), image.Size(dataCell(4))};
    EXPECT_EQ(dataSizes, (std::vector<std::int32_t>{-16, -16, -24, -16352}));
    EXPECT_EQ(image.Sig(dataCell(5)) + std::to_string(image.U16(dataCell(5), 2)), "db2");
    EXPECT_EQ(image.Sig(dataCell(6)) + std::to_string(image.U16(dataCell(6), 2)), "db3");
    EXPECT_EQ(image.Size(image.U32(image.U32(dataCell(6), 4), 0)), -16352) << "segments take whole cells";
    EXPECT_EQ(image.Data(vk(6)), Pattern(40000));
    EXPECT_EQ(image.Name(vk(4)) + image.Name(vk(5)) + image.Name(vk(6)), "ZAM");
    EXPECT_EQ(image.U32(key, NkField::MaxValueName), 12u);
    EXPECT_EQ(image.U32(key, NkField::MaxValueData), 40000u);
    EXPECT_EQ(image.U32(key, NkField::Timestamp), 0u);

    const Image v3(Edit(Tree({}, {}, ListKind::Lf, 3), [](TestHive& t) {
                       const Bytes big = Pattern(20000);
                       return RegSetValueNewW(t.Key(), u"Big", 0, 3, big.data(), 20000);
                   }).after);
    EXPECT_EQ(v3.Size(v3.U32(v3.U32(v3.U32(v3.Root(), NkField::ValueListCell), 0), VkField::DataCell)), -20008)
        << "no db in version 1.3";
}

// --- Rewriting data: which form it takes ---------------------------------------------

struct Rewrite {
    std::uint32_t minor;
    std::size_t before;  // length of the value's data, in its natural form
    std::size_t after;
    LONG result;
    std::uint32_t dataLength;  // stored afterwards
    const char* form;          // "inline", "same cell", "new cell", "same db", "new db"
    std::int32_t cellSize;     // of the data cell afterwards (0: don't care)
};

// The cells a value's data stands in: one, or a db with its list and segments.
std::set<std::uint32_t> DataCells(const Image& image, std::uint32_t vk) {
    const std::uint32_t length = image.U32(vk, VkField::DataLength), cell = image.U32(vk, VkField::DataCell);
    if (length >= Tamvik::kInlineData) return {};
    if (image.Sig(cell) != "db" || image.Minor() < 4 || length <= Tamvik::kSegmentSize) return {cell};
    std::set<std::uint32_t> cells = {cell, image.U32(cell, 4)};
    for (std::uint32_t i = 0; i < image.U16(cell, 2); ++i) cells.insert(image.U32(image.U32(cell, 4), 4 * i));
    return cells;
}

TEST(Layout, RewrittenDataTakesItsForm) {
    const Rewrite cases[] = {
        {5, 4, 2, 0, 0x80000002, "inline", 0},       {5, 2, 3, 0, 0x80000003, "inline", 0},
        {5, 3, 5, 0, 5, "new cell", -16},             {5, 6, 12, 0, 12, "same cell", -16},
        {5, 6, 13, 0, 13, "new cell", -24},           {5, 20, 3, 0, 3, "same cell", -24},
        {5, 20, 20, 0, 20, "same cell", -24},         {3, 20000, 20005, 0, 20005, "new cell", -20016},
        {3, 20000, 3, 0, 3, "same cell", -20008},     {5, 16344, 16345, 0, 16345, "new db", 0},
        {5, 3, 30000, 0, 30000, "new db", 0},         {5, 16345, 16344, 0, 16344, "new cell", -16352},
        {5, 40000, 100, 0, 100, "new cell", -104},    {5, 40000, 40001, 87, 40000, "same db", 0},
        {5, 40000, 40000, 0, 40000, "same db", 0},    {5, 40000, 20000, 0, 20000, "same db", 0},
    };
    for (const Rewrite& c : cases) {
        const std::string what = std::to_string(c.before) + " -> " + std::to_string(c.after) + " in v1." +
                                 std::to_string(c.minor);
        HiveBuilder builder = Tree({}, {{"v", 3, Pattern(c.before, 9)}}, ListKind::Lf, c.minor);
        const Bytes data = Pattern(c.after, 3);
        const EditOutcome out = Edit(builder, [&](TestHive& t) {
            return RegSetValueExW(t.Key(), u"V", 0, 3, data.data(), static_cast<DWORD>(data.size()));
        });
        EXPECT_EQ(out.result, c.result) << what;
        const Image before(out.before), after(out.after);
        const std::uint32_t vk = after.U32(after.U32(after.Root(), NkField::ValueListCell), 0);
        const std::uint32_t oldCell = before.U32(vk, VkField::DataCell), cell = after.U32(vk, VkField::DataCell);
        EXPECT_EQ(after.U32(vk, VkField::DataLength), c.dataLength) << what;
        const std::string form = c.dataLength >= 0x80000000 ? "inline"
                                 : after.Sig(cell) == "db" && c.after > 16344
                                     ? (cell == oldCell ? "same db" : "new db")
                                     : (cell == oldCell ? "same cell" : "new cell");
        EXPECT_EQ(form, c.form) << what;
        if (c.cellSize != 0) {
            EXPECT_EQ(after.Size(cell), c.cellSize) << what;
        }
        if (c.result != 0) {
            EXPECT_EQ(out.after, out.before) << what << ": a refusal writes nothing";
            continue;
        }
        EXPECT_EQ(after.Data(vk), data) << what;
        // The cells of the old data that the new data doesn't hold are free.
        const std::set<std::uint32_t> was = DataCells(before, vk), now = DataCells(after, vk);
        for (std::uint32_t cell : was)
            if (now.count(cell) == 0) {
                EXPECT_GT(after.Size(cell), 0) << what << ": cell " << cell << " not freed";
            }
        for (std::uint32_t cell : now) EXPECT_LT(after.Size(cell), 0) << what;
        const std::uint32_t maxData = after.U32(after.Root(), NkField::MaxValueData);
        EXPECT_EQ(maxData, std::max<std::uint32_t>(c.before, c.after > c.before ? c.after : c.before)) << what;
    }
    // A db's length over a cell that isn't a db, and data growing out of a
    // cell that is free: nothing is followed or written.
    HiveBuilder freed;
    freed.SetRoot(freed.AddNk({"R", 0x2C, 0, 0xFFFFFFFF, 1, freed.AddOffsets({freed.AddVk({"v", 8, freed.AddFree(16)})})}));
    for (const auto& [builder, size] : {std::pair{Tree({}, {{"v", 3, Pattern(20000, 9), DataForm::Cell}}), 18000}, {freed, 12}}) {
        const Bytes data = Pattern(size, 3);
        const EditOutcome out = Edit(builder, [&](TestHive& t) {
            return RegSetValueExW(t.Key(), u"V", 0, 3, data.data(), static_cast<DWORD>(data.size()));
        });
        EXPECT_EQ(out.result, Result::Invalid) << size;
        EXPECT_EQ(out.after, out.before) << size;
    }
}

// --- Deletion and the sk ring ----------------------------------------------------------

TEST(Layout, DeletionGivesBackEveryCellOfItsKey) {
    // Root: values Only (on Kid), three on Root; subkeys Kid (with a value) and Sole's parent.
    HiveBuilder builder = Tree({TreeKey{"Kid", {{"a", 3, {1, 2}}, {"data10", 3, Pattern(10)}, {"big", 3, Pattern(20000)}}},
                                TreeKey{"Longest"}, TreeKey{"Z"}},
                               {{"First", 3, Pattern(30)}, {"Middle", 3, Pattern(8)}, {"Last", 3, {1}}});
    const std::uint32_t kid = builder.KeyOffset("Kid"), sk = builder.TreeSecurity();
    const EditOutcome out = Edit(builder, [](TestHive& t) {
        return RegDeleteValueW(t.Key(), u"middle") + RegDeleteKeyW(t.Key(), u"kid") + RegDeleteValueW(t.Key(u"Z"), u"x");
    });
    EXPECT_EQ(out.result, Result::Invalid) << "Z has no values";
    const Image before(out.before), after(out.after);
    const std::uint32_t root = after.Root(), list = after.U32(root, NkField::ValueListCell);
    EXPECT_EQ(after.Name(after.U32(list, 0)) + after.Name(after.U32(list, 4)), "FirstLast");
    EXPECT_EQ(after.U32(list, 8), before.U32(list, 8)) << "the old last entry stays behind the new end";
    EXPECT_EQ(after.Size(list), before.Size(list));
    EXPECT_EQ(after.U32(root, NkField::ValueCount), 2u);
    EXPECT_EQ(after.U32(root, NkField::MaxValueName), 12u) << "maxima never fall while entries remain";
    EXPECT_EQ(after.SubKeyNames(root), (std::vector<std::string>{"Longest", "Z"}));
    EXPECT_EQ(after.U32(root, NkField::MaxSubKeyName), 14u);
    EXPECT_EQ(after.U32(sk, Tamvik::SkField::RefCount), before.U32(sk, Tamvik::SkField::RefCount) - 1);
    std::vector<std::uint32_t> kidCells = {kid, before.U32(kid, NkField::ValueListCell)};
    for (int i = 0; i < 3; ++i) kidCells.push_back(before.U32(kidCells[1], 4 * i));
    for (std::uint32_t cell : kidCells) EXPECT_GT(after.Size(cell), 0) << cell;
    EXPECT_GT(after.Size(before.U32(kidCells[3], VkField::DataCell)), 0) << "the data cell";
    const std::uint32_t db = before.U32(kidCells[4], VkField::DataCell);
    EXPECT_GT(after.Size(db), 0) << "the db";
    EXPECT_GT(after.Size(before.U32(db, 4)), 0) << "the segment list";

    // The only subkey and the only value take their lists and counters with them.
    const EditOutcome only = Edit(Tree({TreeKey{"Kid"}}, {{"only", 3, Pattern(8)}}), [](TestHive& t) {
        return RegDeleteKeyW(t.Key(), u"Kid") + RegDeleteValueW(t.Key(), u"ONLY");
    });
    ASSERT_EQ(only.result, Result::Ok);
    const Image gone(only.after);
    const std::vector<std::uint32_t> fields = {
        gone.U32(gone.Root(), NkField::SubKeyCount), gone.U32(gone.Root(), NkField::SubKeyListCell),
        gone.U32(gone.Root(), NkField::MaxSubKeyName), gone.U32(gone.Root(), NkField::MaxClassName),
        gone.U32(gone.Root(), NkField::ValueCount), gone.U32(gone.Root(), NkField::ValueListCell),
        gone.U32(gone.Root(), NkField::MaxValueName), gone.U32(gone.Root(), NkField::MaxValueData)};
    EXPECT_EQ(fields, (std::vector<std::uint32_t>{0, kNone, 0, 0, 0, kNone, 0, 0}));
    std::size_t allocated = 0;
    for (const auto& [offset, size] : gone.Cells()) allocated += size < 0;
    EXPECT_EQ(allocated, 2u) << "the sk and the root alone remain";
}

TEST(Layout, DeletionInsideAnRiAndOfClassCells) {
    HiveBuilder b;
    std::vector<std::uint32_t> keys;
    for (const char* name : {"a", "b", "c"}) keys.push_back(b.AddNk({name}));
    const std::uint32_t withClass = b.AddNk({"d", 0x20, 0, kNone, 0, kNone, kNone, b.AddCell(Pattern(8)), 8});
    const std::uint32_t classLess = b.AddNk({"e", 0x20, 0, kNone, 0, kNone, kNone, b.AddCell(Pattern(8)), 0});
    const std::uint32_t leaf1 = b.AddList("lf", {keys[0]}), leaf2 = b.AddList("lf", {keys[1], keys[2], withClass, classLess});
    const std::uint32_t ri = b.AddList("ri", {leaf1, leaf2});
    b.SetRoot(b.AddNk({"Root", 0x2C, 5, ri}));
    const EditOutcome out = Edit(b, [](TestHive& t) {
        return RegDeleteKeyW(t.Key(), u"c") + RegDeleteKeyW(t.Key(), u"a") + RegDeleteKeyW(t.Key(), u"d") +
               RegDeleteKeyW(t.Key(), u"e");
    });
    ASSERT_EQ(out.result, Result::Ok);
    const Image before(out.before), after(out.after);
    EXPECT_EQ(after.U16(ri, 2), 1u) << "the emptied first leaf left the ri";
    EXPECT_EQ(after.U32(ri, 4), leaf2);
    EXPECT_GT(after.Size(leaf1), 0);
    EXPECT_EQ(after.SubKeyNames(after.Root()), std::vector<std::string>{"b"});
    EXPECT_GT(after.Size(before.U32(withClass, NkField::ClassCell)), 0) << "a class cell goes with a ClassLength";
    EXPECT_LT(after.Size(before.U32(classLess, NkField::ClassCell)), 0) << "and only then";
    const Image last(Edit(b, [](TestHive& t) {
                         LONG sum = 0;
                         for (const char16_t* name : {u"a", u"b", u"c", u"d", u"e"}) sum += RegDeleteKeyW(t.Key(), name);
                         return sum;
                     }).after);
    EXPECT_GT(last.Size(ri), 0) << "the last key of the last leaf frees the ri";
    EXPECT_EQ(last.U32(last.Root(), NkField::SubKeyListCell), kNone);
}

// Each key created under a key shares its sk and counts in it; the last
// reference takes the cell out of its ring.
TEST(Layout, SecurityCellsCountTheirKeys) {
    for (int ring = 1; ring <= 3; ++ring) {
        HiveBuilder b;
        std::vector<std::uint32_t> sks;
        for (int i = 0; i < ring; ++i) sks.push_back(b.AddSk(0, 0, i == 0 ? 1 : 5));
        for (int i = 0; i < ring; ++i) {
            b.Patch32(sks[i], Tamvik::SkField::NextSecurity, sks[(i + 1) % ring]);
            b.Patch32(sks[i], Tamvik::SkField::PrevSecurity, sks[(i + ring - 1) % ring]);
        }
        const std::uint32_t kid = b.AddNk({"Kid", 0x20, 0, kNone, 0, kNone, sks[0]});
        b.SetRoot(b.AddNk({"Root", 0x2C, 1, b.AddList("lf", {kid})}));
        std::vector<std::uint32_t> counts;
        const EditOutcome out = Edit(b, [&](TestHive& t) {
            LONG sum = Create(t.Key(u"Kid"), "New");
            counts.push_back(Image(t.Disk()).U32(sks[0], Tamvik::SkField::RefCount));
            sum += RegDeleteKeyW(t.Key(u"Kid"), u"New");
            counts.push_back(Image(t.Disk()).U32(sks[0], Tamvik::SkField::RefCount));
            return sum + RegDeleteKeyW(t.Key(), u"Kid");
        });
        ASSERT_EQ(out.result, Result::Ok) << ring;
        EXPECT_EQ(counts, (std::vector<std::uint32_t>{2, 1})) << ring;
        const Image image(out.after);
        EXPECT_GT(image.Size(sks[0]), 0) << "ring of " << ring << ": the last reference frees the sk";
        if (ring == 1) continue;
        const std::uint32_t next = ring == 2 ? sks[1] : sks[2];
        EXPECT_EQ(image.U32(sks[1], Tamvik::SkField::NextSecurity), next) << ring;
        EXPECT_EQ(image.U32(sks[1], Tamvik::SkField::PrevSecurity), next) << ring;
        EXPECT_EQ(image.U32(sks[ring - 1], Tamvik::SkField::RefCount), 5u) << "the others keep their counts";
    }
}

// --- The base block ----------------------------------------------------------------

TEST(Layout, ChecksumAndVersionOne) {
    auto sumOf = [](std::uint32_t word0, std::uint32_t word126, std::uint32_t outside) {
        Bytes block(4096, 0);
        Tamvik::StoreU32(block.data(), word0), Tamvik::StoreU32(block.data() + 504, word126);
        block[600] = static_cast<std::uint8_t>(outside);
        return Tamvik::BaseBlockChecksum(block.data());
    };
    EXPECT_EQ(sumOf(0, 0, 0), 1u);
    EXPECT_EQ(sumOf(0xFFFFFFFF, 0, 0), 0xFFFFFFFEu);
    EXPECT_EQ(sumOf(0x0F0F0000, 0x00000F0F, 0), 0x0F0F0F0Fu);
    EXPECT_EQ(sumOf(0x0F0F0000, 0x00000F0F, 0xAB), 0x0F0F0F0Fu) << "bytes from 0x200 on are outside";
    // An edit that appends a bin stores the new BinsSize with a fresh sum.
    const EditOutcome out = Edit(Tree({}), [](TestHive& t) {
        const Bytes big = Pattern(6000);
        return RegSetValueNewW(t.Key(), u"v", 0, 3, big.data(), 6000);
    });
    EXPECT_EQ(Image(out.after).BinsSize(), Image(out.before).BinsSize() + 8192);
    EXPECT_EQ(ChecksumOf(out.after.data()), Image(out.after).Word(0x1FC));

    // Version 1.1 cells carry a back link that new cells can't set: creation is
    // refused with nothing written, while rewriting in place and deleting work.
    HiveBuilder v1 = Tree({TreeKey{"K"}}, {{"v", 4, {1, 2, 3, 4}}, {"w", 3, Pattern(20)}}, ListKind::Lf, 1);
    const BYTE four[4] = {4, 3, 2, 1};
    const EditOutcome refused = Edit(v1, [&](TestHive& t) {
        return Create(t.Key(), "New") + RegSetValueNewW(t.Key(), u"n", 0, 4, four, 4);
    });
    EXPECT_EQ(refused.result, 57 + 87);
    EXPECT_EQ(refused.after, refused.before);
    const EditOutcome works = Edit(v1, [&](TestHive& t) {
        return RegSetValueExW(t.Key(), u"v", 0, 4, four, 4) + RegDeleteValueW(t.Key(), u"w") +
               RegDeleteKeyW(t.Key(), u"K");
    });
    EXPECT_EQ(works.result, Result::Ok);
    EXPECT_EQ(Image(works.after).U32(Image(works.after).Root(), NkField::ValueCount), 1u);
}

}  // namespace
