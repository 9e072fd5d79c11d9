// Checks of the test hive builder itself: the layout rules that every other
// test relies on, and a tree read back by an independent reader (hivex).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace {

using TamvikTest::Bytes;
using TamvikTest::DataForm;
using TamvikTest::HiveBuilder;
using TamvikTest::ListKind;
using TamvikTest::TreeKey;
using TamvikTest::TreeValue;

std::uint32_t U32(const Bytes& b, std::size_t at) {
    return static_cast<std::uint32_t>(b[at]) | (static_cast<std::uint32_t>(b[at + 1]) << 8) |
           (static_cast<std::uint32_t>(b[at + 2]) << 16) | (static_cast<std::uint32_t>(b[at + 3]) << 24);
}

std::string Hex(const Bytes& b) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (std::uint8_t c : b) {
        s.push_back(digits[c >> 4]);
        s.push_back(digits[c & 15]);
    }
    return s;
}

Bytes Pattern(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(seed + i * 7);
    return b;
}

// Walks every bin and cell of a built file and fails on a gap, a bad header or
// a cell that runs past its bin; gives the number of cells seen.
std::size_t CheckGapless(const Bytes& file, bool prevLinks) {
    const std::uint32_t binsSize = U32(file, 0x28);
    EXPECT_EQ(file.size(), 4096u + binsSize);
    std::size_t cells = 0;
    std::uint32_t bin = 0;
    while (bin < binsSize) {
        EXPECT_EQ(U32(file, 4096 + bin), 0x6E696268u) << "bin at " << bin;
        EXPECT_EQ(U32(file, 4096 + bin + 4), bin);
        const std::uint32_t size = U32(file, 4096 + bin + 8);
        EXPECT_EQ(size % 4096, 0u);
        if (size == 0) return cells;
        std::uint32_t cell = bin + 32;
        std::uint32_t previous = 0xFFFFFFFF;
        while (cell < bin + size) {
            const auto cellSize = static_cast<std::int32_t>(U32(file, 4096 + cell));
            const std::uint32_t magnitude = cellSize < 0 ? 0u - static_cast<std::uint32_t>(cellSize)
                                                         : static_cast<std::uint32_t>(cellSize);
            EXPECT_EQ(magnitude % 8, 0u) << "cell at " << cell;
            if (magnitude == 0) return cells;
            if (prevLinks) {
                EXPECT_EQ(U32(file, 4096 + cell + 4), previous == 0xFFFFFFFF ? previous : previous - bin)
                    << "PrevLink of cell at " << cell;
            }
            previous = cell;
            cell += magnitude;
            ++cells;
        }
        EXPECT_EQ(cell, bin + size) << "cells overrun bin at " << bin;
        bin += size;
    }
    return cells;
}

// A small tree touching every list kind, value form and name form.
TreeKey SampleTree() {
    TreeKey root;
    root.name = "ROOT";
    root.values = {
        {"Dword", 4, {1, 2, 3, 4}, DataForm::Auto, false},
        {"Text", 1, {'h', 0, 'i', 0, 0, 0}, DataForm::Auto, false},
        {"Big", 3, Pattern(40000, 3), DataForm::Auto, false},
        {"WideVal", 3, {9, 8, 7, 6, 5}, DataForm::Cell, true},
        {"Short", 3, {0xAA}, DataForm::Cell, false},
        {"", 3, {}, DataForm::Inline, false},
    };
    auto parent = [](const std::string& name, ListKind kind, const std::vector<std::string>& children) {
        TreeKey key;
        key.name = name;
        key.list = kind;
        for (const std::string& child : children) key.subkeys.emplace_back().name = child;
        return key;
    };
    TreeKey lh = parent("LhParent", ListKind::Lh, {"One", "Two", "Three"});
    TreeKey li = parent("LiParent", ListKind::Li, {"Alpha", "Beta"});
    TreeKey ri = parent("RiParent", ListKind::Ri, {"K1", "K2", "K3", "K4", "K5"});
    ri.riLeafSize = 2;
    ri.subkeys[2].values = {{"Deep", 3, Pattern(16344, 1), DataForm::Cell, false}};
    TreeKey wide;
    wide.name = "WideKey";
    wide.wideName = true;
    wide.values = {{"Segmented", 3, Pattern(20000, 9), DataForm::Db, false}};
    TreeKey empty;
    empty.name = "Empty";
    root.subkeys = {lh, li, ri, wide, empty};
    return root;
}

// What the walk below should print for a tree.
void Expect(const TreeKey& key, const std::string& path, std::set<std::string>& out) {
    out.insert("K " + path);
    for (const TreeValue& v : key.values) {
        out.insert("V " + path + "|" + v.name + "|" + std::to_string(v.type) + "|" + Hex(v.data));
    }
    for (const TreeKey& child : key.subkeys) Expect(child, path.empty() ? child.name : path + "\\" + child.name, out);
}

bool HavePythonHivex() {
    return std::system("/usr/bin/python3 -c 'import hivex' >/dev/null 2>&1") == 0;
}

// The same listing made by hivex.
std::set<std::string> ListWithHivex(const std::string& path) {
    const std::string script =
        "import hivex,sys\n"
        "h=hivex.Hivex(sys.argv[1])\n"
        "def walk(n,p):\n"
        "  print('K '+p)\n"
        "  for v in h.node_values(n):\n"
        "    t,d=h.value_value(v)\n"
        "    print('V '+p+'|'+h.value_key(v)+'|'+str(t)+'|'+d.hex())\n"
        "  for c in h.node_children(n):\n"
        "    walk(c,(p+chr(92) if p else '')+h.node_name(c))\n"
        "walk(h.root(),'')\n";
    // The script holds no double quote, so it can stand in double quotes once $ and ` are absent.
    const std::string command = "/usr/bin/python3 -c \"" + script + "\" '" + path + "' 2>&1";
    std::set<std::string> lines;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) return lines;
    char buffer[1 << 16];
    std::string line;
    while (fgets(buffer, sizeof buffer, pipe.get()) != nullptr) {
        line += buffer;
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
            lines.insert(line);
            line.clear();
        }
    }
    return lines;
}

TEST(HiveBuilder, TreeReadsBackWithHivex) {
    if (!HavePythonHivex()) GTEST_SKIP() << "/usr/bin/python3 has no hivex module";
    HiveBuilder builder(5);
    const TreeKey tree = SampleTree();
    builder.AddTree(tree);
    TamvikTest::TempFile file(builder.Build());

    std::set<std::string> expected;
    Expect(tree, "", expected);
    const std::set<std::string> listed = ListWithHivex(file.Path());
    // Report the differences only: the lines of big values are long.
    for (const std::string& line : expected) {
        EXPECT_TRUE(listed.count(line)) << "hivex lacks: " << line.substr(0, 120);
    }
    for (const std::string& line : listed) {
        EXPECT_TRUE(expected.count(line)) << "hivex adds: " << line.substr(0, 120);
    }
}

TEST(HiveBuilder, LayoutIsGaplessAndChecksummed) {
    HiveBuilder builder(5);
    builder.AddTree(SampleTree());
    const Bytes file = builder.Build();
    EXPECT_GT(CheckGapless(file, false), 20u);
    EXPECT_EQ(U32(file, 0x1FC), TamvikTest::ChecksumOf(file));
    EXPECT_EQ(U32(file, 0x24), builder.KeyOffset(""));
    EXPECT_EQ(U32(file, 0), 0x66676572u);
    EXPECT_EQ(U32(file, 0x18), 5u);

    // The shared sk counts every key and forms a ring of one.
    const std::uint32_t sk = builder.TreeSecurity();
    EXPECT_EQ(U32(file, 4096 + sk + 4 + 4), sk);
    EXPECT_EQ(U32(file, 4096 + sk + 4 + 12), 16u);

    // Counters and maxima of the root's nk.
    const std::size_t nk = 4096 + builder.KeyOffset("") + 4;
    EXPECT_EQ(U32(file, nk + 0x14), 5u);
    EXPECT_EQ(U32(file, nk + 0x24), 6u);
    EXPECT_EQ(U32(file, nk + 0x34), 16u);     // "LhParent"
    EXPECT_EQ(U32(file, nk + 0x3C), 14u);     // "WideVal"
    EXPECT_EQ(U32(file, nk + 0x40), 40000u);
    const std::size_t empty = 4096 + builder.KeyOffset("Empty") + 4;
    EXPECT_EQ(U32(file, empty + 0x1C), 0xFFFFFFFFu);
    EXPECT_EQ(U32(file, empty + 0x28), 0xFFFFFFFFu);
    EXPECT_EQ(U32(file, empty + 0x10), builder.KeyOffset(""));
}

TEST(HiveBuilder, BuildLeavesTheBuilderOpen) {
    HiveBuilder builder(5);
    const std::uint32_t first = builder.AddCell(Bytes(20, 1));
    const Bytes once = builder.Build();
    // Still in the same bin: Build closed a copy only.
    const std::uint32_t second = builder.AddCell(Bytes(20, 2));
    EXPECT_EQ(first, 32u);
    EXPECT_EQ(second, 56u);
    EXPECT_EQ(once.size(), 8192u);
    EXPECT_EQ(static_cast<std::int32_t>(U32(once, 4096 + 56)), 4096 - 56);
    CheckGapless(builder.Build(), false);
}

TEST(HiveBuilder, CellThatDoesNotFitStartsABigEnoughBin) {
    HiveBuilder builder(5);
    builder.AddCell(Bytes(4000, 0));            // cell of 4008 at 32: 56 bytes left
    const std::uint32_t big = builder.AddCell(Bytes(5000, 0));
    EXPECT_EQ(big, 4096u + 32u);
    const Bytes file = builder.Build();
    EXPECT_EQ(U32(file, 4096 + 4096 + 8), 8192u);  // 5008 + 32 rounded to pages
    EXPECT_EQ(static_cast<std::int32_t>(U32(file, 4096 + 4040)), 56);  // the first bin's rest
    CheckGapless(file, false);
}

TEST(HiveBuilder, SecondLayoutLinksCellsBackwards) {
    HiveBuilder builder(1);
    EXPECT_EQ(builder.PayloadOffset(), 8u);
    builder.AddCell(Bytes(10, 1));
    builder.AddFreeCell(64);
    builder.AddCell(Bytes(10, 1));
    builder.AddBin(8192);
    builder.AddCell(Bytes(100, 1));
    const Bytes file = builder.Build();
    EXPECT_EQ(CheckGapless(file, true), 6u);
}

TEST(HiveBuilder, DamageKnobs) {
    HiveBuilder builder(3);
    builder.AddCell(Bytes(8, 0));
    const std::uint32_t second = builder.AddBin();
    builder.SetChecksumValid(false);
    builder.SetBinsSizeOverride(12345);
    builder.SetSignature("regx");
    builder.BreakBinSignature(second);
    builder.SetBinSize(0, 0);
    builder.SetCellSize(32, 0);
    const Bytes file = builder.Build();
    EXPECT_EQ(U32(file, 0x1FC) ^ TamvikTest::ChecksumOf(file), 1u);
    EXPECT_EQ(U32(file, 0x28), 12345u);
    EXPECT_EQ(file[3], 'x');
    EXPECT_EQ(file[4096 + second], 'x');
    EXPECT_EQ(U32(file, 4096 + 8), 0u);
    EXPECT_EQ(U32(file, 4096 + 32), 0u);
}

TEST(HiveBuilder, LhHashOfKnownNames) {
    EXPECT_EQ(TamvikTest::LhHash("abc"), 91494u);
    EXPECT_EQ(TamvikTest::LhHash("ABC"), 91494u);
    EXPECT_EQ(TamvikTest::LhHash(""), 0u);
    EXPECT_EQ(TamvikTest::LhHash("\xC4"), 0xFFFFFFC4u);  // a high byte adds a negative number
}

}  // namespace
